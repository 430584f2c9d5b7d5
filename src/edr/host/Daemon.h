#pragma once

#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/src/config/CommonConfig.h"
#include "common/src/http/HttpService.h"
#include "common/src/tasks/BlackoutManager.h"
#include "common/src/tasks/ClockStepWatch.h"
#include "common/src/tasks/Scheduler.h"
#include "src/audit/channels/IOChannel.h"
#include "src/audit/engine/RuleEngine.h"
#include "src/audit/engine/WatchedPathSchedule.h"
#include "src/audit/events/FolderIdentities.h"
#include "src/audit/events/FolderScan.h"
#include "src/audit/events/IntakeCounters.h"
#include "src/audit/events/MountTable.h"
#include "src/audit/parser/ParserThread.h"
#include "src/edr/Config.h"
#include "src/edr/LibMagicWrapper.h"
#include "src/edr/host/CommandHandler.h"
#include "src/edr/host/ConfigDocument.h"
#include "src/edr/host/ControlLink.h"
#include "src/edr/host/ExitFlag.h"
#include "src/edr/host/HealthService.h"
#include "src/edr/host/IntakeReport.h"
#include "src/edr/host/IntakeWatch.h"
#include "src/edr/host/LifeSign.h"
#include "src/edr/host/ProofOfLife.h"
#include "src/edr/host/QueueReport.h"
#include "src/edr/host/UploaderFactory.h"
#include "src/fim/Component.h"
#include "src/fim/Config.h"
#include "src/ioc/Component.h"
#include "src/ioc/config/Config.h"

namespace zagent::edr::host {

// Exit codes of the program; docs/OPERATIONS.md tells each cause.
enum class ExitCode : int {
  Success = 0,
  NotDetached = 3,
  NotConfigured = 4,
  NoLog = 5,
  NoMallocThreshold = 6,
  NoGroup = 7,
};

// Ends a start-up that cannot go on; whoever throws it has reported the cause.
class StartUpFailure : public std::runtime_error {
 public:
  StartUpFailure(ExitCode code, const std::string& text) : std::runtime_error(text), code_(code) {}
  [[nodiscard]] ExitCode Code() const { return code_; }

 private:
  ExitCode code_;
};

// The composition root: owns every long-lived object, builds them in order, runs the commands of the parent agent and
// ends everything in order. One object a process; all calls on the main thread.
class Daemon final : private CommandTarget {
 public:
  Daemon();
  ~Daemon() override;

  // From process start to process end. Answers the exit code.
  ExitCode Run();

 private:
  // Start-up, in this order. The first group runs before there is a logger and reports to syslog.
  static void Detach();
  void ConnectToAgent();
  std::string AwaitFirstMessage();
  void Configure(const std::string& message);
  void BuildConfigs(const ConfigDocument& document);
  void InitLog();
  void DropGroup();
  static void SetMallocThreshold();

  void RunLogged();
  [[nodiscard]] audit::internal::FileContext MakeFileContext() const;
  void BuildEngine();
  void BuildUploads();
  [[nodiscard]] std::unique_ptr<const common::BlackoutManager> BuildQuietHours() const;
  void BuildHealth();
  void BuildProofOfLife();
  void BuildFim(std::unique_ptr<const common::BlackoutManager> quiet_hours);
  void BuildIoc();
  void StartIntake();
  void MainLoop();
  [[nodiscard]] std::vector<QueueReport::Gauge> MakeGauges() const;
  [[nodiscard]] bool IsIntakeIdle() const;
  [[nodiscard]] std::uint64_t CountIntakeLosses() const;
  // Restarts an intake that has ended by itself, or throws when that has happened too often.
  void SeeToIntake();
  void RestartIntake();

  void ReleaseStartUp();
  void ShutDown();

  void ReloadLogLevels() override;
  void UpdateFim(const rapidjson::Value& section) override;
  void UpdateIoc(const rapidjson::Value& section) override;
  void UpdateAgentIdentity(const AgentIdentity& identity) override;
  void Exit() override;

  void OnDispatcherReconnected();

  ControlLink link_{ProcessExitFlag()};
  audit::IntakeCounters intake_counters_;
  IntakeReport intake_report_{intake_counters_};
  std::unique_ptr<IntakeWatch> intake_watch_;
  std::unique_ptr<common::Scheduler> scheduler_;
  common::ClockStepWatch clock_steps_;
  std::unique_ptr<audit::IOChannel> control_channel_;
  std::unique_ptr<common::CommonConfig> common_config_;
  std::unique_ptr<fim::Config> fim_config_;
  std::unique_ptr<ioc::Config> ioc_config_;
  std::unique_ptr<Config> edr_config_;
  AgentIdentity agent_{};
  std::unique_ptr<audit::IOChannel> audit_channel_;
  std::chrono::system_clock::time_point start_time_;  // of the sensor: what it tells of itself is as old
  std::shared_ptr<LibMagicWrapper> lib_magic_;
  std::shared_ptr<common::util::DigestCache> digests_;  // of events and baselines alike
  std::shared_ptr<audit::internal::FolderIdentities> folders_;
  std::shared_ptr<audit::internal::MountTable> mounts_;
  std::unique_ptr<audit::internal::FolderScan> folder_scan_;   // fills folders_; the rule engine tells it what for
  std::shared_ptr<audit::WatchedPathSchedule> path_schedule_;  // asks rule_engine_
  std::unique_ptr<audit::RuleEngine> rule_engine_;  // set under the control lock: the reconnection hook looks at it
  std::unique_ptr<common::HttpService> http_service_;
  std::unique_ptr<UploaderFactory> uploaders_;
  std::unique_ptr<HealthService> health_;
  std::unique_ptr<LifeSign> life_sign_;  // built and released while the event thread does not run, which asks it
  std::unique_ptr<ProofOfLife> proof_of_life_;
  std::uint64_t intake_runs_ = 0;
  std::unique_ptr<fim::Component> fim_;
  std::unique_ptr<ioc::Component> ioc_;
  std::unique_ptr<audit::ParserThread> parser_;
};

}  // namespace zagent::edr::host

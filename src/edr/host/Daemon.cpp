#include "src/edr/host/Daemon.h"

#include <magic.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <utility>

#include "common/src/http/DefaultHttpPostProcessor.h"
#include "common/src/http/HttpProxyManager.h"
#include "common/src/storage/FileStorage.h"
#include "common/src/tasks/ResourceMonitor.h"
#include "common/src/tasks/SignalHelper.h"
#include "common/src/util/Log.h"
#include "common/src/util/ThreadName.h"
#include "src/audit/channels/AuditNetlink.h"
#include "src/audit/routing/OwnActivity.h"
#include "src/edr/EventQueueLimit.h"
#include "src/edr/host/MemoryCheck.h"
#include "src/edr/host/ProxyEnvironment.h"
#include "src/edr/host/SigningKeys.h"

namespace zagent::edr::host {
namespace {

using namespace std::chrono_literals;
using common::SignalHelper;

constexpr auto kMainLoopTime = 1s;

std::string WithSlash(const std::string& folder) {
  return folder.empty() || folder.back() != '/' ? folder + "/" : folder;
}

// One step of the shutdown: its failure is reported and the next step follows, so that the kernel's rules always go.
void Guarded(const char* step, const std::function<void()>& action) {
  try {
    action();
  } catch (const std::exception& error) {
    ZLOG_ERROR("Shutdown: failed to " << step << ": " << error.what());
  } catch (...) {
    ZLOG_ERROR("Shutdown: failed to " << step << ": unknown failure");
  }
}

// Of a part that has reported its end: what it died of, which Stop throws on, is known.
template <typename Part>
void StopAfterItsEnd(Part& part) {
  try {
    part.Stop();
  } catch (...) {  // NOLINT(bugprone-empty-catch)
  }
}

}  // namespace

Daemon::Daemon() = default;
Daemon::~Daemon() = default;

ExitCode Daemon::Run() {
  try {
    // The control channel's thread runs before there is a log.
    common::util::Log::HoldUntilInit();
    Detach();
    common::util::NameThisThread("edr-main");
    ConnectToAgent();
    Configure(AwaitFirstMessage());
    InitLog();
    DropGroup();
    SetMallocThreshold();
  } catch (const StartUpFailure& failure) {
    ReleaseStartUp();
    return failure.Code();
  }

  try {
    RunLogged();
  } catch (const std::exception& error) {
    ZLOG_ERROR("Uncaught exception: " << error.what());
    ZLOG_ERROR("Shutting down EDR ...");
  }
  ShutDown();
  return ExitCode::Success;
}

void Daemon::RunLogged() {
  {
    const auto lock = link_.Lock();
    link_.SetLoggerReady();
  }
  scheduler_->Start();
  BuildEngine();
  BuildUploads();
  // Whoever asked for quiet hours must not be disturbed because they cannot be read: this ends the start-up.
  auto quiet_hours = BuildQuietHours();
  BuildHealth();
  BuildProofOfLife();
  BuildFim(std::move(quiet_hours));
  BuildIoc();
  health_->StartUploads();
  StartIntake();
  SignalHelper::Instance().Unblock({SIGINT, SIGTERM});
  MainLoop();
}

audit::internal::FileContext Daemon::MakeFileContext() const {
  return {.lib_magic = lib_magic_,
          .digests = digests_,
          .folders = folders_,
          .mounts = mounts_,
          .extended_coverage = edr_config_->HasExtendedCoverage()};
}

void Daemon::BuildEngine() {
  start_time_ = std::chrono::system_clock::now();
  // Without MAGIC_ERROR a missing file "identifies" as the text of the error.
  lib_magic_ = std::make_shared<LibMagicWrapper>(LibMagicWrapper::kDefaultDatabase, MAGIC_ERROR);
  digests_ = std::make_shared<common::util::DigestCache>();
  folders_ = std::make_shared<audit::internal::FolderIdentities>();
  mounts_ = std::make_shared<audit::internal::MountTable>();
  folder_scan_ = std::make_unique<audit::internal::FolderScan>(*folders_, *mounts_);
  folder_scan_->Start();
  const std::uint64_t allowed_memory_kb = edr_config_->GetMemoryLimit() * common::ReadTotalMemoryKb() / 100;
  audit::RuleEngine::Settings settings{
      .agent_pid = agent_.pid,
      .agent_path = agent_.path,
      .audit_backlog_limit = edr_config_->GetAuditBacklogLimit(),
      .agent_install_path = common_config_->GetAgentInstallPath(),
      .sibling_names = audit::internal::OwnActivity::DefaultSiblingNames(),
      // As many as the event stage may hold.
      .max_resting_events = EventQueueLimit(allowed_memory_kb),
      .agent_effective_uid = common_config_->GetAgentEffectiveUid(),
      .extended_coverage = edr_config_->HasExtendedCoverage(),
      .watch_folders = [this](auto folders) { folder_scan_->Watch(std::move(folders)); },
      .file_context = std::make_shared<const audit::internal::FileContext>(MakeFileContext()),
      .look_at_paths =
          [this] {
            if (path_schedule_) path_schedule_->RunNow();
          },
      .listener =
          [this](const Event& event) {
            if (life_sign_ && life_sign_->IsSign(event)) proof_of_life_->Heard();
          }};
  auto engine =
      std::make_unique<audit::RuleEngine>(audit::AuditNetlink::Kernel(), std::move(settings), intake_counters_);
  {
    const auto lock = link_.Lock();
    rule_engine_ = std::move(engine);
  }
  // Before there is a rule that it might be wanted for.
  path_schedule_ = std::make_shared<audit::WatchedPathSchedule>([this] { return rule_engine_->HasPaths(); },
                                                                [this] { rule_engine_->LookAtPaths(); });
  scheduler_->RegisterSchedule(path_schedule_);
}

void Daemon::BuildUploads() {
  auto keys = TakeSigningKeys(*common_config_);
  SetProxyEnvironment(*common_config_);
  http_service_ = std::make_unique<common::HttpService>(
      common_config_->GetCaCertPath(),
      std::make_unique<common::HttpProxyManager>(common_config_->GetProxyOrder(), common_config_->IsProxyFailOpen()));
  // Who the agent is, the parent agent decides.
  common::ConfigureDefaultHttpPostProcessor(*http_service_, common::LogRecoveryAction);
  http_service_->Start();
  uploaders_ = std::make_unique<UploaderFactory>(*common_config_, *http_service_, std::move(keys));
}

void Daemon::BuildHealth() {
  const health::AHSSettings settings(*common_config_);
  health_ = std::make_unique<HealthService>(settings, common_config_->GetAgentInstallPath(),
                                            uploaders_->Make(settings.GetUploadUrl(), "health status"), *scheduler_,
                                            intake_counters_, audit::AuditNetlink::Kernel());
}

void Daemon::BuildProofOfLife() {
  auto& netlink = audit::AuditNetlink::Kernel();
  const auto own_pid = static_cast<std::uint32_t>(getpid());
  life_sign_ = std::make_unique<LifeSign>(common_config_->GetAgentInstallPath(), *rule_engine_);
  proof_of_life_ = std::make_unique<ProofOfLife>(
      ProofOfLife::Ports{.touch = [this] { return life_sign_->Give(); },
                         .is_idle = [this] { return IsIntakeIdle(); },
                         .losses = [this] { return CountIntakeLosses(); },
                         .install_rules =
                             [this] {
                               // The audit channel's reconnection hook does the same on its own thread, under it.
                               const auto lock = link_.Lock();
                               rule_engine_->Invalidate();
                             },
                         .silence = [this](const std::string& why) { health_->Intake().SetSilence(why); }},
      netlink, edr_config_->HasDispatcherSocketPath() ? 0 : own_pid);
}

// What is being worked on counts as queued: an intake that pauses holds something.
bool Daemon::IsIntakeIdle() const {
  return parser_ && !intake_watch_->HasEnded() && parser_->GetQueuedBytes() == 0 && parser_->GetQueuedEvents() == 0;
}

// Another run of the intake knows nothing of what the last one held.
std::uint64_t Daemon::CountIntakeLosses() const {
  using Reason = audit::IntakeCounters::Reason;
  const audit::IntakeCounters::Snapshot counts = intake_counters_.Take();
  return intake_runs_ + health_->Intake().KernelLosses() + counts.at(static_cast<std::size_t>(Reason::BytesAtBound)) +
         counts.at(static_cast<std::size_t>(Reason::BytesAtStop));
}

std::unique_ptr<const common::BlackoutManager> Daemon::BuildQuietHours() const {
  return std::make_unique<const common::BlackoutManager>(R"({"Blackout_Events":)" +
                                                         common_config_->GetBlackoutEvents() + "}");
}

void Daemon::BuildFim(std::unique_ptr<const common::BlackoutManager> quiet_hours) {
  try {
    auto uploader = uploaders_->Make(fim_config_->GetUploadUrl(), "FIM");
    fim_ = std::make_unique<fim::Component>(start_time_, std::move(fim_config_), lib_magic_, *scheduler_,
                                            std::move(uploader), *rule_engine_, edr_config_->GetCpuLimit(),
                                            edr_config_->GetMemoryLimit(), std::move(quiet_hours), health_->Reporter(),
                                            WithSlash(common_config_->GetAgentInstallPath()), digests_);
  } catch (const std::exception& error) {
    ZLOG_ERROR("Failed to start file integrity monitoring, going on without it: " << error.what());
    health::ComponentHealth(health_->Reporter(), health::ComponentHealth::Kind::Fim).Failed(error.what());
  }
}

// Whoever asked for it must not believe that it runs: a failure ends the start-up.
void Daemon::BuildIoc() {
  try {
    auto uploader = uploaders_->Make(ioc_config_->GetServiceUrl(), "IOC");
    ioc_ = std::make_unique<ioc::Component>(start_time_, std::move(ioc_config_), lib_magic_, *scheduler_,
                                            std::move(uploader), *rule_engine_, edr_config_->GetCpuLimit(),
                                            edr_config_->GetMemoryLimit(), BuildQuietHours(), health_->Reporter(),
                                            WithSlash(common_config_->GetAgentInstallPath()), digests_);
  } catch (const std::exception& error) {
    health::ComponentHealth(health_->Reporter(), health::ComponentHealth::Kind::Ioc).Failed(error.what());
    throw;
  }
}

void Daemon::StartIntake() {
  ++intake_runs_;
  // The parser first, so that no record is read without a consumer.
  parser_ = std::make_unique<audit::ParserThread>(
      *audit_channel_, MakeFileContext(), *rule_engine_, edr_config_->GetCpuLimit(), edr_config_->GetMemoryLimit(),
      audit::IntakeReports{.counters = intake_counters_,
                           .ended = [this](const std::string& cause) { intake_watch_->OnEnded(cause); },
                           .resumed = [this] { folder_scan_->StartAgain(); }});
  parser_->Start();
  audit_channel_->Start();
}

void Daemon::MainLoop() {
  CommandHandler handler(*this);
  MemoryCheck memory_check(common::ResourceMonitor(edr_config_->GetCpuLimit(), edr_config_->GetMemoryLimit()));
  // Kept for readings of the memory; nothing is written there yet, and the file need not exist.
  const common::FileStorage memory_readings("/tmp/memtest");
  QueueReport queue_report(MakeGauges());
  while (!ProcessExitFlag()) {
    {
      auto lock = link_.Lock();
      link_.WaitForWork(lock, kMainLoopTime);
      if (!ProcessExitFlag() && link_.HasMessage()) handler.Handle(link_.TakeMessage());
    }
    // A pid that was the agent's may be anybody's.
    if (!ProcessExitFlag() && link_.MayHaveLostAgent()) rule_engine_->LookAtExclusions();
    // Without the control lock: the audit channel's reconnection hook takes it, and a restart stops that channel.
    if (!ProcessExitFlag()) SeeToIntake();
    if (const auto step = clock_steps_.Check()) scheduler_->OnClockStep(*step);
    intake_report_.TellWhenDue();
    queue_report.TellWhenDue();
    memory_check.RunFor(ProcessExitFlag());
    health_->TellWhenDue();
    proof_of_life_->RunWhenDue();
    life_sign_->Reap();
  }
}

std::vector<QueueReport::Gauge> Daemon::MakeGauges() const {
  // The parser is another one after a restart of the intake.
  return {
      {"parser queue", [this] { return parser_ ? parser_->GetQueuedBytes() : 0; }},
      {"events", [this] { return parser_ ? parser_->GetEventBytes() : 0; }},
      {"resting file events", [this] { return rule_engine_->GetRestingBytes(); }},
      {"found objects", [this] { return rule_engine_->GetFoundBytes(); }},
      {"IOC events", [this] { return ioc_->GetQueuedBytes(); }},
      {"tasks", [this] { return (fim_ ? fim_->GetWaitingBytes() : 0) + ioc_->GetWaitingBytes(); }},
      {"components", [this] { return (fim_ ? fim_->GetCachedBytes() : 0) + ioc_->GetCachedBytes(); }},
      {"statuses", [this] { return health_->GetWaitingBytes(); }},
  };
}

void Daemon::SeeToIntake() {
  const IntakeWatch::Step step = intake_watch_->NextStep();
  health_->Intake().SetEnd(intake_watch_->EndCause());  // the daemon's own end is told of, too
  switch (step) {
    case IntakeWatch::Step::Nothing:
      break;
    case IntakeWatch::Step::Restart:
      RestartIntake();
      break;
    case IntakeWatch::Step::GiveUp:
      throw std::runtime_error("The audit intake has ended three times within ten minutes");
  }
}

void Daemon::RestartIntake() {
  StopAfterItsEnd(*audit_channel_);
  if (parser_) StopAfterItsEnd(*parser_);
  parser_.reset();
  ZLOG_INFO("Starting the audit intake anew");
  folder_scan_->StartAgain();
  intake_watch_->BeginRun();
  health_->Intake().SetEnd("");
  try {
    StartIntake();
    // Nobody was there to hear of an audit daemon that restarted and lost the rules.
    if (edr_config_->HasDispatcherSocketPath()) OnDispatcherReconnected();
  } catch (const std::exception& error) {
    intake_watch_->OnEnded(error.what());
  }
}

void Daemon::ReleaseStartUp() {
  audit_channel_.reset();
  scheduler_.reset();
  control_channel_.reset();
}

void Daemon::ShutDown() {
  lib_magic_.reset();  // events and the parser keep their share
  Guarded("stop the audit channel", [this] {
    if (audit_channel_) audit_channel_->Stop();
  });
  Guarded("stop the parser", [this] {
    if (parser_) parser_->Stop();
  });
  Guarded("report the intake's losses", [this] {
    if (rule_engine_) intake_report_.TellAtEnd();
  });
  Guarded("stop the control channel", [this] { control_channel_->Stop(); });
  Guarded("end file integrity monitoring", [this] { fim_.reset(); });
  Guarded("end indicators of compromise", [this] { ioc_.reset(); });
  Guarded("end the proof of life", [this] {
    proof_of_life_.reset();
    life_sign_.reset();
  });
  Guarded("end the reports of health", [this] {
    if (health_) health_->Stop();
  });
  Guarded("stop the scheduler", [this] { scheduler_->Stop(); });
  Guarded("release the intake", [this] {
    audit_channel_.reset();
    parser_.reset();
  });
  Guarded("stop the HTTP service", [this] {
    if (http_service_) http_service_->Stop();
  });
  Guarded("remove the audit rules", [this] {
    path_schedule_.reset();
    rule_engine_.reset();
  });
  // Behind the rules: a look at a file system that hangs must not leave them in force.
  Guarded("stop looking for folders", [this] {
    if (folder_scan_) folder_scan_->Stop();
  });
  Guarded("release the rest", [this] {
    control_channel_.reset();
    http_service_.reset();
    scheduler_.reset();
    health_.reset();
  });
}

void Daemon::ReloadLogLevels() {
  common::util::Log::Reload(common_config_->GetLogConfigFile());
}

void Daemon::UpdateFim(const rapidjson::Value& section) {
  if (fim_) return fim_->UpdateConfig(section);
  // What kept it from starting may be mended by now.
  fim_config_ = std::make_unique<fim::Config>(*common_config_, section);
  BuildFim(BuildQuietHours());
}

void Daemon::UpdateIoc(const rapidjson::Value& section) {
  ioc_->UpdateConfig(section);
}

void Daemon::UpdateAgentIdentity(const AgentIdentity& identity) {
  agent_ = identity;
  rule_engine_->UpdateExclusions(identity.pid, identity.path);
}

void Daemon::Exit() {
  ProcessExitFlag() = true;
}

void Daemon::OnDispatcherReconnected() {
  const auto lock = link_.Lock();
  if (!rule_engine_) return;
  try {
    rule_engine_->Invalidate();
  } catch (const RuleEngineException&) {
    ZLOG_ERROR("Failed to invalidate the RuleEngine");
  }
}

}  // namespace zagent::edr::host

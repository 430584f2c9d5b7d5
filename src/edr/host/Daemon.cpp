#include "src/edr/host/Daemon.h"

#include <magic.h>
#include <malloc.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <utility>

#include "common/src/http/HttpUploader.h"
#include "common/src/tasks/ResourceMonitor.h"
#include "common/src/tasks/SignalHelper.h"
#include "common/src/util/ErrnoText.h"
#include "common/src/util/Log.h"
#include "src/audit/channels/AuditNetlink.h"
#include "src/audit/channels/DispatcherIOChannel.h"
#include "src/audit/channels/KernelIOChannel.h"
#include "src/audit/routing/OwnActivity.h"

namespace zagent::edr::host {
namespace {

using namespace std::chrono_literals;
using common::SignalHelper;

constexpr auto kFirstMessageTime = 30s;
constexpr auto kMainLoopTime = 1s;
constexpr int kMallocThreshold = 4 * 1024 * 1024;

void OnSignal(int /*signal*/) {
  ProcessExitFlag() = true;
}

// A failure before there is a logger: the cause, the system's verdict, exit code 4.
[[noreturn]] void FailToInitialize(const std::string& cause, int priority = LOG_CRIT) {
  syslog(priority, "%s", cause.c_str());
  syslog(LOG_CRIT, "Error: The ostrel-edr binary could not Initialize.");
  throw StartUpFailure(ExitCode::NotConfigured, cause);
}

common::HmacVersion ChooseHmacVersion(const common::CommonConfig& config) {
  try {
    const common::HmacVersion version = common::ParseHmacVersion(config.GetHmacVersion());
    if (version == common::HmacVersion::HmacV1 || version == common::HmacVersion::HmacV2) return version;
  } catch (const std::invalid_argument&) {
    // A version that nobody knows is replaced like one that this process does not support.
  }
  const auto version = config.IsFedramp() ? common::HmacVersion::HmacV1 : common::HmacVersion::HmacV2;
  ZLOG_WARNING("EDR subprocess only supports HmacV1/V2 - using " << common::ToString(version));
  return version;
}

void SetProxyEnvironment(const common::CommonConfig& config) {
  ZLOG_INFO("Setting the proxy environment variables");
  for (const char* name : {"ostrel_https_tls_proxy", "ostrel_https_proxy", "https_proxy", "http_proxy"}) {
    if (!config.HasEnvironmentVariable(name)) continue;
    // No other thread reads the environment yet: libcurl and its resolver start behind this step.
    if (setenv(name, config.GetEnvironmentVariable(name).c_str(), 1) != 0) {  // NOLINT(concurrency-mt-unsafe)
      ZLOG_ERROR("Failed to set the environment variable " << name << ": " << common::util::ErrnoText(errno));
    }
  }
}

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
    Detach();
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

void Daemon::Detach() {
  if (daemon(0, 0) != 0) {
    constexpr const char* kText = "Error: The ostrel-edr binary could not run as a daemon.";
    syslog(LOG_CRIT, "%s", kText);
    throw StartUpFailure(ExitCode::NotDetached, kText);
  }
  // Every thread inherits the block: only this one will take these signals, once start-up has finished.
  SignalHelper::Instance().Block({SIGINT, SIGTERM});
  SignalHelper::Instance().Register(SIGINT, OnSignal);
  SignalHelper::Instance().Register(SIGTERM, OnSignal);
  std::signal(SIGHUP, SIG_IGN);
}

void Daemon::ConnectToAgent() {
  scheduler_ = std::make_unique<common::Scheduler>();
  try {
    control_channel_ = CreateAgentChannel(link_);
  } catch (const std::exception& error) {  // the agent is not there, or the channel's thread is not to be had
    FailToInitialize(error.what(), LOG_ALERT);
  }
}

std::string Daemon::AwaitFirstMessage() {
  {
    auto lock = link_.Lock();
    if (!link_.HasMessage()) {
      syslog(LOG_ALERT, "Waiting for configuration from the Ostrel Agent process.");
      if (!link_.WaitForMessage(lock, kFirstMessageTime)) {
        FailToInitialize("Failed to receive initial configuration from the Ostrel Agent process.", LOG_ALERT);
      }
    }
  }
  const auto lock = link_.Lock();
  return link_.TakeMessage();
}

void Daemon::Configure(const std::string& message) {
  try {
    const std::optional<Command> command = Command::Parse(message);
    if (!command || command->word != "config" || !command->config_file) {
      throw ConfigDocumentException("Invalid json received from the agent.");
    }
    const ConfigDocument document = ConfigDocument::Read(*command->config_file);
    for (const char* section : {"common_config", "fim_config", "ioc_config", "edr_config"}) {
      if (!document.HasSection(section)) {
        throw ConfigDocumentException("Incomplete configuration file " + *command->config_file);
      }
    }
    BuildConfigs(document);
  } catch (const std::exception& error) {
    FailToInitialize(error.what());
  }
}

void Daemon::BuildConfigs(const ConfigDocument& document) {
  common_config_ = std::make_unique<common::CommonConfig>(document.GetSection("common_config"));
  fim_config_ = std::make_unique<fim::Config>(*common_config_, document.GetSection("fim_config"));
  edr_config_ = std::make_unique<Config>(document.GetSection("edr_config"));
  intake_watch_ = std::make_unique<IntakeWatch>(edr_config_->HasExtendedCoverage());
  if (edr_config_->HasDispatcherSocketPath()) {
    auto channel = std::make_unique<audit::DispatcherIOChannel>(audit::AuditNetlink::Kernel(),
                                                                edr_config_->GetDispatcherSocketPath());
    channel->SetReconnectCallback([this] { OnDispatcherReconnected(); });
    audit_channel_ = std::move(channel);
  } else {
    audit_channel_ = std::make_unique<audit::KernelIOChannel>(audit::AuditNetlink::Kernel());
  }
  audit_channel_->SetEndedCallback(
      [this](const std::string& cause) { intake_watch_->OnEnded("audit channel: " + cause); });
  const std::optional<AgentIdentity> identity = document.GetAgentIdentity();
  if (!identity) throw ConfigDocumentException("Invalid host warden pid and path information");
  agent_ = *identity;
}

void Daemon::InitLog() {
  try {
    common::util::Log::Init("edr", common_config_->GetLogConfigFile());
  } catch (const std::exception& error) {
    syslog(LOG_CRIT, "Error:ostrel-edr:log config is invalid.");
    throw StartUpFailure(ExitCode::NoLog, error.what());
  }
}

void Daemon::DropGroup() {
  if (setgid(common_config_->GetAgentEffectiveGid()) == 0) return;
  const std::string text = "setgid() failed: " + common::util::ErrnoText(errno);
  ZLOG_ERROR(text);
  throw StartUpFailure(ExitCode::NoGroup, text);
}

void Daemon::SetMallocThreshold() {
  // A fixed threshold also ends the allocator's own adjustment of it: large buffers go back to the system.
  if (mallopt(M_MMAP_THRESHOLD, kMallocThreshold) < 1) {
    constexpr const char* kText = "Unable to set malloc threshold to 4MB";
    ZLOG_ERROR(kText);
    throw StartUpFailure(ExitCode::NoMallocThreshold, kText);
  }
  ZLOG_DEBUG("M_MMAP_THRESHOLD: 4MB");
}

void Daemon::RunLogged() {
  {
    const auto lock = link_.Lock();
    link_.SetLoggerReady();
  }
  scheduler_->Start();
  BuildEngine();
  BuildUploads();
  BuildFim();
  StartIntake();
  SignalHelper::Instance().Unblock({SIGINT, SIGTERM});
  MainLoop();
}

audit::internal::FileContext Daemon::MakeFileContext() const {
  return {.lib_magic = lib_magic_,
          .folders = folders_,
          .mounts = mounts_,
          .extended_coverage = edr_config_->HasExtendedCoverage()};
}

void Daemon::BuildEngine() {
  // Without MAGIC_ERROR a missing file "identifies" as the text of the error.
  lib_magic_ = std::make_shared<LibMagicWrapper>(LibMagicWrapper::kDefaultDatabase, MAGIC_ERROR);
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
      .max_resting_events = audit::EventProcessingThread::QueueLimitFor(allowed_memory_kb),
      .agent_effective_uid = common_config_->GetAgentEffectiveUid(),
      .extended_coverage = edr_config_->HasExtendedCoverage(),
      .watch_folders = [this](auto folders) { folder_scan_->Watch(std::move(folders)); },
      .file_context = std::make_shared<const audit::internal::FileContext>(MakeFileContext()),
      .look_for_paths =
          [this] {
            if (path_schedule_) path_schedule_->RunNow();
          }};
  auto engine =
      std::make_unique<audit::RuleEngine>(audit::AuditNetlink::Kernel(), std::move(settings), intake_counters_);
  {
    const auto lock = link_.Lock();
    rule_engine_ = std::move(engine);
  }
  // Before there is a rule that it might be wanted for.
  path_schedule_ = std::make_shared<audit::MissingPathSchedule>([this] { return rule_engine_->IsLookingForPaths(); },
                                                                [this] { rule_engine_->LookForMissingPaths(); });
  scheduler_->RegisterSchedule(path_schedule_);
}

void Daemon::BuildUploads() {
  hmac_config_ = std::make_shared<const common::HmacConfig>(
      common_config_->GetCustomerId(), common_config_->GetAgentId(), common_config_->GetActivationId(),
      common_config_->IsFedramp(), ChooseHmacVersion(*common_config_));
  SetProxyEnvironment(*common_config_);
  http_service_ = std::make_unique<common::HttpService>(common_config_->GetCaCertPath());
  http_service_->Start();
}

std::unique_ptr<const common::BlackoutManager> Daemon::BuildQuietHours() const {
  return std::make_unique<const common::BlackoutManager>(R"({"Blackout_Events":)" +
                                                         common_config_->GetBlackoutEvents() + "}");
}

void Daemon::BuildFim() {
  // Whoever asked for quiet hours must not be disturbed because they cannot be read: this ends the start-up.
  auto quiet_hours = BuildQuietHours();
  try {
    common::HttpUploader::Settings settings;
    settings.url = fim_config_->GetUploadUrl();
    settings.customer_id = common_config_->GetCustomerId();
    settings.agent_id = common_config_->GetAgentId();
    settings.agent_version = common_config_->GetAgentVersion();
    settings.connection_timeout = common_config_->GetConnectionTimeout();
    settings.request_timeout = common_config_->GetRequestTimeout();
    auto uploader = std::make_unique<common::HttpUploader>(*http_service_, hmac_config_, std::move(settings));
    fim_ = std::make_unique<fim::Component>(std::move(fim_config_), *scheduler_, std::move(uploader), *rule_engine_,
                                            WithSlash(common_config_->GetAgentInstallPath()), std::move(quiet_hours));
  } catch (const std::exception& error) {
    ZLOG_ERROR("Failed to start file integrity monitoring, going on without it: " << error.what());
  }
}

void Daemon::StartIntake() {
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
  }
}

void Daemon::SeeToIntake() {
  switch (intake_watch_->NextStep()) {
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
  });
}

void Daemon::ReloadLogLevels() {
  common::util::Log::Reload(common_config_->GetLogConfigFile());
}

void Daemon::UpdateFim(const rapidjson::Value& section) {
  if (!fim_) {
    ZLOG_WARNING("File integrity monitoring did not start: its configuration is ignored until a restart");
    return;
  }
  fim_->UpdateConfig(section);
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

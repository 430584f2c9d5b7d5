// How the Daemon starts up to its log and its group; Daemon.cpp has the rest.
#include <malloc.h>
#include <sys/prctl.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <memory>
#include <optional>
#include <stdexcept>
#include <utility>

#include "common/src/tasks/SignalHelper.h"
#include "common/src/util/ErrnoText.h"
#include "common/src/util/Log.h"
#include "src/audit/channels/AuditNetlink.h"
#include "src/audit/channels/DispatcherIOChannel.h"
#include "src/audit/channels/KernelIOChannel.h"
#include "src/edr/host/Daemon.h"

namespace zagent::edr::host {
namespace {

using namespace std::chrono_literals;
using common::SignalHelper;

constexpr auto kFirstMessageTime = 30s;
constexpr int kMallocThreshold = 4 * 1024 * 1024;

void OnSignal(int /*signal*/) {
  ProcessExitFlag() = true;
}

// There will be no log: what is wrong in a section goes where the verdict on it goes.
void TellHeldErrors() {
  for (const Poco::Message& line : common::util::Log::TakeHeld()) {
    if (line.getPriority() <= Poco::Message::PRIO_ERROR) syslog(LOG_CRIT, "%s", line.getText().c_str());
  }
}

// A failure before there is a logger: the cause, the system's verdict, exit code 4.
[[noreturn]] void FailToInitialize(const std::string& cause, int priority = LOG_CRIT) {
  syslog(priority, "%s", cause.c_str());
  syslog(LOG_CRIT, "Error: The ostrel-edr binary could not Initialize.");
  throw StartUpFailure(ExitCode::NotConfigured, cause);
}

}  // namespace

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
  } catch (const std::invalid_argument& error) {
    TellHeldErrors();
    FailToInitialize(error.what());
  } catch (const std::exception& error) {
    FailToInitialize(error.what());
  }
}

void Daemon::BuildConfigs(const ConfigDocument& document) {
  common_config_ = std::make_unique<common::CommonConfig>(document.GetSection("common_config"));
  fim_config_ = std::make_unique<fim::Config>(*common_config_, document.GetSection("fim_config"));
  ioc_config_ = std::make_unique<ioc::Config>(*common_config_, document.GetSection("ioc_config"));
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
  audit_channel_->SetThreadName("edr-audit");
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
  // Huge pages would make the gaps between what is allocated resident, minutes after a storm and while nothing happens.
  if (prctl(PR_SET_THP_DISABLE, 1, 0, 0, 0) != 0) {
    ZLOG_WARNING("Unable to do without huge pages: " << common::util::ErrnoText(errno));
  }
}

}  // namespace zagent::edr::host

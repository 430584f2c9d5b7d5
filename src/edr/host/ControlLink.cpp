#include "src/edr/host/ControlLink.h"

#include <syslog.h>

#include <utility>

#include "common/src/util/Log.h"
#include "src/audit/channels/UnixClientStreamSockIOChannel.h"

namespace zagent::edr::host {
namespace {

constexpr int kReconnectLimit = 30;

}  // namespace

void ControlLink::OnMessage(std::vector<unsigned char>&& message) {
  {
    const ControlLock lock(mutex_);
    pending_ = std::move(message);
    pending_.push_back('\0');
    ZLOG_INFO("Received configuration data from the Ostrel Agent process: "
              << reinterpret_cast<const char*>(pending_.data()));
  }
  condition_.notify_one();
}

void ControlLink::OnConnected(bool is_connected) {
  is_connected_ = is_connected;
  was_lost_ = true;
}

bool ControlLink::MayHaveLostAgent() {
  return was_lost_.exchange(false) || !is_connected_;
}

void ControlLink::OnError(audit::IOChannel::Error /*error: the channel has logged it*/) {
  {
    const ControlLock lock(mutex_);
    constexpr const char* kText = "Failed to establish communication with the Ostrel Agent process.";
    if (logger_ready_) {
      ZLOG_ERROR(kText);
    } else {
      syslog(LOG_ALERT, "%s", kText);
    }
    exit_flag_ = true;
  }
  condition_.notify_one();
}

bool ControlLink::WaitForMessage(ControlLock& lock, std::chrono::seconds time) {
  return clock_.WaitOnEitherClock(condition_, lock, time, [this] { return HasMessage(); });
}

void ControlLink::WaitForWork(ControlLock& lock, std::chrono::seconds time) {
  clock_.WaitOnEitherClock(condition_, lock, time, [this] { return HasMessage() || exit_flag_; });
}

std::string ControlLink::TakeMessage() {
  const std::vector<unsigned char> taken = std::exchange(pending_, {});
  return taken.empty() ? "" : reinterpret_cast<const char*>(taken.data());
}

std::unique_ptr<audit::IOChannel> CreateAgentChannel(ControlLink& link, const std::string& socket_path) {
  auto channel = std::make_unique<audit::UnixClientStreamSockIOChannel>(socket_path, kReconnectLimit);
  channel->SetReadCallback([&link](audit::IOChannel::Bytes&& message) { link.OnMessage(std::move(message)); });
  channel->SetErrorCallback([&link](audit::IOChannel::Error error) { link.OnError(error); });
  channel->SetDisconnectCallback([&link] { link.OnConnected(false); });
  channel->SetReconnectCallback([&link] { link.OnConnected(true); });
  channel->Start();
  return channel;
}

}  // namespace zagent::edr::host

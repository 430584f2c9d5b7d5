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
    const std::lock_guard inbox_lock(inbox_mutex_);
    inbox_ = std::move(message);
  }
  {
    const ControlLock lock(mutex_, std::try_to_lock);
    if (lock) Accept();
  }
  condition_.notify_one();
}

void ControlLink::Accept() {
  {
    const std::lock_guard inbox_lock(inbox_mutex_);
    if (inbox_.empty()) return;
    pending_ = std::exchange(inbox_, {});
    pending_.push_back('\0');
  }
  ZLOG_INFO(
      "Received configuration data from the Ostrel Agent process: " << reinterpret_cast<const char*>(pending_.data()));
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
    // Under the mutex of whoever waits for it: the notification does not slip in before the wait.
    const std::lock_guard inbox_lock(inbox_mutex_);
    exit_flag_ = true;
  }
  condition_.notify_one();
}

bool ControlLink::WaitForMessage(ControlLock& lock, std::chrono::seconds time) {
  Wait(lock, time, [this] { return !inbox_.empty() || !pending_.empty(); });
  return HasMessage();
}

void ControlLink::WaitForWork(ControlLock& lock, std::chrono::seconds time) {
  Wait(lock, time, [this] { return !inbox_.empty() || !pending_.empty() || exit_flag_; });
  Accept();
}

void ControlLink::Wait(ControlLock& lock, std::chrono::seconds time, const std::function<bool()>& is_awake) {
  lock.unlock();
  {
    std::unique_lock inbox_lock(inbox_mutex_);
    clock_.WaitOnEitherClock(condition_, inbox_lock, time, is_awake);
  }
  lock.lock();
}

bool ControlLink::HasMessage() {
  Accept();
  return !pending_.empty();
}

std::string ControlLink::TakeMessage() {
  Accept();
  std::vector<unsigned char> taken;
  {
    const std::lock_guard inbox_lock(inbox_mutex_);
    taken = std::exchange(pending_, {});
  }
  return taken.empty() ? "" : reinterpret_cast<const char*>(taken.data());
}

std::unique_ptr<audit::IOChannel> CreateAgentChannel(ControlLink& link, const std::string& socket_path) {
  auto channel = std::make_unique<audit::UnixClientStreamSockIOChannel>(socket_path, kReconnectLimit);
  channel->SetReadCallback([&link](audit::IOChannel::Bytes&& message) { link.OnMessage(std::move(message)); });
  channel->SetErrorCallback([&link](audit::IOChannel::Error error) { link.OnError(error); });
  channel->SetDisconnectCallback([&link] { link.OnConnected(false); });
  channel->SetReconnectCallback([&link] { link.OnConnected(true); });
  channel->SetThreadName("edr-control");
  channel->Start();
  return channel;
}

}  // namespace zagent::edr::host

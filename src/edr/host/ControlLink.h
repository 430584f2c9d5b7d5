#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "common/src/util/Clock.h"
#include "src/audit/channels/IOChannel.h"
#include "src/edr/host/ExitFlag.h"

namespace zagent::edr::host {

// What the main thread and the control channel's thread share: one slot for the newest command and the control lock.
// A command that arrives before the older one was taken replaces it.
class ControlLink {
 public:
  using ControlLock = std::unique_lock<std::mutex>;

  // `exit_flag` is raised when the agent is lost.
  explicit ControlLink(ExitFlag& exit_flag, common::util::Clock& clock = common::util::Clock::Real())
      : exit_flag_(exit_flag), clock_(clock) {}
  ControlLink(const ControlLink&) = delete;
  ControlLink& operator=(const ControlLink&) = delete;

  // The channel's callbacks, on its event loop thread. They wait while a command runs, because it holds the lock.
  void OnMessage(std::vector<unsigned char>&& message);
  // The connection has ended, or is there again. Waits for nobody.
  void OnConnected(bool is_connected);
  // The channel has given up: the agent is gone. Raises the exit flag. The report goes to the logger, or to syslog
  // before SetLoggerReady.
  void OnError(audit::IOChannel::Error error);

  // True while there is no connection, and once after each that has ended.
  [[nodiscard]] bool MayHaveLostAgent();

  [[nodiscard]] ControlLock Lock() { return ControlLock(mutex_); }

  // The calls below want the control lock to be held. Their times have passed when the wall clock or the steady clock
  // says so.

  // Waits for a command until the time has passed; exit requests do not end this wait.
  bool WaitForMessage(ControlLock& lock, std::chrono::seconds time);
  // Waits for a command, a raised exit flag that was notified, or until the time has passed.
  void WaitForWork(ControlLock& lock, std::chrono::seconds time);
  [[nodiscard]] bool HasMessage() const { return !pending_.empty(); }
  // Empties the slot and answers its text up to the first NUL.
  std::string TakeMessage();
  void SetLoggerReady() { logger_ready_ = true; }

 private:
  ExitFlag& exit_flag_;
  common::util::Clock& clock_;
  std::mutex mutex_;
  std::condition_variable condition_;
  std::vector<unsigned char> pending_;
  bool logger_ready_ = false;
  std::atomic<bool> is_connected_{true};
  std::atomic<bool> was_lost_{false};  // since MayHaveLostAgent was last asked
};

// Where the parent agent listens.
inline constexpr const char* kControlSocketPath = "/var/run/ostrel/host-warden/sock/agent_edr.sock";

// Builds the control channel on the agent's socket (30 reconnection attempts), bound to `link`, and starts it. Throws
// IOChannelException when the agent does not accept the connection. `link` outlives the channel.
std::unique_ptr<audit::IOChannel> CreateAgentChannel(ControlLink& link,
                                                     const std::string& socket_path = kControlSocketPath);

}  // namespace zagent::edr::host

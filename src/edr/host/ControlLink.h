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

// What the main thread and the control channel's thread share: the control lock, and one slot for the newest command.
//
// The control lock is held for the length of a command, and the channel's thread must not wait for it: what the agent
// sends meanwhile would pile up in the socket and be read as one text. So a command first comes into an inbox with a
// mutex of its own, and becomes the pending message under the control lock as soon as that is free: on the channel's
// thread, or on the main thread before it waits or takes the message. In both places a newer command replaces an older.
class ControlLink {
 public:
  using ControlLock = std::unique_lock<std::mutex>;

  // `exit_flag` is raised when the agent is lost.
  explicit ControlLink(ExitFlag& exit_flag, common::util::Clock& clock = common::util::Clock::Real())
      : exit_flag_(exit_flag), clock_(clock) {}
  ControlLink(const ControlLink&) = delete;
  ControlLink& operator=(const ControlLink&) = delete;

  // The channel's callbacks, on its event loop thread.

  // Waits for nobody, however long a command runs.
  void OnMessage(std::vector<unsigned char>&& message);
  // The connection has ended, or is there again. Waits for nobody.
  void OnConnected(bool is_connected);
  // The channel has given up: the agent is gone. Raises the exit flag, once a running command has ended. The report
  // goes to the logger, or to syslog before SetLoggerReady.
  void OnError(audit::IOChannel::Error error);

  // True while there is no connection, and once after each that has ended.
  [[nodiscard]] bool MayHaveLostAgent();

  [[nodiscard]] ControlLock Lock() { return ControlLock(mutex_); }

  // The calls below want the control lock to be held; the waits release it meanwhile. Their times have passed when the
  // wall clock or the steady clock says so.

  // Waits for a command until the time has passed; exit requests do not end this wait.
  bool WaitForMessage(ControlLock& lock, std::chrono::seconds time);
  // Waits for a command, a raised exit flag that was notified, or until the time has passed.
  void WaitForWork(ControlLock& lock, std::chrono::seconds time);
  // True for a command in the inbox, too, which becomes the pending one.
  [[nodiscard]] bool HasMessage();
  // Empties the slot and answers its text up to the first NUL.
  std::string TakeMessage();
  void SetLoggerReady() { logger_ready_ = true; }

 private:
  // What is in the inbox becomes the pending message. Wants the control lock to be held.
  void Accept();
  // Releases `lock` until `is_awake` holds or the time has passed.
  void Wait(ControlLock& lock, std::chrono::seconds time, const std::function<bool()>& is_awake);

  ExitFlag& exit_flag_;
  common::util::Clock& clock_;
  std::mutex mutex_;                    // the control lock; taken before inbox_mutex_
  std::vector<unsigned char> pending_;  // changes under both mutexes, so that either is enough to look at it
  bool logger_ready_ = false;
  std::mutex inbox_mutex_;  // held for moments: no call, no line of the log under it
  std::condition_variable condition_;
  std::vector<unsigned char> inbox_;
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

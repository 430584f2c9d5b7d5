#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

namespace zagent::reference_agent {

// The daemon, followed through its detaching: the process that is started ends at once, and its child lives on. This
// process becomes a subreaper, so that the child becomes its own and can be waited for.
//
// One a process: Reap collects every child. Used by one thread.
class DaemonProcess {
 public:
  // Processes and their parents are read in proc_root. Throws std::system_error.
  explicit DaemonProcess(std::string proc_root = "/proc");

  // Starts the program without arguments, with default signals and the environment of this process. Throws
  // std::system_error when it cannot be started.
  void Start(const std::string& path);

  // Collects children that have ended, without waiting: called after every SIGCHLD. The exit code once the daemon has
  // ended (128 + the signal when one ended it), or the starting process's code when nothing was left behind it.
  std::optional<int> Reap();

  // The process to talk about: the detached one when there is one.
  [[nodiscard]] pid_t Pid() const { return detached_ != kNone ? detached_ : started_; }
  // SIGKILL. False when there is no process.
  bool Kill() const;

 private:
  static constexpr pid_t kNone = -1;
  const std::string proc_root_;
  pid_t started_ = kNone;
  pid_t detached_ = kNone;
  std::optional<int> unclaimed_code_;  // of a child that ended before it was known as the detached one
};

}  // namespace zagent::reference_agent

#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "common/src/util/UniqueFd.h"

namespace zagent::e2e {

// A mount namespace of the test's own: an empty /run, /etc/ostrel and /dev (with the usual devices), so that the
// daemon's fixed paths are the test's. One a process; throws std::runtime_error when the machine does not allow it.
void EnterSandbox();

// What the daemon writes to syslog, received at /dev/log of the sandbox.
class SyslogCapture {
 public:
  SyslogCapture();
  SyslogCapture(const SyslogCapture&) = delete;
  SyslogCapture& operator=(const SyslogCapture&) = delete;
  ~SyslogCapture();

  struct Line {
    int priority;  // LOG_ALERT, LOG_CRIT, ...
    std::string text;
  };
  [[nodiscard]] std::vector<Line> Lines();
  [[nodiscard]] std::string All();

 private:
  void Drain();

  common::util::UniqueFd socket_;
  std::vector<Line> lines_;
};

// A parent agent on the daemon's control socket.
class TestAgent {
 public:
  TestAgent();
  TestAgent(const TestAgent&) = delete;
  TestAgent& operator=(const TestAgent&) = delete;
  ~TestAgent();

  // Waits for the daemon's connection and writes one burst.
  void Send(const std::string& text);
  void SendConfig(const std::string& config_file);
  // Until so much time has passed since the last write: gaps are all that separates commands.
  void WaitForGap(std::chrono::milliseconds gap) const;

 private:
  void Accept();

  common::util::UniqueFd listener_;
  common::util::UniqueFd client_;
  std::chrono::steady_clock::time_point last_write_;
};

// The daemon as a process: started like an agent starts it, followed through its detaching.
class DaemonProcess {
 public:
  explicit DaemonProcess(const std::vector<std::string>& environment = {});
  DaemonProcess(const DaemonProcess&) = delete;
  DaemonProcess& operator=(const DaemonProcess&) = delete;
  // Kills what is still running.
  ~DaemonProcess();

  // Exit code of the detached process, or of the starting one when it never detached. Throws when the time passes.
  int WaitForExit(std::chrono::seconds time = std::chrono::seconds(60));
  // The detached process.
  [[nodiscard]] pid_t Pid();
  void Signal(int signal);

 private:
  pid_t started_;
  pid_t detached_ = -1;
  int exit_code_ = -1;
};

}  // namespace zagent::e2e

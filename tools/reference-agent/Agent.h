#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "common/src/util/UniqueFd.h"
#include "src/audit/channels/StdIOChannel.h"
#include "tools/reference-agent/AdminSocket.h"
#include "tools/reference-agent/ControlSocket.h"
#include "tools/reference-agent/DaemonProcess.h"
#include "tools/reference-agent/Options.h"
#include "tools/reference-agent/SignalChannel.h"
#include "tools/reference-agent/SyslogListener.h"

namespace zagent::reference_agent {

// A parent agent: serves the control socket, starts the daemon, hands it its configuration, passes commands on and
// waits for its end.
//
//   Agent agent(options, [](const std::string& line) { std::puts(line.c_str()); });
//   return agent.Run();
//
// Sockets, signals and syslog have threads of their own; each hands its news to the thread of Run, which does all the
// work, one piece after the other. One a process.
class Agent {
 public:
  // One line a step ("agent: daemon connected"). Called on the thread of Run.
  using Say = std::function<void(const std::string& line)>;

  // Built before any other thread of the process.
  Agent(Options options, Say say);
  Agent(const Agent&) = delete;
  Agent& operator=(const Agent&) = delete;
  ~Agent() = default;

  // Until the daemon has ended, with its exit code; 0 after "quit", SIGINT or SIGTERM, which leave it alone. Throws
  // std::exception when a socket cannot be made or the daemon cannot be started.
  int Run();

 private:
  using Task = std::function<void()>;

  void Post(Task task);
  Task NextTask();
  void OpenEverything();
  void ListenToSyslog();
  void ListenToTerminal();
  void OnSignal(int signal);
  void OnDaemonEnded(int exit_code);
  void OnConnection(bool connected);
  Answer Obey(const std::string& line);
  Answer Send(const std::string& word, const std::string& argument);
  Answer GoAway();
  Answer ComeBack();
  void End(int exit_code);

  Options options_;
  Say say_;
  std::mutex mutex_;
  std::condition_variable posted_;
  std::deque<Task> tasks_;
  std::optional<int> exit_code_;
  bool configured_ = false;
  bool connected_ = false;
  DaemonProcess daemon_;
  // Their threads post tasks, so they go first.
  SignalChannel signals_;
  std::unique_ptr<SyslogListener> syslog_;
  ControlSocket control_;
  std::unique_ptr<AdminSocket> admin_;
  common::util::UniqueFd terminal_descriptor_;
  std::unique_ptr<audit::StdIOChannel> terminal_;
};

}  // namespace zagent::reference_agent

#include "tools/reference-agent/Agent.h"

#include <fcntl.h>
#include <signal.h>

#include <cerrno>
#include <exception>
#include <filesystem>
#include <sstream>
#include <utility>

#include "common/src/util/ErrnoText.h"
#include "tools/reference-agent/Command.h"

namespace zagent::reference_agent {

Agent::Agent(Options options, Say say)
    : options_(std::move(options)),
      say_(std::move(say)),
      signals_({SIGINT, SIGTERM, SIGCHLD}, [this](int signal) { Post([this, signal] { OnSignal(signal); }); }),
      control_(options_.control_socket,
               [this](bool connected) { Post([this, connected] { OnConnection(connected); }); }) {}

int Agent::Run() {
  OpenEverything();
  while (!exit_code_) NextTask()();
  return *exit_code_;
}

void Agent::Post(Task task) {
  {
    const std::lock_guard lock(mutex_);
    tasks_.push_back(std::move(task));
  }
  posted_.notify_one();
}

Agent::Task Agent::NextTask() {
  std::unique_lock lock(mutex_);
  posted_.wait(lock, [this] { return !tasks_.empty(); });
  Task task = std::move(tasks_.front());
  tasks_.pop_front();
  return task;
}

void Agent::OpenEverything() {
  admin_ = std::make_unique<AdminSocket>(
      options_.admin_socket, [this](const std::string& line) { Post([this, line] { admin_->Reply(Obey(line)); }); });
  ListenToSyslog();
  // The socket is there before the daemon starts: it tries its first connection once.
  control_.Open();
  say_("agent: control socket open at " + control_.Path());
  daemon_.Start(options_.daemon);
  say_("agent: started " + options_.daemon + ", process " + std::to_string(daemon_.Pid()));
  if (options_.interactive) ListenToTerminal();
}

void Agent::ListenToSyslog() {
  try {
    syslog_ = std::make_unique<SyslogListener>(
        options_.syslog, [this](const std::string& line) { Post([this, line] { say_("syslog: " + line); }); });
    if (!syslog_->IsListening()) say_("agent: " + options_.syslog + " has a receiver already");
  } catch (const std::exception& error) {
    // The daemon runs without a log service too.
    say_(std::string("agent: cannot listen to syslog: ") + error.what());
  }
}

void Agent::ListenToTerminal() {
  // An open file of its own: the channel makes it non-blocking, and the terminal is standard output as well.
  terminal_descriptor_.Reset(open("/proc/self/fd/0", O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!terminal_descriptor_) {
    say_("agent: cannot read commands from standard input: " + common::util::ErrnoText(errno));
    return;
  }
  constexpr std::size_t kLineBuffer = 4096;
  terminal_ = std::make_unique<audit::StdIOChannel>(terminal_descriptor_.Get(), -1, kLineBuffer);
  terminal_->SetReadCallback([this](audit::IOChannel::Bytes&& bytes) {
    std::istringstream lines(std::string(bytes.begin(), bytes.end()));
    for (std::string line; std::getline(lines, line);) {
      Post([this, line] {
        const Answer answer = Obey(line);
        if (!answer.ok) say_("agent: " + answer.text);
      });
    }
  });
  terminal_->Start();
}

void Agent::OnSignal(int signal) {
  if (signal != SIGCHLD) {
    say_("agent: leaving the daemon alone");
    End(0);
    return;
  }
  const std::optional<int> code = daemon_.Reap();
  if (code) OnDaemonEnded(*code);
}

void Agent::OnDaemonEnded(int exit_code) {
  // What it wrote to syslog before its end may still be on its way: closing the listener posts the rest.
  syslog_.reset();
  Post([this, exit_code] {
    say_("agent: daemon ended with code " + std::to_string(exit_code));
    End(exit_code);
  });
}

void Agent::OnConnection(bool connected) {
  connected_ = connected && control_.IsOpen();
  say_(connected ? "agent: daemon connected" : "agent: daemon disconnected");
  if (!connected || configured_) return;
  configured_ = true;
  const Answer answer = Send("config", options_.config);
  if (!answer.ok) say_("agent: " + answer.text);
}

Answer Agent::Obey(const std::string& line) {
  const std::optional<Command> command = Command::Parse(line);
  if (!command) return {false, "no command"};
  if (command->word == "away") return GoAway();
  if (command->word == "back") return ComeBack();
  if (command->word == "kill") return {daemon_.Kill(), "sent SIGKILL"};
  if (command->word == "quit") {
    End(0);
    return {true, "leaving the daemon alone"};
  }
  if (command->word == "config" && !command->argument.empty()) {
    return Send(command->word, std::filesystem::absolute(command->argument).lexically_normal());
  }
  return Send(command->word, command->argument);
}

Answer Agent::Send(const std::string& word, const std::string& argument) {
  const std::optional<std::string> json = ToJson({word, argument});
  if (!json) return {false, "the daemon knows no such command: " + word};
  if (!connected_) return {false, "no daemon is connected"};
  try {
    control_.Send(*json);
  } catch (const std::exception& error) {
    return {false, std::string("cannot send: ") + error.what()};
  }
  say_("agent: sent " + word);
  return {true, "sent " + word};
}

Answer Agent::GoAway() {
  if (!control_.IsOpen()) return {false, "the control socket is closed already"};
  control_.Close();
  connected_ = false;
  say_("agent: control socket closed");
  return {true, "control socket closed"};
}

Answer Agent::ComeBack() {
  if (control_.IsOpen()) return {false, "the control socket is open already"};
  try {
    control_.Open();
  } catch (const std::exception& error) {
    return {false, std::string("cannot open the control socket: ") + error.what()};
  }
  say_("agent: control socket open at " + control_.Path());
  return {true, "control socket open"};
}

void Agent::End(int exit_code) {
  if (!exit_code_) exit_code_ = exit_code;
}

}  // namespace zagent::reference_agent

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "common/src/util/UniqueFd.h"
#include "src/audit/channels/UnixServerStreamSockIOChannel.h"
#include "src/audit/channels/UnixSocket.h"
#include "tests/fakes/ChannelLog.h"
#include "tests/fakes/Mailbox.h"
#include "tests/fakes/TempFolder.h"

namespace {

using testing::HasSubstr;
using zagent::common::util::UniqueFd;

constexpr std::chrono::seconds kPatience{30};

// A program whose output a test reads as it comes.
class Program {
 public:
  Program(const std::vector<std::string>& command, const std::map<std::string, std::string>& environment) {
    std::array<int, 2> out{};
    std::array<int, 2> in{};
    EXPECT_EQ(pipe2(out.data(), O_CLOEXEC), 0);
    EXPECT_EQ(pipe2(in.data(), O_CLOEXEC), 0);
    output_.Reset(out[0]);
    input_.Reset(in[1]);
    const UniqueFd child_out(out[1]);
    const UniqueFd child_in(in[0]);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, child_in.Get(), 0);
    posix_spawn_file_actions_adddup2(&actions, child_out.Get(), 1);
    posix_spawn_file_actions_adddup2(&actions, child_out.Get(), 2);
    std::vector<char*> arguments;
    std::vector<std::string> words = command;
    for (std::string& word : words) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    std::vector<std::string> settings;
    for (const auto& [name, value] : environment) settings.push_back(name + "=" + value);
    std::vector<char*> variables;
    for (std::string& setting : settings) variables.push_back(setting.data());
    variables.push_back(nullptr);
    EXPECT_EQ(posix_spawn(&pid_, words[0].c_str(), &actions, nullptr, arguments.data(), variables.data()), 0);
    posix_spawn_file_actions_destroy(&actions);
  }
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;
  ~Program() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }

  // Reads until the text has come; false when the output ends or the patience does.
  bool Says(const std::string& text) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (all_.find(text, said_) == std::string::npos) {
      if (std::chrono::steady_clock::now() > deadline || !ReadSome()) return false;
    }
    said_ = all_.find(text, said_) + text.size();
    return true;
  }
  void Type(const std::string& line) {
    EXPECT_EQ(write(input_.Get(), line.data(), line.size()), static_cast<ssize_t>(line.size()));
  }
  void Signal(int signal) const { kill(pid_, signal); }
  // The exit code, after everything was read.
  int End() {
    while (ReadSome()) {
    }
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
  }
  [[nodiscard]] const std::string& Output() const { return all_; }
  [[nodiscard]] pid_t Pid() const { return pid_; }

 private:
  bool ReadSome() {
    pollfd waiting{output_.Get(), POLLIN, 0};
    if (poll(&waiting, 1, static_cast<int>(std::chrono::milliseconds(kPatience).count())) <= 0) return false;
    std::array<char, 4096> buffer{};
    const ssize_t length = read(output_.Get(), buffer.data(), buffer.size());
    if (length > 0) all_.append(buffer.data(), static_cast<std::size_t>(length));
    return length > 0;
  }

  pid_t pid_ = -1;
  UniqueFd output_;
  UniqueFd input_;
  std::string all_;
  std::size_t said_ = 0;
};

class ReferenceAgentTest : public testing::Test {
 protected:
  std::unique_ptr<Program> Run(const std::vector<std::string>& more = {}) {
    std::vector<std::string> command = {REFERENCE_AGENT, "run",      "--daemon", FAKE_DAEMON, "--config",
                                        "/etc/edr.json", "--socket", socket_,    "--syslog",  syslog_};
    command.insert(command.end(), more.begin(), more.end());
    return std::make_unique<Program>(command, environment_);
  }
  std::unique_ptr<Program> RunUntilConfigured(const std::vector<std::string>& more = {}) {
    auto agent = Run(more);
    EXPECT_TRUE(agent->Says("agent: sent config\n")) << agent->Output();
    AwaitNote("config");
    return agent;
  }
  // What a second instance prints, and its exit code.
  std::pair<std::string, int> Ask(const std::vector<std::string>& words) {
    std::vector<std::string> command = {REFERENCE_AGENT, "--socket", socket_};
    command.insert(command.end(), words.begin(), words.end());
    Program program(command, environment_);
    const int code = program.End();
    return {program.Output(), code};
  }
  // Waits until the daemon has noted a message that has the text.
  void AwaitNote(const std::string& text) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (folder_.Read("notes").find(text) == std::string::npos) {
      ASSERT_LT(std::chrono::steady_clock::now(), deadline) << text << "\n" << folder_.Read("notes");
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  }

  zagent::fakes::TempFolder folder_;
  std::string socket_ = folder_ / "run/agent.sock";
  std::string syslog_ = folder_ / "log";
  std::map<std::string, std::string> environment_ = {
      {"FAKE_SOCKET", socket_}, {"FAKE_NOTES", folder_ / "notes"}, {"FAKE_SYSLOG", syslog_}, {"FAKE_CODE", "0"}};
};

TEST_F(ReferenceAgentTest, TellsTheRoadOfADaemonStepByStep) {
  auto agent = RunUntilConfigured();
  EXPECT_EQ(Ask({"exit"}), (std::pair<std::string, int>{"sent exit\n", 0}));
  EXPECT_EQ(agent->End(), 0);
  std::size_t at = 0;
  for (const std::string& step :
       {std::string("agent: control socket open at ") + socket_ + "\n", std::string("agent: started ") + FAKE_DAEMON,
        std::string("agent: daemon connected\n"), std::string("agent: sent config\n"),
        std::string("agent: sent exit\n"), std::string("agent: daemon ended with code 0\n")}) {
    const std::size_t found = agent->Output().find(step, at);
    EXPECT_NE(found, std::string::npos) << step << "in\n" << agent->Output();
    at = found == std::string::npos ? at : found;
  }
  EXPECT_EQ(folder_.Read("notes"),
            "{\"command\":\"config\",\"config_file\":\"/etc/edr.json\"}\n{\"command\":\"exit\"}\n");
}

TEST_F(ReferenceAgentTest, EndsWithTheCodeOfTheDetachedDaemon) {
  environment_["FAKE_CODE"] = "7";
  auto agent = RunUntilConfigured();
  Ask({"exit"});
  EXPECT_EQ(agent->End(), 7);
  EXPECT_THAT(agent->Output(), HasSubstr("agent: daemon ended with code 7\n"));
}

TEST_F(ReferenceAgentTest, EndsWithTheCodeOfADaemonThatNeverDetached) {
  environment_["FAKE_LAUNCH_CODE"] = "3";
  auto agent = Run();
  EXPECT_EQ(agent->End(), 3);
  EXPECT_THAT(agent->Output(), HasSubstr("agent: daemon ended with code 3\n"));
}

TEST_F(ReferenceAgentTest, SeesADaemonThatEndsAtOnce) {
  environment_["FAKE_SOCKET"] = folder_ / "nowhere.sock";
  auto agent = Run();
  EXPECT_EQ(agent->End(), 4);
}

TEST_F(ReferenceAgentTest, ReportsSyslogLinesWithoutTheirControlBytesBeforeTheEnd) {
  environment_["FAKE_SOCKET"] = folder_ / "nowhere.sock";
  auto agent = Run();
  agent->End();
  const std::size_t line = agent->Output().find("syslog: fake-daemon[1]: Waiting for [31mconfiguration\n");
  EXPECT_NE(line, std::string::npos) << agent->Output();
  EXPECT_LT(line, agent->Output().find("agent: daemon ended"));
  EXPECT_NE(access(syslog_.c_str(), F_OK), 0) << "the socket is gone with the agent";
}

TEST_F(ReferenceAgentTest, LeavesSyslogToALogServiceThatIsThere) {
  const UniqueFd service(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const zagent::audit::internal::UnixAddress address(syslog_);
  ASSERT_EQ(bind(service.Get(), address.Get(), zagent::audit::internal::UnixAddress::Size()), 0);
  auto agent = RunUntilConfigured();
  EXPECT_THAT(agent->Output(), HasSubstr("agent: " + syslog_ + " has a receiver already\n"));
  std::array<char, 200> buffer{};
  EXPECT_GT(recv(service.Get(), buffer.data(), buffer.size(), MSG_DONTWAIT), 0);
  Ask({"exit"});
  agent->End();
  EXPECT_EQ(access(syslog_.c_str(), F_OK), 0);
}

TEST_F(ReferenceAgentTest, TakesTheSyslogSocketOfAnAgentThatDied) {
  {
    const UniqueFd dead(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const zagent::audit::internal::UnixAddress address(syslog_);
    ASSERT_EQ(bind(dead.Get(), address.Get(), zagent::audit::internal::UnixAddress::Size()), 0);
  }
  auto agent = Run();
  EXPECT_TRUE(agent->Says("syslog: fake-daemon")) << agent->Output();
}

TEST_F(ReferenceAgentTest, RunsWithoutAPlaceForSyslog) {
  syslog_ = folder_ / "no/such/folder/log";
  auto agent = RunUntilConfigured();
  EXPECT_THAT(agent->Output(), HasSubstr("agent: cannot listen to syslog: "));
}

TEST_F(ReferenceAgentTest, KeepsItsSocketsToItsOwner) {
  auto agent = RunUntilConfigured();
  for (const std::string& path : {socket_, folder_ / "run/reference-agent.sock"}) {
    struct stat status {};
    ASSERT_EQ(stat(path.c_str(), &status), 0) << path;
    EXPECT_EQ(status.st_mode & 07777, 0600U) << path;
  }
  struct stat folder {};
  ASSERT_EQ(stat((folder_ / "run").c_str(), &folder), 0);
  EXPECT_EQ(folder.st_mode & 07777, 0700U);
}

// Without the gap behind each, the daemon would read them as one message.
TEST_F(ReferenceAgentTest, SendsEachCommandAsABurstOfItsOwn) {
  auto agent = RunUntilConfigured({"--interactive"});
  agent->Type("fim_status\nioc_status\nconfig /a.json\nexit\n");
  EXPECT_EQ(agent->End(), 0);
  EXPECT_EQ(folder_.Read("notes"),
            "{\"command\":\"config\",\"config_file\":\"/etc/edr.json\"}\n"
            "{\"command\":\"fim_status\"}\n"
            "{\"command\":\"ioc_status\"}\n"
            "{\"command\":\"config\",\"config_file\":\"/a.json\"}\n"
            "{\"command\":\"exit\"}\n");
}

TEST_F(ReferenceAgentTest, AnswersWhatItCannotDo) {
  auto agent = RunUntilConfigured({"--interactive"});
  agent->Type("dance\n");
  EXPECT_TRUE(agent->Says("agent: the daemon knows no such command: dance\n")) << agent->Output();
  EXPECT_EQ(Ask({"back"}).second, 1);
  Ask({"away"});
  const auto [text, code] = Ask({"fim_status"});
  EXPECT_EQ(code, 1);
  EXPECT_EQ(text, "reference-agent: no daemon is connected\n");
}

TEST_F(ReferenceAgentTest, GoesAwayAndComesBackToTheSameDaemon) {
  auto agent = RunUntilConfigured();
  EXPECT_EQ(Ask({"away"}), (std::pair<std::string, int>{"control socket closed\n", 0}));
  EXPECT_NE(access(socket_.c_str(), F_OK), 0);
  EXPECT_EQ(Ask({"back"}), (std::pair<std::string, int>{"control socket open\n", 0}));
  EXPECT_TRUE(agent->Says("agent: control socket open at "));
  EXPECT_TRUE(agent->Says("agent: daemon connected\n")) << agent->Output();
  EXPECT_EQ(Ask({"fim_status"}).second, 0);
  AwaitNote("fim_status");
  Ask({"exit"});
  EXPECT_EQ(agent->End(), 0);
  EXPECT_EQ(folder_.Read("notes").find("config", folder_.Read("notes").find('\n')), std::string::npos)
      << "a daemon that comes back keeps its configuration";
}

TEST_F(ReferenceAgentTest, ReportsADaemonThatWasKilled) {
  auto agent = RunUntilConfigured();
  EXPECT_EQ(Ask({"kill"}), (std::pair<std::string, int>{"sent SIGKILL\n", 0}));
  EXPECT_EQ(agent->End(), 128 + SIGKILL);
}

TEST_F(ReferenceAgentTest, CanLeaveTheDaemonAlone) {
  auto agent = RunUntilConfigured();
  EXPECT_EQ(Ask({"quit"}).second, 0);
  EXPECT_EQ(agent->End(), 0);
  // It lives on, looks for an agent, and takes the next one's commands.
  zagent::fakes::Mailbox<bool> connections;
  zagent::audit::UnixServerStreamSockIOChannel next(socket_, 0700);
  next.SetClientCallback([&](bool present) { connections.Put(present); });
  next.Start();
  EXPECT_EQ(connections.Take(), true);
  next.Send(zagent::fakes::ToBytes("{\"command\":\"exit\"}"));
  AwaitNote("exit");
  EXPECT_EQ(connections.Take(), false);
}

TEST_F(ReferenceAgentTest, LeavesTheDaemonAloneOnSigterm) {
  auto agent = RunUntilConfigured();
  agent->Signal(SIGTERM);
  EXPECT_EQ(agent->End(), 0);
  EXPECT_THAT(agent->Output(), HasSubstr("agent: leaving the daemon alone\n"));
}

TEST_F(ReferenceAgentTest, RefusesToRunBesideAnotherAgent) {
  auto agent = RunUntilConfigured();
  auto second = Run();
  EXPECT_EQ(second->End(), 1);
  EXPECT_THAT(second->Output(), HasSubstr("another agent runs already"));
  EXPECT_EQ(Ask({"exit"}).second, 0) << "the first one is unharmed";
  EXPECT_EQ(agent->End(), 0);
}

TEST_F(ReferenceAgentTest, SaysThatTheDaemonCannotBeStarted) {
  Program agent({REFERENCE_AGENT, "run", "--daemon", folder_ / "missing", "--config", "/c", "--socket", socket_,
                 "--syslog", syslog_},
                environment_);
  EXPECT_EQ(agent.End(), 1);
  EXPECT_THAT(agent.Output(), HasSubstr("missing: No such file or directory"));
}

TEST_F(ReferenceAgentTest, ASecondInstanceNeedsAFirst) {
  const auto [text, code] = Ask({"exit"});
  EXPECT_EQ(code, 1);
  EXPECT_THAT(text, HasSubstr("no agent at " + (folder_ / "run/reference-agent.sock")));
}

TEST_F(ReferenceAgentTest, ExplainsItsCommandLine) {
  Program program({REFERENCE_AGENT, "dance"}, environment_);
  EXPECT_EQ(program.End(), 2);
  EXPECT_THAT(program.Output(), HasSubstr("unknown command: dance\nusage: reference-agent run"));
}

}  // namespace

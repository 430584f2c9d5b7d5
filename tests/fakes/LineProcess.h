#pragma once

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/src/util/UniqueFd.h"
#include "tests/fakes/Gate.h"

namespace zagent::fakes {

// Another program that talks in lines: a test writes to its standard input and waits for what it says on its standard
// output and error. It goes with this object.
class LineProcess {
 public:
  explicit LineProcess(std::vector<std::string> arguments) {
    int in[2];
    int out[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("LineProcess: no pipe");
    const common::util::UniqueFd child_in(in[0]);
    const common::util::UniqueFd child_out(out[1]);
    in_.Reset(in[1]);
    out_.Reset(out[0]);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, child_in.Get(), 0);
    posix_spawn_file_actions_adddup2(&actions, child_out.Get(), 1);
    posix_spawn_file_actions_adddup2(&actions, child_out.Get(), 2);
    std::vector<char*> argv;
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    const int error = posix_spawnp(&pid_, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) throw std::runtime_error("LineProcess: " + arguments[0] + ": " + std::strerror(error));
  }
  LineProcess(const LineProcess&) = delete;
  LineProcess& operator=(const LineProcess&) = delete;
  ~LineProcess() {
    if (!running_) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }

  void Write(const std::string& line) const {
    const std::string text = line + "\n";
    if (write(in_.Get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
      throw std::runtime_error("LineProcess: it does not listen");
    }
  }
  void CloseInput() { in_.Reset(); }

  // The rest of the first line that has come with this beginning; throws with all that was said when none comes.
  std::string AwaitLine(const std::string& beginning, std::chrono::milliseconds patience = kTestPatience) {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (true) {
      for (std::size_t begin = 0; begin < said_.size();) {
        const std::size_t end = said_.find('\n', begin);
        if (end == std::string::npos) break;
        if (said_.compare(begin, beginning.size(), beginning) == 0) {
          return said_.substr(begin + beginning.size(), end - begin - beginning.size());
        }
        begin = end + 1;
      }
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0 || !ReadSome(left)) {
        throw std::runtime_error("LineProcess: no \"" + beginning + "\" in:\n" + said_);
      }
    }
  }
  // Everything so far.
  const std::string& Said() {
    while (ReadSome(std::chrono::milliseconds(0))) {
    }
    return said_;
  }

  [[nodiscard]] pid_t Pid() const { return pid_; }
  int AwaitExit() {
    int status = 0;
    if (!Eventually([&] { return waitpid(pid_, &status, WNOHANG) == pid_; })) {
      throw std::runtime_error("LineProcess: it does not end, said:\n" + Said());
    }
    running_ = false;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

 private:
  bool ReadSome(std::chrono::milliseconds patience) {
    pollfd fd{out_.Get(), POLLIN, 0};
    if (poll(&fd, 1, static_cast<int>(patience.count())) <= 0) return false;
    std::array<char, 4096> buffer{};
    const ssize_t count = read(out_.Get(), buffer.data(), buffer.size());
    if (count <= 0) return false;
    said_.append(buffer.data(), static_cast<std::size_t>(count));
    return true;
  }

  pid_t pid_ = -1;
  bool running_ = true;
  common::util::UniqueFd in_;
  common::util::UniqueFd out_;
  std::string said_;
};

}  // namespace zagent::fakes

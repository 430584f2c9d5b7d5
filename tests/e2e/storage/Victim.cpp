#include "tests/e2e/storage/Victim.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <stdexcept>

namespace zagent::e2e {

Victim::Victim(std::vector<std::string> arguments) {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) throw std::runtime_error("pipe");
  output_ = common::util::UniqueFd(ends[0]);
  const common::util::UniqueFd input(ends[1]);
  std::vector<char*> argv;
  for (std::string& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  pid_ = fork();
  if (pid_ < 0) throw std::runtime_error("fork");
  if (pid_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(input.Get(), STDOUT_FILENO);
    execv(argv[0], argv.data());
    _exit(127);
  }
}

Victim::~Victim() {
  if (pid_ <= 0) return;
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
}

std::vector<std::string> Victim::KillAfter(std::chrono::microseconds delay) {
  // Reads meanwhile, so that a full pipe does not stop it.
  const auto deadline = std::chrono::steady_clock::now() + delay;
  std::string text;
  bool killed = false;
  for (;;) {
    const auto left = deadline - std::chrono::steady_clock::now();
    if (!killed && left <= left.zero()) {
      kill(pid_, SIGKILL);
      killed = true;
    }
    const auto nanoseconds = std::chrono::duration_cast<std::chrono::nanoseconds>(left).count();
    const timespec wait{0, killed ? 0 : std::min<long>(nanoseconds, 999'999'999)};
    pollfd output{output_.Get(), POLLIN, 0};
    if (!killed && ppoll(&output, 1, &wait, nullptr) <= 0) continue;
    std::array<char, 4096> buffer{};
    const ssize_t count = read(output_.Get(), buffer.data(), buffer.size());
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) break;
    text.append(buffer.data(), static_cast<std::size_t>(count));
  }
  int status = 0;
  waitpid(pid_, &status, 0);
  pid_ = -1;
  if (!WIFSIGNALED(status) || WTERMSIG(status) != SIGKILL) {
    throw std::runtime_error("the victim ended by itself, status " + std::to_string(status));
  }
  std::vector<std::string> lines;
  for (std::size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n')) {
    lines.push_back(text.substr(0, end));
    text.erase(0, end + 1);
  }
  return lines;
}

}  // namespace zagent::e2e

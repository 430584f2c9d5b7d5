#include "tools/reference-agent/DaemonProcess.h"

#include <signal.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <system_error>
#include <utility>

namespace zagent::reference_agent {
namespace {

constexpr int kSignalCode = 128;

int ExitCode(int status) {
  return WIFSIGNALED(status) ? kSignalCode + WTERMSIG(status) : WEXITSTATUS(status);
}

// The parent of a process, from /proc/<pid>/stat: "pid (name) state ppid ...", where the name may hold anything. -1 for
// one that ends meanwhile: reading fails then, even behind an open file.
pid_t ParentOf(const std::filesystem::path& process) {
  std::ifstream in(process / "stat");
  std::string text;
  std::getline(in, text, '\0');
  const std::size_t name_end = text.rfind(')');
  if (name_end == std::string::npos) return -1;
  std::istringstream rest(text.substr(name_end + 1));
  char state = 0;
  pid_t parent = -1;
  rest >> state >> parent;
  return rest ? parent : -1;
}

// A child of this process; -1 without one.
pid_t FindChild(const std::string& proc_root) {
  std::error_code ignored;
  for (const auto& entry : std::filesystem::directory_iterator(proc_root, ignored)) {
    const std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") == std::string::npos && ParentOf(entry.path()) == getpid()) {
      return static_cast<pid_t>(std::stol(name));
    }
  }
  return -1;
}

}  // namespace

DaemonProcess::DaemonProcess(std::string proc_root) : proc_root_(std::move(proc_root)) {
  if (prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) != 0) {
    throw std::system_error(errno, std::generic_category(), "PR_SET_CHILD_SUBREAPER");
  }
}

void DaemonProcess::Start(const std::string& path) {
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none;
  sigset_t all;
  sigemptyset(&none);
  sigfillset(&all);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &all);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  std::string program = path;
  char* const arguments[] = {program.data(), nullptr};
  pid_t pid = kNone;
  const int error = posix_spawn(&pid, path.c_str(), nullptr, &attributes, arguments, environ);
  posix_spawnattr_destroy(&attributes);
  if (error != 0) throw std::system_error(error, std::generic_category(), path);
  started_ = pid;
}

std::optional<int> DaemonProcess::Reap() {
  int status = 0;
  pid_t pid = kNone;
  while ((pid = waitpid(-1, &status, WNOHANG)) > 0) {
    if (pid == started_) {
      started_ = kNone;
      // The kernel gave its child to this process before it told of its end.
      detached_ = FindChild(proc_root_);
      if (detached_ == kNone) return unclaimed_code_.value_or(ExitCode(status));
    } else if (pid == detached_) {
      detached_ = kNone;
      return ExitCode(status);
    } else {
      unclaimed_code_ = ExitCode(status);
    }
  }
  return std::nullopt;
}

bool DaemonProcess::Kill() const {
  return Pid() != kNone && kill(Pid(), SIGKILL) == 0;
}

}  // namespace zagent::reference_agent

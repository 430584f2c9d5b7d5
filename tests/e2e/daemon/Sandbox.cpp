#include "tests/e2e/daemon/Sandbox.h"

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "src/edr/LibMagicWrapper.h"
#include "src/edr/host/ControlLink.h"
#include "tests/e2e/PrivateMounts.h"

namespace zagent::e2e {
namespace {

using common::util::UniqueFd;

void Require(bool holds, const std::string& what) {
  if (!holds) throw std::runtime_error("Sandbox: " + what + ": " + std::strerror(errno));
}

void Mount(const std::string& source, const std::string& target, const char* type, unsigned long flags) {
  Require(mount(source.c_str(), target.c_str(), type, flags, nullptr) == 0, "mount on " + target);
}

void MapThisUserToRoot(uid_t uid, gid_t gid) {
  std::ofstream("/proc/self/setgroups") << "deny";
  std::ofstream("/proc/self/uid_map") << "0 " << uid << " 1";
  std::ofstream("/proc/self/gid_map") << "0 " << gid << " 1";
}

sockaddr_un Address(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  return address;
}

UniqueFd Bind(const std::string& path, int type) {
  UniqueFd socket_fd(socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
  const sockaddr_un address = Address(path);
  Require(bind(socket_fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0, "bind " + path);
  return socket_fd;
}

}  // namespace

void EnterSandbox() {
  const uid_t uid = getuid();
  const gid_t gid = getgid();
  Require(unshare(uid == 0 ? CLONE_NEWNS : CLONE_NEWNS | CLONE_NEWUSER) == 0, "unshare");
  if (uid != 0) MapThisUserToRoot(uid, gid);
  Require(MakeMountsPrivate(), "making the mounts private");
  Mount("tmpfs", "/run", "tmpfs", 0);

  // A /dev of its own, because /dev/log must not be the machine's.
  const std::string dev = "/run/dev";
  Require(mkdir(dev.c_str(), 0755) == 0, "mkdir " + dev);
  for (const char* name : {"null", "zero", "full", "random", "urandom", "tty"}) {
    std::ofstream(dev + "/" + name).close();
    Mount(std::string("/dev/") + name, dev + "/" + name, nullptr, MS_BIND);
  }
  Mount(dev, "/dev", nullptr, MS_BIND | MS_REC);

  if (std::filesystem::exists("/etc/ostrel") || mkdir("/etc/ostrel", 0700) == 0)
    Mount("tmpfs", "/etc/ostrel", "tmpfs", 0);
  std::filesystem::create_directories("/etc/ostrel/host-warden");
  std::filesystem::create_symlink("/usr/lib/file/magic.mgc", edr::LibMagicWrapper::kDefaultDatabase);
  // Orphans of the daemon's detaching come to this process, which can then learn their exit codes.
  Require(prctl(PR_SET_CHILD_SUBREAPER, 1) == 0, "subreaper");
}

SyslogCapture::SyslogCapture() : socket_(Bind("/dev/log", SOCK_DGRAM)) {}

SyslogCapture::~SyslogCapture() {
  unlink("/dev/log");
}

void SyslogCapture::Drain() {
  char buffer[4096];
  for (ssize_t size; (size = recv(socket_.Get(), buffer, sizeof buffer, MSG_DONTWAIT)) > 0;) {
    // "<9>Nov 20 10:00:00 program: text"
    const std::string datagram(buffer, static_cast<std::size_t>(size));
    const std::size_t text = datagram.find(": ");
    lines_.push_back(
        {std::atoi(datagram.c_str() + 1) & 7, text == std::string::npos ? datagram : datagram.substr(text + 2)});
  }
}

std::vector<SyslogCapture::Line> SyslogCapture::Lines() {
  Drain();
  return lines_;
}

std::string SyslogCapture::All() {
  std::string all;
  for (const Line& line : Lines()) all += std::to_string(line.priority) + " " + line.text + "\n";
  return all;
}

TestAgent::TestAgent() {
  const std::filesystem::path path = edr::host::kControlSocketPath;
  std::filesystem::create_directories(path.parent_path());
  listener_ = Bind(path, SOCK_STREAM);
  Require(listen(listener_.Get(), 1) == 0, "listen");
}

TestAgent::~TestAgent() {
  unlink(edr::host::kControlSocketPath);
}

void TestAgent::Accept() {
  if (client_) return;
  client_.Reset(accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC));
  Require(static_cast<bool>(client_), "accept");
}

void TestAgent::Send(const std::string& text) {
  Accept();
  Require(send(client_.Get(), text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size()), "send");
  last_write_ = std::chrono::steady_clock::now();
}

void TestAgent::WaitForGap(std::chrono::milliseconds gap) const {
  std::this_thread::sleep_until(last_write_ + gap);
}

void TestAgent::SendConfig(const std::string& config_file) {
  Send(R"({"command": "config", "config_file": ")" + config_file + "\"}");
}

DaemonProcess::DaemonProcess(const std::vector<std::string>& environment) : started_(fork()) {
  Require(started_ >= 0, "fork");
  if (started_ == 0) {
    for (const std::string& entry : environment) putenv(const_cast<char*>(entry.c_str()));
    execl(OSTREL_E2E_DAEMON, OSTREL_E2E_DAEMON, nullptr);
    _exit(127);
  }
}

DaemonProcess::~DaemonProcess() {
  if (exit_code_ >= 0) return;
  try {
    Signal(SIGKILL);
    waitpid(Pid(), nullptr, 0);
  } catch (const std::exception&) {  // NOLINT(bugprone-empty-catch): it never detached, or is gone
  }
}

pid_t DaemonProcess::Pid() {
  if (detached_ > 0) return detached_;
  int status = 0;
  Require(waitpid(started_, &status, 0) == started_, "waitpid");
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    exit_code_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    throw std::runtime_error("the daemon did not detach: " + std::to_string(exit_code_));
  }
  // The only child left of a test that runs one daemon.
  siginfo_t info{};
  Require(waitid(P_ALL, 0, &info, WEXITED | WNOWAIT | WNOHANG) == 0, "waitid");
  if (info.si_pid != 0) return detached_ = info.si_pid;
  std::ifstream children("/proc/self/task/" + std::to_string(gettid()) + "/children");
  children >> detached_;
  Require(detached_ > 0, "find the detached daemon");
  return detached_;
}

void DaemonProcess::Signal(int signal) {
  kill(Pid(), signal);
}

int DaemonProcess::WaitForExit(std::chrono::seconds time) {
  if (exit_code_ >= 0) return exit_code_;
  try {
    (void)Pid();
  } catch (const std::runtime_error&) {
    if (exit_code_ >= 0) return exit_code_;
    throw;
  }
  const auto deadline = std::chrono::steady_clock::now() + time;
  int status = 0;
  while (waitpid(detached_, &status, WNOHANG) != detached_) {
    if (std::chrono::steady_clock::now() > deadline) throw std::runtime_error("the daemon is still running");
    usleep(10'000);
  }
  return exit_code_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace zagent::e2e

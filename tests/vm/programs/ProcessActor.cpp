// process-actor: does one thing that a process can do, by one system call.
//
//   process-actor fork|vfork|clone|clone3|thread       starts a child (a thread), which ends at once
//   process-actor execve|execveat PROGRAM [ARGUMENT...]
//   process-actor spawn|vfork-execve PROGRAM [ARGUMENT...]   in a child, by posix_spawn or vfork, and waits for it
//   process-actor thread-create PATH                   makes a file by a thread
//   process-actor connect|bind ADDRESS PORT            IPv4 or IPv6 over UDP
//   process-actor connect-unix|bind-unix PATH
//   process-actor listen ADDRESS PORT                  binds TCP, connects to itself
//   process-actor crash                                ends by SIGSEGV
//   process-actor compat-fork|compat-execve|compat-connect|compat-socketcall|compat-exit ...   as a 32-bit program
#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/sched.h>
#include <sched.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "SystemCall.h"

namespace {

using one_call::Enter;
using one_call::Reachable;

void Check(long result, const std::string& what) {
  if (result < 0) throw std::runtime_error(what + ": " + strerror(errno));
}

// ---- processes

int StartChild(const std::string& how) {
  long child = 0;
  if (how == "vfork") {
    // The child shares this stack until it ends, so nothing may return in between.
    child = vfork();
    if (child == 0) _exit(0);
  } else if (how == "fork") {
    child = syscall(SYS_fork);
  } else if (how == "compat-fork") {
    child = Enter(true, {SYS_fork, 2}, 0);
  } else if (how == "clone") {
    child = syscall(SYS_clone, SIGCHLD, nullptr, nullptr, nullptr, 0);
  } else {
    clone_args arguments{};
    arguments.exit_signal = SIGCHLD;
    child = syscall(SYS_clone3, &arguments, sizeof(arguments));
  }
  if (child == 0) _exit(0);
  Check(child, how);
  Check(waitpid(static_cast<pid_t>(child), nullptr, 0), "wait");
  return 0;
}

int StartThread() {
  constexpr size_t kStack = 65536;
  void* stack = mmap(nullptr, kStack, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  const int flags = CLONE_VM | CLONE_FS | CLONE_FILES | CLONE_SIGHAND | CLONE_THREAD | CLONE_SYSVSEM;
  const auto body = [](void*) -> int {
    syscall(SYS_exit, 0);
    return 0;
  };
  Check(clone(body, static_cast<char*>(stack) + kStack, flags, nullptr), "clone");
  usleep(10000);  // the thread ends before its stack does
  return 0;
}

int CreateInThread(const char* path) {
  int error = 0;
  std::thread([&] { error = open(path, O_CREAT | O_WRONLY | O_CLOEXEC, 0600) < 0 ? errno : 0; }).join();
  errno = error;
  Check(error == 0 ? 0 : -1, path);
  return 0;
}

int ExecuteInChild(const std::string& how, char** arguments) {
  pid_t child = 0;
  char* environment[] = {nullptr};
  if (how == "spawn") {
    errno = posix_spawn(&child, arguments[0], nullptr, nullptr, arguments, environment);
    Check(errno == 0 ? 0 : -1, how + " " + arguments[0]);
  } else {
    child = vfork();
    if (child == 0) {
      execve(arguments[0], arguments, environment);
      _exit(127);
    }
    Check(child, how);
  }
  int status = 0;
  Check(waitpid(child, &status, 0), "wait");
  return WEXITSTATUS(status);
}

// The arguments as static memory, where a 32-bit call finds them as 32-bit addresses.
long CompatVector(char** texts) {
  std::vector<unsigned> addresses;
  for (; *texts != nullptr; ++texts) addresses.push_back(static_cast<unsigned>(Reachable(std::string(*texts))));
  addresses.push_back(0);
  return Reachable(addresses.data(), static_cast<unsigned>(addresses.size() * sizeof(unsigned)));
}

int Execute(const std::string& how, char** arguments) {
  char* environment[] = {nullptr};
  if (how == "execve") {
    execve(arguments[0], arguments, environment);
  } else if (how == "execveat") {
    syscall(SYS_execveat, AT_FDCWD, arguments[0], arguments, environment, 0);
  } else {
    errno = static_cast<int>(-Enter(true, {SYS_execve, 11}, Reachable(std::string(arguments[0])),
                                    CompatVector(arguments), CompatVector(environment)));
  }
  Check(-1, how + " " + arguments[0]);
  return 1;
}

int Crash() {
  const rlimit no_core{0, 0};
  Check(setrlimit(RLIMIT_CORE, &no_core), "setrlimit");
  signal(SIGSEGV, SIG_DFL);
  *static_cast<volatile int*>(nullptr) = 0;
  return 1;
}

// ---- sockets

struct Address {
  sockaddr_storage bytes{};
  socklen_t size = 0;
};

Address InternetAddress(const std::string& text, int port) {
  Address address;
  auto* v4 = reinterpret_cast<sockaddr_in*>(&address.bytes);
  auto* v6 = reinterpret_cast<sockaddr_in6*>(&address.bytes);
  if (inet_pton(AF_INET, text.c_str(), &v4->sin_addr) == 1) {
    v4->sin_family = AF_INET;
    v4->sin_port = htons(static_cast<uint16_t>(port));
    address.size = sizeof(*v4);
  } else if (inet_pton(AF_INET6, text.c_str(), &v6->sin6_addr) == 1) {
    v6->sin6_family = AF_INET6;
    v6->sin6_port = htons(static_cast<uint16_t>(port));
    address.size = sizeof(*v6);
  } else {
    throw std::runtime_error("no address: " + text);
  }
  return address;
}

Address UnixAddress(const std::string& path) {
  Address address;
  auto* un = reinterpret_cast<sockaddr_un*>(&address.bytes);
  if (path.size() >= sizeof(un->sun_path)) throw std::runtime_error("too long: " + path);
  un->sun_family = AF_UNIX;
  memcpy(un->sun_path, path.c_str(), path.size() + 1);
  address.size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size() + 1);
  return address;
}

int UseSocket(const std::string& how, const Address& address) {
  const int fd = socket(address.bytes.ss_family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  Check(fd, "socket");
  const auto* bytes = reinterpret_cast<const sockaddr*>(&address.bytes);
  if (how.starts_with("bind")) {
    Check(bind(fd, bytes, address.size), how);
  } else if (how == "compat-connect") {
    Check(Enter(true, {SYS_connect, 362}, fd, Reachable(bytes, address.size), address.size), how);
  } else if (how == "compat-socketcall") {
    const unsigned arguments[] = {static_cast<unsigned>(fd), static_cast<unsigned>(Reachable(bytes, address.size)),
                                  address.size};
    constexpr int kConnect = 3;  // SYS_CONNECT
    Check(Enter(true, {-1, 102}, kConnect, Reachable(arguments, sizeof(arguments))), how);
  } else {
    Check(connect(fd, bytes, address.size), how);
  }
  return 0;
}

// A TCP connection of this process with itself, and one that is refused.
int Listen(const Address& address) {
  const auto* bytes = reinterpret_cast<const sockaddr*>(&address.bytes);
  const int listener = socket(address.bytes.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int caller = socket(address.bytes.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int refused = socket(address.bytes.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  Check(listener, "socket");
  Check(bind(listener, bytes, address.size), "bind");
  Check(listen(listener, 1), "listen");
  Check(connect(caller, bytes, address.size), "connect");
  close(listener);
  if (connect(refused, bytes, address.size) == 0) throw std::runtime_error("somebody listens");
  return 0;
}

int Run(int argc, char** argv) {
  const std::string how = argc > 1 ? argv[1] : "";
  if (how == "fork" || how == "vfork" || how == "clone" || how == "clone3" || how == "compat-fork")
    return StartChild(how);
  if (how == "thread") return StartThread();
  if (how == "crash") return Crash();
  if (how == "compat-exit") return static_cast<int>(Enter(true, {SYS_exit_group, 252}, 3));
  if ((how == "execve" || how == "execveat" || how == "compat-execve") && argc > 2) return Execute(how, argv + 2);
  if ((how == "spawn" || how == "vfork-execve") && argc > 2) return ExecuteInChild(how, argv + 2);
  if (how == "thread-create" && argc == 3) return CreateInThread(argv[2]);
  if (how.ends_with("-unix") && argc == 3) return UseSocket(how, UnixAddress(argv[2]));
  if (how == "listen" && argc == 4) return Listen(InternetAddress(argv[2], atoi(argv[3])));
  if (argc == 4) return UseSocket(how, InternetAddress(argv[2], atoi(argv[3])));
  fprintf(stderr, "usage: see the head of ProcessActor.cpp\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Run(argc, argv);
  } catch (const std::exception& failure) {
    fprintf(stderr, "process-actor: %s\n", failure.what());
    return 1;
  }
}

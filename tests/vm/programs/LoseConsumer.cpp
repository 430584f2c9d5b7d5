// lose-consumer: takes the kernel's records from a running program without its knowledge.
//
//   lose-consumer THREAD    every audit socket of the thread's process becomes one that nobody sends to; prints how
//   many
//                           there were
//
// THREAD is the one that waits for the records: a wait that goes on would keep the old socket alive.
//
// The kernel lets nobody else become its consumer while the old one's socket is open, and gives the place up as soon as
// it is not. So the process itself is made to open a new netlink socket over each old one, as a debugger would: what it
// waits for stays open and says nothing any more.
#include <dirent.h>
#include <fcntl.h>
#include <linux/netlink.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <iostream>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

void Check(long result, const std::string& what) {
  if (result < 0) throw std::runtime_error(what + ": " + strerror(errno));
}

// Inodes of all audit sockets of this machine, as /proc/net/netlink has them.
std::set<std::string> AuditSockets() {
  std::set<std::string> inodes;
  std::ifstream in("/proc/net/netlink");
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream columns(line);
    std::vector<std::string> words;
    for (std::string word; columns >> word;) words.push_back(word);
    if (words.size() >= 10 && words[1] == std::to_string(NETLINK_AUDIT)) inodes.insert(words.back());
  }
  return inodes;
}

std::vector<int> AuditDescriptors(pid_t pid) {
  const std::set<std::string> sockets = AuditSockets();
  const std::string folder = "/proc/" + std::to_string(pid) + "/fd";
  std::vector<int> descriptors;
  DIR* const entries = opendir(folder.c_str());
  Check(entries != nullptr ? 0 : -1, folder);
  while (const dirent* entry = readdir(entries)) {
    char target[64] = {};
    if (readlinkat(dirfd(entries), entry->d_name, target, sizeof target - 1) <= 0) continue;
    const std::string text = target;
    constexpr std::size_t kPrefix = 8;  // "socket:["
    if (text.rfind("socket:[", 0) != 0) continue;
    if (sockets.count(text.substr(kPrefix, text.size() - kPrefix - 1)) != 0) {
      descriptors.push_back(std::stoi(entry->d_name));
    }
  }
  closedir(entries);
  return descriptors;
}

// A process that is stopped, and makes system calls on demand.
class Puppet {
 public:
  explicit Puppet(pid_t pid) : pid_(pid) {
    Check(ptrace(PTRACE_ATTACH, pid_, nullptr, nullptr), "attach");
    AwaitStop();
    Check(ptrace(PTRACE_GETREGS, pid_, nullptr, &before_), "read the registers");
    errno = 0;
    code_ = ptrace(PTRACE_PEEKTEXT, pid_, before_.rip, nullptr);
    if (errno != 0) throw std::runtime_error("read the code");
    constexpr long kSyscall = 0x050f;
    Check(ptrace(PTRACE_POKETEXT, pid_, before_.rip, (code_ & ~0xffffL) | kSyscall), "write the code");
  }
  Puppet(const Puppet&) = delete;
  Puppet& operator=(const Puppet&) = delete;
  ~Puppet() {
    ptrace(PTRACE_POKETEXT, pid_, before_.rip, code_);
    ptrace(PTRACE_SETREGS, pid_, nullptr, &before_);
    ptrace(PTRACE_DETACH, pid_, nullptr, nullptr);
  }

  long Call(long number, long a, long b, long c) {
    user_regs_struct registers = before_;
    registers.orig_rax = static_cast<unsigned long long>(-1);  // the call that it was stopped in is not repeated here
    registers.rax = static_cast<unsigned long long>(number);
    registers.rdi = static_cast<unsigned long long>(a);
    registers.rsi = static_cast<unsigned long long>(b);
    registers.rdx = static_cast<unsigned long long>(c);
    Check(ptrace(PTRACE_SETREGS, pid_, nullptr, &registers), "write the registers");
    Check(ptrace(PTRACE_SINGLESTEP, pid_, nullptr, nullptr), "make a call");
    AwaitStop();
    Check(ptrace(PTRACE_GETREGS, pid_, nullptr, &registers), "read the answer");
    const auto answer = static_cast<long>(registers.rax);
    if (answer < 0)
      throw std::runtime_error("call " + std::to_string(number) + ": " + strerror(static_cast<int>(-answer)));
    return answer;
  }

 private:
  void AwaitStop() const {
    int status = 0;
    Check(waitpid(pid_, &status, __WALL), "wait for the stop");
    if (!WIFSTOPPED(status)) throw std::runtime_error("the process has ended");
  }

  const pid_t pid_;
  user_regs_struct before_{};
  long code_ = 0;
};

void Lose(pid_t pid) {
  const std::vector<int> descriptors = AuditDescriptors(pid);
  Puppet puppet(pid);
  for (const int descriptor : descriptors) {
    // One of another protocol: of this one the kernel would have its owner's name.
    const long fresh = puppet.Call(SYS_socket, AF_NETLINK, SOCK_RAW | SOCK_NONBLOCK, NETLINK_ROUTE);
    puppet.Call(SYS_dup3, fresh, descriptor, O_CLOEXEC);
    puppet.Call(SYS_close, fresh, 0, 0);
  }
  std::cout << descriptors.size() << "\n";
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: lose-consumer THREAD\n";
    return 2;
  }
  try {
    Lose(std::stoi(argv[1]));
    return 0;
  } catch (const std::exception& failure) {
    std::cerr << "lose-consumer: " << failure.what() << "\n";
    return 1;
  }
}

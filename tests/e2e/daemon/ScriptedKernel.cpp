// The daemon of these tests is the real one but for what this file puts in the place of the machine: the kernel's audit
// socket, and three calls that a test can let fail. The real netlink socket is not even linked into the program.
//
// Environment:
//   OSTREL_E2E_FAIL    "daemon", "mallopt", "setgid", "audit_open" or "threads" (none can be made): that fails
//   OSTREL_E2E_AUDIT   a SEQPACKET socket that hands out audit records: 2 bytes of type, then the text
//   OSTREL_E2E_RULES   a file that is rewritten with the keys of the kernel's rules at every change
//   OSTREL_E2E_REFUSE  while this file exists, the kernel's audit socket cannot be opened
//   OSTREL_E2E_HOLD    while this file exists, a rule that is added waits

#include <fcntl.h>
#include <libaudit.h>
#include <malloc.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <stdexcept>
#include <string>

#include "src/audit/channels/AuditNetlink.h"
#include "tests/fakes/FakeAuditNetlink.h"

namespace zagent::audit {
namespace {

std::string Setting(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? "" : value;
}

bool Exists(const char* name) {
  const std::string file = Setting(name);
  return !file.empty() && access(file.c_str(), F_OK) == 0;
}

// From here on no thread finds memory for its stack.
void RefuseThreads() {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstacksize(&attributes, std::size_t{1} << 46);
  pthread_setattr_default_np(&attributes);
  pthread_attr_destroy(&attributes);
}

int Fail(int error) {
  errno = error;
  return -1;
}

// Rules live in the hand-written kernel; records come from the test over a socket. Thread-safe.
class ScriptedKernel final : public AuditNetlink {
 public:
  int Open() override {
    if (Setting("OSTREL_E2E_FAIL") == "audit_open" || Exists("OSTREL_E2E_REFUSE")) return Fail(EPERM);
    const std::lock_guard lock(mutex_);
    const int fd = rules_.Open();
    if (fd >= 0) Replace(fd, open("/dev/null", O_RDONLY | O_CLOEXEC));
    return fd;
  }
  int Close(int fd) override {
    const std::lock_guard lock(mutex_);
    close(fd);
    if (fd != consumer_) return rules_.Close(fd);
    consumer_ = -1;
    return 0;
  }
  int SetEnabled(int fd, std::uint32_t enabled) override {
    return OnRules([&] { return rules_.SetEnabled(fd, enabled); });
  }
  // The consumer's descriptor becomes the test's socket.
  int SetPid(int fd, std::uint32_t pid) override {
    const int result = OnRules([&] { return rules_.SetPid(fd, pid); });
    if (result <= 0) return result;
    const int connected = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    Setting("OSTREL_E2E_AUDIT").copy(address.sun_path, sizeof address.sun_path - 1);
    if (connect(connected, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) return -1;
    const std::lock_guard lock(mutex_);
    rules_.Close(fd);
    Replace(fd, connected);
    consumer_ = fd;
    return result;
  }
  int SetBacklogLimit(int fd, std::uint32_t limit) override {
    return OnRules([&] { return rules_.SetBacklogLimit(fd, limit); });
  }
  int RequestStatus(int fd) override {
    return OnRules([&] { return rules_.RequestStatus(fd); });
  }
  int RequestRulesList(int fd) override {
    return OnRules([&] { return rules_.RequestRulesList(fd); });
  }
  int AddRule(int fd, audit_rule_data* rule, int flags, int action) override {
    while (Exists("OSTREL_E2E_HOLD")) usleep(10'000);
    return OnRules([&] { return rules_.AddRule(fd, rule, flags, action); });
  }
  int DeleteRule(int fd, audit_rule_data* rule, int flags, int action) override {
    return OnRules([&] { return rules_.DeleteRule(fd, rule, flags, action); });
  }

  int GetReply(int fd, audit_reply& reply) override {
    if (fd != consumer_) return OnRules([&] { return rules_.GetReply(fd, reply); });
    char packet[MAX_AUDIT_MESSAGE_LENGTH];
    const ssize_t size = recv(fd, packet, sizeof packet, MSG_DONTWAIT);
    // A kernel never hangs up: the test does, to see what becomes of a channel that dies.
    if (size == 0) throw std::runtime_error("the scripted kernel has gone");
    if (size < 2) return Fail(EAGAIN);
    std::uint16_t type = 0;
    std::memcpy(&type, packet, sizeof type);
    reply = {};
    reply.type = type;
    reply.len = static_cast<int>(size) - 2;
    reply.nlh = &reply.msg.nlh;
    std::memcpy(reply.msg.data, packet + 2, static_cast<std::size_t>(reply.len));
    reply.message = reply.msg.data;
    return reply.len;
  }
  bool WaitReadable(int fd, std::chrono::milliseconds time) override {
    return OnRules([&] { return rules_.WaitReadable(fd, time) ? 1 : 0; }) == 1;
  }

 private:
  template <typename Call>
  int OnRules(Call call) {
    const std::lock_guard lock(mutex_);
    const int result = call();
    const int error = errno;
    WriteKeys();
    errno = error;
    return result;
  }

  // Puts a real descriptor in the place of the number that the rules' kernel has made up.
  static void Replace(int fd, int real) {
    dup3(real, fd, O_CLOEXEC);
    close(real);
  }

  void WriteKeys() {
    const std::string file = Setting("OSTREL_E2E_RULES");
    if (file.empty()) return;
    std::string keys;
    for (const fakes::SeenRule& rule : rules_.Rules()) keys += rule.Key() + "\n";
    if (keys == written_keys_) return;
    written_keys_ = keys;
    std::ofstream(file + ".new") << keys;
    std::rename((file + ".new").c_str(), file.c_str());
  }

  std::mutex mutex_;
  fakes::FakeAuditNetlink rules_;
  std::atomic<int> consumer_{-1};
  std::string written_keys_ = "none yet";
};

}  // namespace

AuditNetlink& AuditNetlink::Kernel() {
  static ScriptedKernel kernel;
  return kernel;
}

}  // namespace zagent::audit

extern "C" {

int __real_daemon(int nochdir, int noclose);
int __real_mallopt(int parameter, int value);
int __real_setgid(gid_t gid);

int __wrap_daemon(int nochdir, int noclose) {
  if (zagent::audit::Setting("OSTREL_E2E_FAIL") == "daemon") return zagent::audit::Fail(EPERM);
  const int result = __real_daemon(nochdir, noclose);
  if (zagent::audit::Setting("OSTREL_E2E_FAIL") == "threads") zagent::audit::RefuseThreads();
  return result;
}

int __wrap_mallopt(int parameter, int value) {
  if (zagent::audit::Setting("OSTREL_E2E_FAIL") == "mallopt") return 0;
#ifdef __SANITIZE_ADDRESS__
  // AddressSanitizer's allocator refuses every option.
  static_cast<void>(__real_mallopt(parameter, value));
  return 1;
#else
  return __real_mallopt(parameter, value);
#endif
}

int __wrap_setgid(gid_t gid) {
  return zagent::audit::Setting("OSTREL_E2E_FAIL") == "setgid" ? zagent::audit::Fail(EPERM) : __real_setgid(gid);
}
}

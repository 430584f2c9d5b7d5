#include "src/audit/channels/AuditNetlink.h"

#include <libaudit.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>

namespace zagent::audit {
namespace {

int ToErrno(int result) {
  if (result < -1) {
    errno = -result;
    return -1;
  }
  return result;
}

// For what waits to be read. The kernel takes the memory when it is needed, and twice as much for what surrounds it.
// Without the right to that it is as it was.
void MakeRoom(int fd, int bytes) {
  setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof(bytes));
}

class KernelNetlink final : public AuditNetlink {
 public:
  int Open() override { return audit_open(); }
  int Close(int fd) override { return close(fd); }
  int SetEnabled(int fd, std::uint32_t enabled) override { return ToErrno(audit_set_enabled(fd, enabled)); }
  int SetPid(int fd, std::uint32_t pid) override {
    // After half a second with a full buffer the kernel takes its consumer for dead and sends what waits out of order:
    // as many records as its backlog holds are to fit. The default has room for some two hundred.
    MakeRoom(fd, 4 * 1024 * 1024);
    return ToErrno(audit_set_pid(fd, pid, WAIT_YES));
  }
  int SetBacklogLimit(int fd, std::uint32_t limit) override { return ToErrno(audit_set_backlog_limit(fd, limit)); }
  int RequestStatus(int fd) override { return ToErrno(audit_request_status(fd)); }
  int RequestRulesList(int fd) override {
    // The kernel waits a tenth of a second for a reader whose buffer is full, and drops rows then: thousands of rules
    // are to fit.
    MakeRoom(fd, 32 * 1024 * 1024);
    return ToErrno(audit_request_rules_list_data(fd));
  }
  int AddRule(int fd, audit_rule_data* rule, int flags, int action) override {
    // libaudit writes into the rule without a look.
    if (rule == nullptr) {
      errno = EINVAL;
      return -1;
    }
    return ToErrno(audit_add_rule_data(fd, rule, flags, action));
  }
  int DeleteRule(int fd, audit_rule_data* rule, int flags, int action) override {
    return ToErrno(audit_delete_rule_data(fd, rule, flags, action));
  }
  int GetReply(int fd, audit_reply& reply) override {
    return ToErrno(audit_get_reply(fd, &reply, GET_REPLY_NONBLOCKING, 0));
  }
  bool WaitReadable(int fd, std::chrono::milliseconds time) override {
    using std::chrono::milliseconds;
    using SteadyClock = std::chrono::steady_clock;
    const auto end = SteadyClock::now() + time;
    for (;;) {
      const auto left = std::chrono::ceil<milliseconds>(end - SteadyClock::now());
      pollfd waiting{fd, POLLIN, 0};
      const int ready = poll(&waiting, 1, static_cast<int>(std::max(left, milliseconds::zero()).count()));
      if (ready >= 0 || errno != EINTR) return ready > 0;
    }
  }
};

}  // namespace

AuditNetlink& AuditNetlink::Kernel() {
  static KernelNetlink kernel;
  return kernel;
}

}  // namespace zagent::audit

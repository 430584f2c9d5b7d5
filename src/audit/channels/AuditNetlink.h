#pragma once

#include <chrono>
#include <cstdint>
#include <string>

struct audit_reply;
struct audit_rule_data;

namespace zagent::audit {

// The kernel's audit netlink socket, call by call: a thin shim over libaudit so that tests own the kernel. Results
// and errno are libaudit's. Calls on one descriptor are not serialised here.
class AuditNetlink {
 public:
  AuditNetlink() = default;
  AuditNetlink(const AuditNetlink&) = delete;
  AuditNetlink& operator=(const AuditNetlink&) = delete;
  virtual ~AuditNetlink() = default;

  virtual int Open() = 0;         // audit_open: a descriptor, or -1 with errno
  virtual int Close(int fd) = 0;  // close(2)
  virtual int SetEnabled(int fd, std::uint32_t enabled) = 0;
  // Registers `pid` as the kernel's audit consumer and waits for the kernel's answer.
  virtual int SetPid(int fd, std::uint32_t pid) = 0;
  virtual int SetBacklogLimit(int fd, std::uint32_t limit) = 0;
  virtual int RequestStatus(int fd) = 0;
  virtual int RequestRulesList(int fd) = 0;
  // Above 0 on success; otherwise errno tells (libaudit answers -errno for some failures: both forms are mapped to
  // a result of -1 with errno set).
  virtual int AddRule(int fd, audit_rule_data* rule, int flags, int action) = 0;
  virtual int DeleteRule(int fd, audit_rule_data* rule, int flags, int action) = 0;
  // audit_get_reply without blocking: the length above 0, or 0/-1 with errno.
  virtual int GetReply(int fd, audit_reply& reply) = 0;
  // True when the descriptor becomes readable within the time.
  virtual bool WaitReadable(int fd, std::chrono::milliseconds time) = 0;

  // The kernel of this machine. Lives as long as the process.
  static AuditNetlink& Kernel();
};

}  // namespace zagent::audit

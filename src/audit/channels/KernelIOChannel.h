#pragma once

#include <atomic>

#include "src/audit/channels/AuditNetlink.h"
#include "src/audit/channels/IOChannel.h"

namespace zagent::audit {

// Takes the audit daemon's place: this process becomes the kernel's audit consumer, and each record arrives at the
// read callback as one line of the audit log's format, "type=PATH msg=audit(1700000000.123:45): item=0 ...\n".
//
// The kernel allows one consumer (Start throws AccessDenied beside a running audit daemon) and exempts it from
// auditing.
class KernelIOChannel final : public IOChannel {
 public:
  explicit KernelIOChannel(AuditNetlink& netlink);
  KernelIOChannel(const KernelIOChannel&) = delete;
  KernelIOChannel& operator=(const KernelIOChannel&) = delete;
  ~KernelIOChannel() override;

  // Rule data as bytes (audit_rule_data with its strings), for the exit list with the action "always". The rule engine
  // has a socket of its own: on this one a pending record can be taken for the kernel's answer. Throws
  // IOChannelException: InvalidState when closed, Unknown when the kernel refuses.
  void Send(const Bytes& data) override;
  // Throws IOChannelException: AccessDenied when the kernel refuses, InvalidState when running.
  void Start() override;
  void Stop() override;

 protected:
  // One record a call; never end of file.
  bool Read(Bytes& data) override;

 private:
  Error CreateSocket();
  void CloseSocket();

  AuditNetlink& netlink_;
  std::atomic<int> audit_fd_{-1};
};

}  // namespace zagent::audit

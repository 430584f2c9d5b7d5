#pragma once

#include <cstdint>
#include <optional>

#include "src/audit/channels/AuditNetlink.h"

namespace zagent::audit {

// What the kernel says of its audit subsystem.
struct AuditStatus {
  std::uint32_t enabled = 0;       // 0 off, 1 on, 2 on and locked
  std::uint32_t consumer_pid = 0;  // who gets the records; 0: nobody
  std::uint32_t lost = 0;          // records since boot, or since somebody set it to 0; wraps around
};

// Asks the kernel's audit subsystem for its status without ever waiting for the answer: Ask, and Poll some time later.
// Each question has a socket of its own, where no record can be taken for the answer. One thread.
class AuditStatusProbe {
 public:
  // `netlink` outlives the probe.
  explicit AuditStatusProbe(AuditNetlink& netlink) : netlink_(netlink) {}
  AuditStatusProbe(const AuditStatusProbe&) = delete;
  AuditStatusProbe& operator=(const AuditStatusProbe&) = delete;
  ~AuditStatusProbe() { Close(); }

  // Gives an unanswered question up for a new one. A failure is a debug line and no answer.
  void Ask();
  // The answer, once; nothing while there is none, and after a refusal.
  std::optional<AuditStatus> Poll();

 private:
  void Close();

  AuditNetlink& netlink_;
  int fd_ = -1;  // while a question is open
};

}  // namespace zagent::audit

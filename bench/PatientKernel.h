#pragma once

#include <libaudit.h>

#include <chrono>
#include <cstdint>

#include "src/audit/channels/AuditNetlink.h"

namespace zagent::bench {

// Takes every rule and keeps none.
class PatientKernel final : public audit::AuditNetlink {
 public:
  int Open() override { return 3; }
  int Close(int) override { return 0; }
  int SetEnabled(int, std::uint32_t) override { return 1; }
  int SetPid(int, std::uint32_t) override { return 1; }
  int SetBacklogLimit(int, std::uint32_t) override { return 1; }
  int RequestStatus(int) override { return Ask(AUDIT_GET); }
  int RequestRulesList(int) override { return Ask(NLMSG_DONE); }
  int AddRule(int, audit_rule_data*, int, int) override { return 1; }
  int DeleteRule(int, audit_rule_data*, int, int) override { return 1; }
  int GetReply(int, audit_reply& reply) override {
    reply = {};
    reply.type = asked_;
    reply.len = NLMSG_HDRLEN + static_cast<int>(sizeof(status_));
    if (asked_ == AUDIT_GET) reply.status = &status_;
    return reply.len;
  }
  bool WaitReadable(int, std::chrono::milliseconds) override { return true; }

 private:
  int Ask(int type) {
    asked_ = type;
    return 1;
  }
  int asked_ = NLMSG_DONE;
  audit_status status_{};
};

}  // namespace zagent::bench

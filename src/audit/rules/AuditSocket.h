#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "src/audit/channels/AuditNetlink.h"
#include "src/audit/rules/AuditRule.h"

namespace zagent::audit::internal {

// A netlink socket of one operation's own: closed on leaving. Never shared with the consumer of records, where a
// pending record could be taken for an answer.
class AuditSocket {
 public:
  enum class Position { Front, Back };

  // On failure logs "<failure>: <error>", and throws edr::RuleEngineException "Failed to open audit socket".
  AuditSocket(AuditNetlink& netlink, const char* failure);
  AuditSocket(const AuditSocket&) = delete;
  AuditSocket& operator=(const AuditSocket&) = delete;
  ~AuditSocket();

  // Both answer 0 or the errno of the kernel's answer.
  int Add(AuditRule& rule, Position position = Position::Back);
  // Names the plain list: the kernel forgets where a rule was added.
  int Delete(AuditRule& rule);

  int SetBacklogLimit(std::uint32_t limit);
  int RequestStatus();
  int RequestRulesList();

  // Waits for the next message that is no mere acknowledgement, about a second at most. 0, or the errno: EAGAIN when
  // none came, ENODATA for an empty one, and what the kernel answers to a refused request.
  int GetReply(audit_reply& reply);

  struct Listing {
    std::vector<AuditRule> rules;
    bool is_complete = false;  // read to its end, with no row that could not be read
  };
  // What the kernel lists now, read on a socket of its own: rows that a slow listing leaves behind must not be taken
  // for the answer to a later call. What cannot be read is logged and missing.
  [[nodiscard]] Listing ListRules() const;
  [[nodiscard]] std::vector<AuditRule> GetRulesFromAudit() const { return ListRules().rules; }

 private:
  AuditNetlink& netlink_;
  int fd_ = -1;
};

}  // namespace zagent::audit::internal

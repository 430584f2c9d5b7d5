#pragma once

#include "src/audit/channels/AuditNetlink.h"
#include "src/audit/channels/IOChannel.h"

namespace zagent::audit::internal {

// Adds the rule whose byte image `data` is (audit_rule_data with its trailing strings) to the exit list with the
// action "always". Answers as AuditNetlink::AddRule; an image that is shorter than it says is EINVAL. Without bytes the
// netlink gets a null rule.
int AddRuleFromBytes(AuditNetlink& netlink, int fd, const IOChannel::Bytes& data);

}  // namespace zagent::audit::internal

#include "src/audit/channels/AuditRuleBytes.h"

#include <libaudit.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace zagent::audit::internal {
namespace {

struct Free {
  void operator()(void* memory) const { std::free(memory); }  // NOLINT(cppcoreguidelines-no-malloc)
};

}  // namespace

int AddRuleFromBytes(AuditNetlink& netlink, int fd, const IOChannel::Bytes& data) {
  if (data.empty()) return netlink.AddRule(fd, nullptr, AUDIT_FILTER_EXIT, AUDIT_ALWAYS);
  // A copy with malloc's alignment: libaudit writes list and action into it and sends as many bytes as it claims.
  const std::unique_ptr<audit_rule_data, Free> rule(static_cast<audit_rule_data*>(std::malloc(data.size())));
  if (!rule) return -1;
  std::memcpy(static_cast<void*>(rule.get()), data.data(), data.size());
  if (data.size() < sizeof(audit_rule_data) || data.size() - sizeof(audit_rule_data) < rule->buflen) {
    errno = EINVAL;
    return -1;
  }
  return netlink.AddRule(fd, rule.get(), AUDIT_FILTER_EXIT, AUDIT_ALWAYS);
}

}  // namespace zagent::audit::internal

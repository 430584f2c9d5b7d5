#include "src/audit/rules/ExtendedRules.h"

#include <algorithm>
#include <array>
#include <string>
#include <utility>

#include "common/src/util/Log.h"
#include "src/edr/EventRuleEngine.h"

namespace zagent::audit::internal {
namespace {

using edr::EventType;
using edr::EventTypes;
using edr::ObjectType;
using edr::RuleEngineException;

constexpr std::array kTimeCalls = {"utime", "utimes", "futimesat", "utimensat"};
constexpr unsigned kFchmodat2 = 452;  // libaudit 3.0 has no name for it

// Numbers of the operations in <linux/io_uring.h>.
constexpr std::array<unsigned, 7> kChangingOperations = {18, 28, 35, 36, 37, 38, 39};  // openat, openat2, renameat,
                                                                                       // unlinkat, mkdirat, symlinkat,
                                                                                       // linkat
constexpr std::array<unsigned, 2> kAttributeOperations = {41, 42};                     // fsetxattr, setxattr

struct Wants {
  bool changes = false;  // anything that a watch for writing tells
  bool opens = false;    // of that, files that are made or written
  bool attributes = false;
};

Wants WantsOf(const EventTypes& types) {
  const bool opens = types.count(EventType::Create) != 0 || types.count(EventType::Write) != 0;
  return {.changes = opens || types.count(EventType::Delete) != 0 || types.count(EventType::Rename) != 0,
          .opens = opens,
          .attributes = types.count(EventType::AttributeChange) != 0};
}

bool LimitToPath(const edr::EventRule& rule, AuditRule& target) {
  return rule.GetType() == ObjectType::File ? target.LimitToFile(rule.GetPath())
                                            : target.LimitToDirectory(rule.GetPath());
}

void Require(bool is_done, const edr::EventRule& rule) {
  if (!is_done) throw RuleEngineException("AddExtendedRules: Failed to build a rule for rule id " + rule.GetId());
}

AuditRule CreateCallRule(const edr::EventRule& rule, const Wants& wants) {
  AuditRule calls;
  bool is_done = calls.AddField("arch=b64");
  if (wants.attributes) {
    for (const char* name : kTimeCalls) is_done = is_done && calls.AddSyscall(name);
    is_done = is_done && calls.AddNumber(kFchmodat2);
  }
  if (wants.opens) is_done = is_done && calls.AddSyscall("open_by_handle_at");
  Require(is_done && LimitToPath(rule, calls), rule);
  return calls;
}

// `flags` is the argument that holds the flags of `call`.
AuditRule CreateOpenRule(const edr::EventRule& rule, const char* call, const std::string& flags) {
  AuditRule open;
  Require(
      open.AddField("arch=b64") && open.AddField(flags + "&0x240") && open.AddSyscall(call) && LimitToPath(rule, open),
      rule);
  return open;
}

AuditRule CreateIoUringRule(const edr::EventRule& rule, const Wants& wants) {
  AuditRule ring(AuditRule::List::IoUring);
  const auto add = [&ring](unsigned operation) { return ring.AddNumber(operation); };
  Require((!wants.changes || std::all_of(kChangingOperations.begin(), kChangingOperations.end(), add)) &&
              (!wants.attributes || std::all_of(kAttributeOperations.begin(), kAttributeOperations.end(), add)) &&
              LimitToPath(rule, ring),
          rule);
  return ring;
}

}  // namespace

std::vector<AuditRule> CreateExtendedRules(const edr::EventRule& rule, const Coverage& coverage) {
  std::vector<AuditRule> rules;
  if (!coverage.extended) return rules;
  ZLOG_TRACE("AddExtendedRules: Creating rules beyond the watches for rule id " << rule.GetId());
  const Wants wants = WantsOf(edr::EventTypesOf(rule));
  if (wants.opens || wants.attributes) rules.push_back(CreateCallRule(rule, wants));
  if (wants.opens) {
    rules.push_back(CreateOpenRule(rule, "open", "a1"));
    rules.push_back(CreateOpenRule(rule, "openat", "a2"));
  }
  if (coverage.io_uring && (wants.changes || wants.attributes)) rules.push_back(CreateIoUringRule(rule, wants));
  return rules;
}

}  // namespace zagent::audit::internal

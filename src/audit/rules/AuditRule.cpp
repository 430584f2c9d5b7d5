#include "src/audit/rules/AuditRule.h"

#include <libaudit.h>
#include <linux/limits.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <new>
#include <stdexcept>
#include <string_view>

// Exported by libaudit without a declaration. While it is set libaudit takes a key, and refuses the architecture.
extern "C" int _audit_syscalladded;  // NOLINT

namespace zagent::audit::internal {
namespace {

constexpr std::size_t kFixedSize = sizeof(audit_rule_data);
constexpr std::size_t kStringRoom = PATH_MAX + AUDIT_MAX_KEY_LEN;

class SyscallAddedGuard {
 public:
  explicit SyscallAddedGuard(int value) : old_(_audit_syscalladded) { _audit_syscalladded = value; }
  SyscallAddedGuard(const SyscallAddedGuard&) = delete;
  SyscallAddedGuard& operator=(const SyscallAddedGuard&) = delete;
  ~SyscallAddedGuard() { _audit_syscalladded = old_; }

 private:
  int old_;
};

// The value of such a field is the length of its text in the buffer.
bool HoldsText(std::uint32_t field) {
  return (field >= AUDIT_SUBJ_USER && field <= AUDIT_SUBJ_CLR) ||
         (field >= AUDIT_OBJ_USER && field <= AUDIT_OBJ_LEV_HIGH) || field == AUDIT_WATCH || field == AUDIT_DIR ||
         field == AUDIT_FILTERKEY || field == AUDIT_EXE;
}

bool IsValid(const audit_rule_data& rule, std::size_t size) {
  if (rule.field_count > AUDIT_MAX_FIELDS || rule.buflen > size - kFixedSize) return false;
  std::size_t texts = 0;
  for (std::uint32_t i = 0; i < rule.field_count; ++i) {
    if (HoldsText(rule.fields[i])) texts += rule.values[i];
  }
  return texts <= rule.buflen;
}

audit_rule_data* Allocate(std::size_t size) {
  auto* rule = static_cast<audit_rule_data*>(std::calloc(1, size));  // NOLINT(cppcoreguidelines-no-malloc)
  if (rule == nullptr) throw std::bad_alloc();
  return rule;
}

bool IsPath(const std::string& path) {
  return !path.empty() && path.size() < PATH_MAX && path.find('\0') == std::string::npos;
}

std::string WithoutLastSlashes(const std::string& path) {
  const std::size_t last = path.find_last_not_of('/');
  return last == std::string::npos ? path : path.substr(0, last + 1);
}

}  // namespace

void AuditRule::Free::operator()(audit_rule_data* rule) const {
  std::free(rule);  // NOLINT(cppcoreguidelines-no-malloc)
}

AuditRule::AuditRule(List list, Action action) : rule_(Allocate(kFixedSize + kStringRoom)) {
  rule_->flags = static_cast<std::uint32_t>(list);
  rule_->action = static_cast<std::uint32_t>(action);
}

AuditRule::AuditRule(const audit_rule_data* rule, std::size_t size) {
  if (rule == nullptr || size < kFixedSize || !IsValid(*rule, size)) {
    throw std::runtime_error("AuditRule: 'rule' is null or invalid");
  }
  rule_.reset(Allocate(kFixedSize + rule->buflen));
  std::memcpy(rule_.get(), rule, kFixedSize + rule->buflen);
}

bool AuditRule::Watch(int type, const std::string& path) {
  if (!IsPath(path)) return false;
  audit_rule_data* raw = rule_.release();
  const int result = audit_add_watch_dir(type, &raw, path.c_str());
  rule_.reset(raw);
  if (!rule_) throw std::bad_alloc();
  return result == 0;
}

bool AuditRule::WatchFile(const std::string& path) {
  return Watch(AUDIT_WATCH, WithoutLastSlashes(path));
}

bool AuditRule::WatchDirectory(const std::string& path) {
  return Watch(AUDIT_DIR, path);
}

bool AuditRule::LimitToFile(const std::string& path) {
  return IsPath(path) && AddText(AUDIT_WATCH, WithoutLastSlashes(path));
}

bool AuditRule::LimitToDirectory(const std::string& path) {
  return IsPath(path) && AddText(AUDIT_DIR, path);
}

// libaudit takes a path for the exit list only, starts the rule anew for it, and cuts it at what looks like an
// operator.
bool AuditRule::AddText(std::uint32_t field, const std::string& text) {
  if (rule_->field_count >= AUDIT_MAX_FIELDS) return false;
  const std::size_t size = kFixedSize + rule_->buflen + text.size();
  auto* grown = static_cast<audit_rule_data*>(std::realloc(rule_.get(), size));  // NOLINT(cppcoreguidelines-no-malloc)
  if (grown == nullptr) throw std::bad_alloc();
  static_cast<void>(rule_.release());
  rule_.reset(grown);
  text.copy(&rule_->buf[rule_->buflen], text.size());
  rule_->buflen += static_cast<std::uint32_t>(text.size());
  const std::uint32_t index = rule_->field_count++;
  rule_->fields[index] = field;
  rule_->fieldflags[index] = AUDIT_EQUAL;
  rule_->values[index] = static_cast<std::uint32_t>(text.size());
  return true;
}

bool AuditRule::SetPermissions(std::uint32_t permissions) {
  return audit_update_watch_perms(rule_.get(), static_cast<int>(permissions)) == 0;
}

bool AuditRule::AddPair(const std::string& pair, int syscall_added) {
  const SyscallAddedGuard guard(syscall_added);
  std::string text = pair;  // libaudit cuts it in two at the operator
  audit_rule_data* raw = rule_.release();
  const int result = audit_rule_fieldpair_data(&raw, text.data(), static_cast<int>(raw->flags & AUDIT_FILTER_MASK));
  rule_.reset(raw);
  if (!rule_) throw std::bad_alloc();
  return result == 0;
}

bool AuditRule::AddField(const std::string& field) {
  return AddPair(field, 0);
}

bool AuditRule::AddSyscall(const char* name) {
  return audit_rule_syscallbyname_data(rule_.get(), name) == 0;
}

bool AuditRule::AddAllSyscalls() {
  return AddSyscall("all");
}

bool AuditRule::AddNumber(unsigned number) {
  if (number >= AUDIT_BITMASK_SIZE * 32U) return false;
  rule_->mask[AUDIT_WORD(number)] |= AUDIT_BIT(number);
  return true;
}

bool AuditRule::AddKey(const std::string& key) {
  if (WhyRefused(key) != nullptr) return false;
  return GetList() == List::IoUring ? AddText(AUDIT_FILTERKEY, key) : AddPair("key=" + key, 1);
}

const char* AuditRule::WhyRefused(const std::string& key) {
  static constexpr std::array<std::string_view, 4> kOperators = {"!=", ">=", "<=", "&="};
  if (key.empty()) return "it is empty";
  if (key.size() > AUDIT_MAX_KEY_LEN) return "it is longer than 256 bytes";
  if (key.find('\0') != std::string::npos) return "it holds a NUL";
  // auditctl and the kernel's listing join several keys of one rule with this byte.
  if (key.find(static_cast<char>(AUDIT_KEY_SEPARATOR)) != std::string::npos) return "it holds the key separator";
  const auto holds = [&](std::string_view text) { return key.find(text) != std::string::npos; };
  return std::any_of(kOperators.begin(), kOperators.end(), holds) ? "it holds an operator" : nullptr;
}

AuditRule::List AuditRule::GetList() const {
  return static_cast<List>(rule_->flags & AUDIT_FILTER_MASK);
}

AuditRule::Action AuditRule::GetAction() const {
  return static_cast<Action>(rule_->action);
}

std::string AuditRule::GetKey() const {
  std::size_t offset = 0;
  for (std::uint32_t i = 0; i < rule_->field_count; ++i) {
    if (!HoldsText(rule_->fields[i])) continue;
    if (rule_->fields[i] == AUDIT_FILTERKEY) return {&rule_->buf[offset], rule_->values[i]};
    offset += rule_->values[i];
  }
  return "";
}

std::string AuditRule::Identity() const {
  // The kernel takes the last bits for names of whole classes of calls, and does not list them.
  constexpr std::uint32_t kClassBits = 0xFFFF0000U;
  std::string identity;
  const auto add = [&identity](std::uint32_t word) {
    identity.append(reinterpret_cast<const char*>(&word), sizeof(word));
  };
  add(rule_->flags & AUDIT_FILTER_MASK);
  add(rule_->action);
  for (std::size_t i = 0; i < AUDIT_BITMASK_SIZE; ++i) {
    add(i + 1 == AUDIT_BITMASK_SIZE ? rule_->mask[i] & ~kClassBits : rule_->mask[i]);
  }
  std::size_t texts = 0;
  for (std::uint32_t i = 0; i < rule_->field_count; ++i) {
    add(rule_->fields[i]);
    add(rule_->fieldflags[i]);
    add(rule_->values[i]);
    if (HoldsText(rule_->fields[i])) texts += rule_->values[i];
  }
  return identity.append(&rule_->buf[0], texts);
}

bool AuditRule::IsForPid(std::int32_t pid) const {
  for (std::uint32_t i = 0; i < rule_->field_count; ++i) {
    if (rule_->fields[i] == AUDIT_PID) return rule_->values[i] == static_cast<std::uint32_t>(pid);
  }
  return false;
}

bool AuditRule::IsMessageTypeExclusion(std::uint32_t message_type) const {
  return GetList() == List::Exclude && GetAction() == Action::Always && rule_->field_count == 1 &&
         rule_->fields[0] == AUDIT_MSGTYPE && rule_->fieldflags[0] == AUDIT_EQUAL && rule_->values[0] == message_type;
}

}  // namespace zagent::audit::internal

#include "src/manifest_check/KernelRuleText.h"

#include <libaudit.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <utility>

namespace zagent::manifest_check {
namespace {

constexpr std::array<std::pair<std::uint32_t, char>, 4> kPermissions = {
    {{AUDIT_PERM_READ, 'r'}, {AUDIT_PERM_WRITE, 'w'}, {AUDIT_PERM_EXEC, 'x'}, {AUDIT_PERM_ATTR, 'a'}}};
constexpr std::uint32_t kUnset = static_cast<std::uint32_t>(-1);

bool IsText(std::uint32_t field) {
  return field == AUDIT_WATCH || field == AUDIT_DIR || field == AUDIT_FILTERKEY;
}

std::string HexText(std::uint32_t value) {
  std::array<char, 16> text{};
  std::snprintf(text.data(), text.size(), "0x%x", value);
  return text.data();
}

std::string ValueText(std::uint32_t field, std::uint32_t value) {
  if (field == AUDIT_ARCH) return value == AUDIT_ARCH_X86_64 ? "b64" : HexText(value);
  if (field >= AUDIT_ARG0 && field <= AUDIT_ARG3) return HexText(value);
  if (field == AUDIT_PERM) {
    std::string letters;
    for (const auto& [permission, letter] : kPermissions) {
      if ((value & permission) != 0) letters += letter;
    }
    return letters;
  }
  return field == AUDIT_LOGINUID && value == kUnset ? "unset" : std::to_string(value);
}

// The calls or operations that a rule names; empty for one of all calls.
std::string CallsText(const audit_rule_data& data, bool has_names) {
  std::string text;
  bool names_all = true;
  for (unsigned number = 0; number < AUDIT_BITMASK_SIZE * 32U; ++number) {
    if ((data.mask[number / 32U] & (1U << (number % 32U))) == 0) {
      names_all = false;
      continue;
    }
    const char* name = has_names ? audit_syscall_to_name(static_cast<int>(number), MACH_86_64) : nullptr;
    text += (text.empty() ? " -S " : ",") + (name != nullptr ? std::string(name) : std::to_string(number));
  }
  return names_all ? "" : text;
}

}  // namespace

std::string KernelRuleText(audit::internal::AuditRule& rule) {
  const audit_rule_data& data = *rule.Get();
  const bool is_exit = rule.GetList() == audit::internal::AuditRule::List::Exit;
  std::string text = is_exit ? "-a always,exit" : "-a always,io_uring";
  const std::string calls = CallsText(data, is_exit);
  bool has_calls = calls.empty();
  std::size_t offset = 0;  // in the texts, which stand behind each other
  for (std::uint32_t i = 0; i < data.field_count; ++i) {
    const std::uint32_t field = data.fields[i];
    const char* name = audit_field_to_name(static_cast<int>(field));
    const char* symbol = audit_operator_to_symbol(static_cast<int>(data.fieldflags[i]));
    // auditctl wants the architecture before the calls.
    if (!has_calls && field != AUDIT_ARCH) text += calls;
    has_calls = has_calls || field != AUDIT_ARCH;
    text += std::string(" -F ") + (name != nullptr ? name : "?") + (symbol != nullptr ? symbol : "?");
    if (IsText(field)) {
      text.append(data.buf + offset, data.values[i]);
      offset += data.values[i];
    } else {
      text += ValueText(field, data.values[i]);
    }
  }
  return text;
}

}  // namespace zagent::manifest_check

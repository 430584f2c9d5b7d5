#include "src/manifest_check/KernelRuleText.h"

#include <libaudit.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <utility>

namespace zagent::manifest_check {
namespace {

constexpr std::array<std::pair<std::uint32_t, char>, 4> kPermissions = {
    {{AUDIT_PERM_READ, 'r'}, {AUDIT_PERM_WRITE, 'w'}, {AUDIT_PERM_EXEC, 'x'}, {AUDIT_PERM_ATTR, 'a'}}};
constexpr std::uint32_t kUnset = static_cast<std::uint32_t>(-1);

bool IsText(std::uint32_t field) {
  return field == AUDIT_WATCH || field == AUDIT_DIR || field == AUDIT_FILTERKEY;
}

std::string ValueText(std::uint32_t field, std::uint32_t value) {
  if (field == AUDIT_PERM) {
    std::string letters;
    for (const auto& [permission, letter] : kPermissions) {
      if ((value & permission) != 0) letters += letter;
    }
    return letters;
  }
  return field == AUDIT_LOGINUID && value == kUnset ? "unset" : std::to_string(value);
}

}  // namespace

std::string KernelRuleText(audit::internal::AuditRule& rule) {
  const audit_rule_data& data = *rule.Get();
  std::string text = "-a always,exit";
  std::size_t offset = 0;  // in the texts, which stand behind each other
  for (std::uint32_t i = 0; i < data.field_count; ++i) {
    const std::uint32_t field = data.fields[i];
    const char* name = audit_field_to_name(static_cast<int>(field));
    const char* symbol = audit_operator_to_symbol(static_cast<int>(data.fieldflags[i]));
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

#include "src/audit/events/SyscallRecord.h"

#include <algorithm>
#include <charconv>
#include <string_view>

namespace zagent::audit::internal {
namespace {

using edr::RecordField;

// All of `value` as a number that fits.
template <typename Number>
Number ToNumber(std::string_view value, int base = 10) {
  Number number = 0;
  const char* end = value.data() + value.size();
  const auto [stopped, error] = std::from_chars(value.data(), end, number, base);
  if (value.empty() || stopped != end || error != std::errc()) {
    throw SyscallRecordException("Cannot convert from string 'value': " + std::string(value));
  }
  return number;
}

std::string WithoutQuotes(std::string_view text) {
  std::string plain(text);
  plain.erase(std::remove(plain.begin(), plain.end(), '"'), plain.end());
  return plain;
}

std::string ProcessPath(const edr::RecordFields& fields) {
  if (!fields.Has(RecordField::Exe) || fields.Find(RecordField::Exe) == "(null)") {
    throw SyscallRecordException("Failed to find process name in syscall record");
  }
  return WithoutQuotes(fields.Find(RecordField::Exe));
}

}  // namespace

SyscallRecord::SyscallRecord(const edr::RecordFields& fields) {
  // exit_group never returns and its record has no outcome: a call without one succeeded.
  success = !fields.Has(RecordField::Success) || fields.Find(RecordField::Success) == "yes";
  process_path = ProcessPath(fields);
  ppid = ToNumber<std::int32_t>(fields.At(RecordField::PPid));
  pid = ToNumber<std::int32_t>(fields.At(RecordField::Pid));
  uid = ToNumber<std::uint32_t>(fields.At(RecordField::Uid));
  auid = ToNumber<std::uint32_t>(fields.At(RecordField::Auid));
  euid = ToNumber<std::uint32_t>(fields.At(RecordField::Euid));
  if (fields.Has(RecordField::Exit)) {
    exit = static_cast<std::int32_t>(ToNumber<std::int64_t>(fields.Find(RecordField::Exit)));
  }
  items = ToNumber<std::uint64_t>(fields.At(RecordField::Items));
  syscall = ToNumber<std::uint32_t>(fields.At(RecordField::Syscall));
  for (std::size_t index = 0; index < arguments.size(); ++index) {
    if (const auto argument = fields.Argument(index)) {
      arguments[argument_count++] = ToNumber<std::uint64_t>(*argument, 16);
    }
  }
  key = WithoutQuotes(fields.At(RecordField::Key));
}

}  // namespace zagent::audit::internal

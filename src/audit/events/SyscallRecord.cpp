#include "src/audit/events/SyscallRecord.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <limits>

namespace zagent::audit::internal {
namespace {

[[noreturn]] void CannotConvert(const std::string& value) {
  throw SyscallRecordException("Cannot convert from string 'value': " + value);
}

std::int64_t ToSigned(const std::string& value) {
  char* end = nullptr;
  errno = 0;
  const long long number = std::strtoll(value.c_str(), &end, 10);
  if (value.empty() || *end != '\0' || errno != 0) CannotConvert(value);
  return number;
}

std::uint64_t ToUnsigned(const std::string& value, int base) {
  char* end = nullptr;
  errno = 0;
  const unsigned long long number = std::strtoull(value.c_str(), &end, base);
  if (value.empty() || value.front() == '-' || *end != '\0' || errno != 0) CannotConvert(value);
  return number;
}

std::int32_t ToProcessId(const std::string& value) {
  const std::int64_t number = ToSigned(value);
  if (number < std::numeric_limits<std::int32_t>::min() || number > std::numeric_limits<std::int32_t>::max()) {
    CannotConvert(value);
  }
  return static_cast<std::int32_t>(number);
}

std::uint32_t ToNumber32(const std::string& value) {
  const std::uint64_t number = ToUnsigned(value, 10);
  if (number > std::numeric_limits<std::uint32_t>::max()) CannotConvert(value);
  return static_cast<std::uint32_t>(number);
}

std::string WithoutQuotes(std::string text) {
  text.erase(std::remove(text.begin(), text.end(), '"'), text.end());
  return text;
}

std::string ProcessPath(const edr::RecordFields& fields) {
  const auto exe = fields.find("exe");
  if (exe == fields.end() || exe->second == "(null)") {
    throw SyscallRecordException("Failed to find process name in syscall record");
  }
  return WithoutQuotes(exe->second);
}

}  // namespace

SyscallRecord::SyscallRecord(const edr::RecordFields& fields) {
  // exit_group never returns and its record has no outcome: a call without one succeeded.
  const auto outcome = fields.find("success");
  success = outcome == fields.end() || outcome->second == "yes";
  process_path = ProcessPath(fields);
  ppid = ToProcessId(fields.at("ppid"));
  pid = ToProcessId(fields.at("pid"));
  uid = ToNumber32(fields.at("uid"));
  auid = ToNumber32(fields.at("auid"));
  euid = ToNumber32(fields.at("euid"));
  if (const auto result = fields.find("exit"); result != fields.end()) {
    exit = static_cast<std::int32_t>(ToSigned(result->second));
  }
  items = ToUnsigned(fields.at("items"), 10);
  syscall = ToNumber32(fields.at("syscall"));
  for (const char* name : {"a0", "a1", "a2", "a3"}) {
    const auto argument = fields.find(name);
    if (argument != fields.end()) arguments.push_back(ToUnsigned(argument->second, 16));
  }
  key = WithoutQuotes(fields.at("key"));
}

}  // namespace zagent::audit::internal

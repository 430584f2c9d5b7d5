#include "src/audit/events/RecordLine.h"

#include <libaudit.h>

#include <array>
#include <cstring>
#include <string>

#include "src/audit/events/RecordSource.h"

namespace zagent::audit::internal {
namespace {

// The types of nearly all lines, the most frequent ones first: libaudit's own search takes longer than all else here.
struct NamedType {
  std::string_view name;
  int type;
};
constexpr std::array kFrequent = {
    NamedType{"PATH", record_type::kPath},         NamedType{"SYSCALL", record_type::kSyscall},
    NamedType{"CWD", record_type::kCwd},           NamedType{"PROCTITLE", record_type::kProctitle},
    NamedType{"EOE", record_type::kEndOfEvent},    NamedType{"EXECVE", record_type::kExecve},
    NamedType{"SOCKADDR", record_type::kSockaddr}, NamedType{"BPRM_FCAPS", AUDIT_BPRM_FCAPS},
    NamedType{"URINGOP", record_type::kUringOp},   NamedType{"OPENAT2", record_type::kOpenAt2},
};

int TypeNamed(std::string_view name) {
  for (const NamedType& frequent : kFrequent) {
    if (frequent.name == name) return frequent.type;
  }
  return audit_name_to_msg_type(std::string(name).c_str());
}

// Behind it the audit daemon tells the same in words.
constexpr char kForPeople = '\x1d';

// Takes a prefix off; false when the text does not begin with it. Its size is known when this is compiled, so that it
// is compared without a call.
template <std::size_t kSize>
bool Take(std::string_view& text, const char (&prefix)[kSize]) {
  constexpr std::size_t kLength = kSize - 1;
  if (text.size() < kLength || std::memcmp(text.data(), prefix, kLength) != 0) return false;
  text.remove_prefix(kLength);
  return true;
}

// Takes what stands before the sign, and the sign; nothing without the sign.
std::optional<std::string_view> TakeUntil(std::string_view& text, char sign) {
  const std::size_t length = text.find(sign);
  if (length == std::string_view::npos) return std::nullopt;
  const std::string_view taken = text.substr(0, length);
  text.remove_prefix(length + 1);
  return taken;
}

// Takes a number of at most so many digits that it cannot be too large.
bool TakeNumber(std::string_view& text, std::uint64_t& number) {
  constexpr std::size_t kMostDigits = 19;
  std::size_t length = 0;
  number = 0;
  for (; length < text.size() && text[length] >= '0' && text[length] <= '9'; ++length) {
    if (length == kMostDigits) return false;
    number = number * 10 + static_cast<std::uint64_t>(text[length] - '0');
  }
  text.remove_prefix(length);
  return length != 0;
}

}  // namespace

std::optional<RecordLine> ReadRecordLine(std::string_view text) {
  RecordLine line;
  // No kernel writes a NUL: what stands behind one would be a path for us, and none for the system.
  text = text.substr(0, text.find('\0'));
  line.text = text;
  if (Take(text, "node=")) {
    const auto host = TakeUntil(text, ' ');
    if (!host) return std::nullopt;
    line.host = *host;
  }
  if (!Take(text, "type=")) return std::nullopt;
  const auto name = TakeUntil(text, ' ');
  if (!name || !Take(text, "msg=audit(")) return std::nullopt;
  const auto stamp = TakeUntil(text, ')');
  if (!stamp) return std::nullopt;
  line.type = TypeNamed(*name);
  line.stamp = *stamp;
  Take(text, ":");
  Take(text, " ");
  line.body = text.substr(0, text.find(kForPeople));
  return line;
}

std::optional<EventStamp> ReadStamp(std::string_view stamp) {
  EventStamp read;
  std::uint64_t milliseconds = 0;
  const bool is_sound = TakeNumber(stamp, read.seconds) && Take(stamp, ".") && TakeNumber(stamp, milliseconds) &&
                        Take(stamp, ":") && TakeNumber(stamp, read.serial) && stamp.empty();
  if (!is_sound) return std::nullopt;
  return read;
}

}  // namespace zagent::audit::internal

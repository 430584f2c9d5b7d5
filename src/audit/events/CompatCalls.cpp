#include "src/audit/events/CompatCalls.h"

#include <libaudit.h>
#include <linux/net.h>

#include <algorithm>
#include <array>
#include <string_view>

namespace zagent::audit::internal {
namespace {

constexpr std::size_t kTableSize = 512;
constexpr std::int16_t kNoCall = -1;
constexpr std::uint32_t kSocketCall = 102;
// From this number on, calls are new enough to have one number on all architectures.
constexpr std::uint32_t kFirstCommonCall = 424;

struct OtherName {
  std::string_view i386;
  const char* x86_64;
};
// Where the plain names stand for 16-bit owners, 32-bit sizes and 32-bit times.
constexpr std::array kOtherNames = {
    OtherName{"chown32", "chown"},         OtherName{"fchown32", "fchown"},
    OtherName{"lchown32", "lchown"},       OtherName{"truncate64", "truncate"},
    OtherName{"ftruncate64", "ftruncate"}, OtherName{"pread64", "pread"},
    OtherName{"pwrite64", "pwrite"},       OtherName{"utimensat_time64", "utimensat"},
};

struct SubCall {
  std::uint64_t number;
  const char* name;
};
constexpr std::array kSocketCalls = {
    SubCall{SYS_SOCKET, "socket"},   SubCall{SYS_BIND, "bind"},       SubCall{SYS_CONNECT, "connect"},
    SubCall{SYS_LISTEN, "listen"},   SubCall{SYS_ACCEPT, "accept"},   SubCall{SYS_SENDTO, "sendto"},
    SubCall{SYS_SENDMSG, "sendmsg"}, SubCall{SYS_ACCEPT4, "accept4"},
};

std::int16_t NumberOf(const char* x86_64_name) {
  return static_cast<std::int16_t>(audit_name_to_syscall(x86_64_name, MACH_86_64));
}

std::int16_t Translate(std::uint32_t call) {
  if (call >= kFirstCommonCall) return static_cast<std::int16_t>(call);
  const char* name = audit_syscall_to_name(static_cast<int>(call), MACH_X86);
  if (name == nullptr) return kNoCall;
  const std::int16_t number = NumberOf(name);
  const auto* other = std::find_if(kOtherNames.begin(), kOtherNames.end(),
                                   [name](const OtherName& entry) { return entry.i386 == name; });
  return number == kNoCall && other != kOtherNames.end() ? NumberOf(other->x86_64) : number;
}

struct Tables {
  std::array<std::int16_t, kTableSize> calls{};
  std::array<std::int16_t, SYS_SENDMMSG + 1> socket_calls{};

  Tables() {
    for (std::uint32_t call = 0; call < kTableSize; ++call) calls.at(call) = Translate(call);
    socket_calls.fill(kNoCall);
    for (const SubCall& sub_call : kSocketCalls) socket_calls.at(sub_call.number) = NumberOf(sub_call.name);
  }
};

template <std::size_t Size>
std::optional<std::uint32_t> Get(const std::array<std::int16_t, Size>& table, std::uint64_t number) {
  if (number >= Size || table[number] == kNoCall) return std::nullopt;
  return static_cast<std::uint32_t>(table[number]);
}

}  // namespace

std::optional<std::uint32_t> TranslateCompatCall(std::uint32_t call, std::uint64_t a0) {
  static const Tables kTables;
  return call == kSocketCall ? Get(kTables.socket_calls, a0) : Get(kTables.calls, call);
}

}  // namespace zagent::audit::internal

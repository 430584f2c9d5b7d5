#include "src/audit/events/FileIdentity.h"

#include <sys/sysmacros.h>

#include <charconv>

namespace zagent::audit::internal {

std::uint64_t DeviceNumberOf(std::string_view text) {
  unsigned major = 0;
  unsigned minor = 0;
  const char* end = text.data() + text.size();
  const auto [colon, major_error] = std::from_chars(text.data(), end, major, 16);
  if (major_error != std::errc() || colon == end || *colon != ':') return 0;
  const auto [stopped, minor_error] = std::from_chars(colon + 1, end, minor, 16);
  return minor_error == std::errc() && stopped == end ? makedev(major, minor) : 0;
}

}  // namespace zagent::audit::internal

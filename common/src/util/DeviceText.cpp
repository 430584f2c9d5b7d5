#include "common/src/util/DeviceText.h"

#include <sys/sysmacros.h>

#include <array>
#include <charconv>

namespace zagent::common::util {
namespace {

void AppendHex(unsigned number, std::string& text) {
  std::array<char, 8> digits{};
  const char* end = std::to_chars(digits.data(), digits.data() + digits.size(), number, 16).ptr;
  if (end - digits.data() < 2) text.push_back('0');
  text.append(digits.data(), static_cast<std::size_t>(end - digits.data()));
}

}  // namespace

std::string DeviceText(dev_t device) {
  std::string text;
  AppendHex(major(device), text);
  text.push_back(':');
  AppendHex(minor(device), text);
  return text;
}

}  // namespace zagent::common::util

#include "src/ioc/process/ListText.h"

#include <charconv>

namespace zagent::ioc::internal {
namespace {

constexpr std::string_view kEmptyItem = "%00";
constexpr std::string_view kSpecial{"%:=\0", 4};
constexpr std::string_view kNul{"\0", 1};
constexpr std::size_t kEscapeLength = 3;

}  // namespace

std::string EncodeItem(std::string_view item) {
  static constexpr std::string_view kDigits = "0123456789ABCDEF";
  if (item.empty()) return std::string(kEmptyItem);
  std::string text;
  text.reserve(item.size());
  for (const char c : item) {
    if (kSpecial.find(c) == std::string_view::npos) {
      text += c;
      continue;
    }
    const auto byte = static_cast<unsigned char>(c);
    text += '%';
    text += kDigits[byte / 16];
    text += kDigits[byte % 16];
  }
  return text;
}

std::string DecodeItem(std::string_view text) {
  if (text == kEmptyItem || text == kNul) return {};
  std::string item;
  item.reserve(text.size());
  for (std::size_t at = 0; at < text.size(); ++at) {
    const std::string_view digits = text[at] == '%' ? text.substr(at + 1, 2) : std::string_view();
    unsigned int byte = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), byte, 16);
    if (digits.size() == 2 && error == std::errc() && end == digits.data() + digits.size()) {
      item += static_cast<char>(byte);
      at += kEscapeLength - 1;
    } else {
      item += text[at];
    }
  }
  return item;
}

std::string JoinList(const std::vector<std::string>& items) {
  std::string text;
  for (const std::string& item : items) {
    if (!text.empty()) text += ':';
    text += EncodeItem(item);
  }
  return text;
}

std::vector<std::string> ReadList(std::string_view text) {
  std::vector<std::string> items;
  for (const std::string_view item : SplitList(text)) items.push_back(DecodeItem(item));
  return items;
}

std::vector<std::string_view> SplitList(std::string_view text) {
  std::vector<std::string_view> items;
  if (text.empty()) return items;
  for (std::size_t begin = 0;;) {
    const std::size_t end = text.find(':', begin);
    items.push_back(text.substr(begin, end - begin));
    if (end == std::string_view::npos) return items;
    begin = end + 1;
  }
}

}  // namespace zagent::ioc::internal

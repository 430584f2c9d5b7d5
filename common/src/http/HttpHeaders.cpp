#include "common/src/http/HttpHeaders.h"

namespace zagent::common {
namespace {

constexpr char ToLowerAscii(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

}  // namespace

std::size_t HeaderNameHash::operator()(const std::string& name) const {
  std::string lower = name;
  for (char& c : lower) c = ToLowerAscii(c);
  return std::hash<std::string>()(lower);
}

bool HeaderNameEqual::operator()(const std::string& left, const std::string& right) const {
  if (left.size() != right.size()) return false;
  for (std::size_t i = 0; i < left.size(); ++i) {
    if (ToLowerAscii(left[i]) != ToLowerAscii(right[i])) return false;
  }
  return true;
}

std::string PrintableText(std::string_view text, std::size_t limit) {
  std::string printable(text.substr(0, limit));
  for (char& c : printable) {
    if (c < ' ' || c > '~') c = '?';
  }
  return printable;
}

}  // namespace zagent::common

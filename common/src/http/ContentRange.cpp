#include "common/src/http/ContentRange.h"

#include <charconv>
#include <string_view>

#include "common/src/http/HttpException.h"
#include "common/src/http/HttpHeaders.h"

namespace zagent::common {
namespace {

constexpr std::string_view kUnit = "bytes ";

// Takes a decimal number and, behind it, `end` from the front of the text.
bool TakeNumber(std::string_view& text, char end, std::uint64_t& number) {
  const auto [rest, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc()) return false;
  text.remove_prefix(static_cast<std::size_t>(rest - text.data()));
  if (end == '\0') return text.empty();
  if (text.empty() || text.front() != end) return false;
  text.remove_prefix(1);
  return true;
}

}  // namespace

ContentRange ParseContentRange(const std::string& text) {
  ContentRange range;
  std::string_view rest = text;
  if (rest.starts_with(kUnit)) {
    rest.remove_prefix(kUnit.size());
    if (TakeNumber(rest, '-', range.first) && TakeNumber(rest, '/', range.last) &&
        TakeNumber(rest, '\0', range.total) && range.first <= range.last && range.last < range.total) {
      return range;
    }
  }
  throw HttpException("Invalid Content-Range: " + PrintableText(text));
}

}  // namespace zagent::common

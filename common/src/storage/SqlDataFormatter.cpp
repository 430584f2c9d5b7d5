#include "common/src/storage/SqlDataFormatter.h"

#include <algorithm>
#include <utility>

#include "common/src/storage/Serializer.h"

namespace zagent::common {

void SqlDataFormatter::Add(std::int64_t value) {
  Serializer::Put(row_, value);
}

void SqlDataFormatter::Add(const std::string& text) {
  Serializer::Put(row_, text);
}

Bytes SqlDataFormatter::Finish() {
  return std::exchange(row_, {});
}

void SqlDataFormatter::Start() {
  if (!row_.empty()) {
    throw SqlDataFormatterException("SqlDataFormatter::Start: A transaction is already in progress");
  }
}

std::string SqlDataFormatter::Quote(std::string_view text) {
  std::string quoted;
  quoted.reserve(text.size() + 2);
  quoted += '\'';
  constexpr std::string_view kSpecial("'\0", 2);
  while (!text.empty()) {
    const std::size_t plain = std::min(text.find_first_of(kSpecial), text.size());
    quoted.append(text.substr(0, plain));
    text.remove_prefix(plain);
    if (text.empty()) break;
    if (text.front() == '\'') quoted += "''";
    text.remove_prefix(1);
  }
  quoted += '\'';
  return quoted;
}

}  // namespace zagent::common

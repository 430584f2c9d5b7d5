#include "common/src/storage/SqlDataFormatter.h"

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
  if (text.find('\'') == std::string_view::npos && text.find('\0') == std::string_view::npos) {
    quoted += text;
  } else {
    for (const char c : text) {
      if (c == '\0') continue;
      if (c == '\'') quoted += '\'';
      quoted += c;
    }
  }
  quoted += '\'';
  return quoted;
}

}  // namespace zagent::common

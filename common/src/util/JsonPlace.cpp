#include "common/src/util/JsonPlace.h"

#include <algorithm>
#include <charconv>

namespace zagent::common::util {
namespace {

// Walks over a well-formed text; at its end every step stays where it is.
class Walker {
 public:
  explicit Walker(std::string_view json) : json_(json) { SkipBlanks(); }

  [[nodiscard]] std::size_t Offset() const { return offset_; }

  // From the beginning of an object or array to that of a value in it; false, and anywhere, when there is none.
  bool Enter(const std::string& step) {
    if (Here() == '{') return EnterMember(step);
    std::size_t position = 0;
    const auto [end, error] = std::from_chars(step.data(), step.data() + step.size(), position);
    return Here() == '[' && error == std::errc() && end == step.data() + step.size() && EnterElement(position);
  }

 private:
  bool EnterMember(const std::string& name) {
    for (Next(); Here() == '"'; Next()) {
      const std::size_t begin = offset_ + 1;
      SkipText();
      const std::string_view key = json_.substr(begin, offset_ - 1 - begin);
      SkipBlanks();
      Next();  // over the colon
      if (key == name) return true;
      SkipValue();
      if (Here() != ',') return false;
    }
    return false;
  }

  bool EnterElement(std::size_t position) {
    Next();
    for (; position > 0; --position) {
      if (Here() == ']') return false;
      SkipValue();
      if (Here() != ',') return false;
      Next();
    }
    return Here() != ']';
  }

  // Over a value and the blanks behind it.
  void SkipValue() {
    std::size_t depth = 0;
    do {
      if (Here() == '"') {
        SkipText();
      } else {
        if (Here() == '{' || Here() == '[') ++depth;
        if (Here() == '}' || Here() == ']') --depth;
        if (offset_ < json_.size()) ++offset_;
      }
      if (depth == 0 && !IsInScalar()) break;
    } while (offset_ < json_.size());
    SkipBlanks();
  }

  // Within a number or a word, which end at what follows a value.
  [[nodiscard]] bool IsInScalar() const {
    constexpr std::string_view kEnds = ",]}\" \t\r\n";
    return offset_ < json_.size() && kEnds.find(json_[offset_]) == std::string_view::npos &&
           json_[offset_ - 1] != '"' && json_[offset_ - 1] != '}' && json_[offset_ - 1] != ']';
  }

  void SkipText() {
    for (++offset_; offset_ < json_.size() && json_[offset_] != '"'; ++offset_) {
      if (json_[offset_] == '\\') ++offset_;
    }
    offset_ = std::min(offset_ + 1, json_.size());
  }

  void SkipBlanks() { offset_ = std::min(json_.find_first_not_of(" \t\r\n", offset_), json_.size()); }

  // Over one character and the blanks behind it.
  void Next() {
    if (offset_ < json_.size()) ++offset_;
    SkipBlanks();
  }

  [[nodiscard]] char Here() const { return offset_ < json_.size() ? json_[offset_] : '\0'; }

  const std::string_view json_;
  std::size_t offset_ = 0;
};

}  // namespace

JsonPlace Within(JsonPlace outer, const JsonPlace& inner) {
  outer.insert(outer.end(), inner.begin(), inner.end());
  return outer;
}

std::string KeyText(const JsonPlace& place, std::size_t first) {
  std::string text;
  for (std::size_t i = first; i < place.size(); ++i) {
    const std::string& step = place[i];
    if (!step.empty() && step.find_first_not_of("0123456789") == std::string::npos) {
      text += "[" + step + "]";
    } else {
      text += (text.empty() ? "" : ".") + step;
    }
  }
  return text;
}

TextPosition PositionOf(std::string_view text, std::size_t offset) {
  const std::string_view before = text.substr(0, offset);
  TextPosition position;
  position.line += static_cast<std::size_t>(std::count(before.begin(), before.end(), '\n'));
  const std::string_view line = before.substr(before.rfind('\n') + 1);
  position.column += static_cast<std::size_t>(
      std::count_if(line.begin(), line.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0U) != 0x80U; }));
  return position;
}

std::size_t OffsetOf(std::string_view json, const JsonPlace& place) {
  Walker walker(json);
  std::size_t offset = walker.Offset();
  for (const std::string& step : place) {
    if (!walker.Enter(step)) return offset;
    offset = walker.Offset();
  }
  return offset;
}

}  // namespace zagent::common::util

#include "src/edr/PathGlob.h"

#include <Poco/Unicode.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "common/src/util/Utf8.h"

namespace zagent::edr {
namespace {

// Bytes that are no UTF-8 get characters of their own above the last code point.
constexpr char32_t kFirstStrayByte = 0x110000;

// As Poco::Glob knows lower case; bytes that are no UTF-8 have none.
char32_t Lower(char32_t character) {
  if (character < 0x80) return character >= U'A' && character <= U'Z' ? character + (U'a' - U'A') : character;
  if (character >= kFirstStrayByte) return character;
  return static_cast<char32_t>(Poco::Unicode::toLower(static_cast<int>(character)));
}

std::u32string Decode(std::string_view text, PathGlob::Case letters) {
  std::u32string characters;
  characters.reserve(text.size());
  std::size_t position = 0;
  while (position < text.size()) {
    const std::size_t start = position;
    const auto stray = kFirstStrayByte + static_cast<std::uint8_t>(text[start]);
    characters.push_back(common::util::NextCodePoint(text, position).value_or(stray));
  }
  if (letters == PathGlob::Case::Ignored) {
    for (char32_t& character : characters) character = Lower(character);
  }
  return characters;
}

// One attempt to match a pattern with a text.
class Attempt {
 public:
  Attempt(const std::u32string& pattern, const std::u32string& text)
      : pattern_(pattern), text_(text), failed_from_(pattern.size() + 1, text.size()) {}

  // Walks to the first star and from there tries the rest of the pattern at each place of the text, the earliest
  // first. What lies behind one star fails or succeeds by its place alone, so each place is tried once a star.
  bool Run() {
    Outcome outcome = Walk({0, 0});
    while (true) {
      if (outcome == Outcome::Matched) return true;
      if (outcome == Outcome::Malformed) return false;
      DropSpentStars();
      if (stars_.empty()) return false;
      Star& star = stars_.back();
      outcome = Walk({star.behind, star.next++});
    }
  }

 private:
  enum class Outcome : std::uint8_t { Matched, Failed, Malformed };
  struct Place {
    std::size_t pattern;
    std::size_t text;
  };
  struct Star {
    std::size_t behind;  // place in the pattern behind the star
    std::size_t first;   // first place in the text that it was tried at
    std::size_t next;    // next place in the text to try
  };

  // From `place` to the end or to the next star, which is put on the stack; the answer is "failed so far" then.
  Outcome Walk(Place place) {
    while (place.pattern < pattern_.size()) {
      if (place.text == text_.size()) return OnlyStarsFrom(place.pattern) ? Outcome::Matched : Outcome::Failed;
      if (pattern_[place.pattern] == U'*') {
        if (++place.pattern == pattern_.size()) return Outcome::Matched;
        stars_.push_back({place.pattern, place.text, place.text});
        return Outcome::Failed;
      }
      const Outcome step = Step(place);
      if (step != Outcome::Matched) return step;
    }
    return place.text == text_.size() ? Outcome::Matched : Outcome::Failed;
  }

  void DropSpentStars() {
    while (!stars_.empty()) {
      const Star& star = stars_.back();
      std::size_t& failed_from = failed_from_[star.behind];
      if (star.next < failed_from) return;
      if (star.first < failed_from) failed_from = star.first;
      stars_.pop_back();
    }
  }

  // Matches one character of the text and moves `place` behind it and its pattern.
  Outcome Step(Place& place) const {
    const char32_t character = text_[place.text++];
    switch (pattern_[place.pattern]) {
      case U'?':
        ++place.pattern;
        return Outcome::Matched;
      case U'[':
        return StepOverClass(place.pattern, character);
      case U'\\':
        if (++place.pattern == pattern_.size()) return Outcome::Malformed;
        break;
      default:
        break;
    }
    return pattern_[place.pattern++] == character ? Outcome::Matched : Outcome::Failed;
  }

  Outcome StepOverClass(std::size_t& at, char32_t character) const {
    if (++at == pattern_.size()) return Outcome::Malformed;
    const bool inverted = pattern_[at] == U'!';
    if (inverted && ++at == pattern_.size()) return Outcome::Malformed;
    const Outcome member = FindInClass(at, character);
    if (member == Outcome::Malformed) return member;
    return (member == Outcome::Matched) != inverted ? Outcome::Matched : Outcome::Failed;
  }

  // Is `character` in the class that begins at `at`? Moves `at` behind the class. A class without its end is
  // malformed for its members only; others are simply not in it.
  Outcome FindInClass(std::size_t& at, char32_t character) const {
    while (at < pattern_.size()) {
      if (pattern_[at] == U']') {
        ++at;
        return Outcome::Failed;
      }
      if (pattern_[at] == U'\\' && ++at == pattern_.size()) return Outcome::Malformed;
      const char32_t first = pattern_[at++];
      char32_t last = first;
      if (at < pattern_.size() && pattern_[at] == U'-') {
        if (++at == pattern_.size()) return Outcome::Malformed;
        last = pattern_[at++];
      }
      if (first <= character && character <= last) return LeaveClass(at) ? Outcome::Matched : Outcome::Malformed;
    }
    return Outcome::Failed;
  }

  bool LeaveClass(std::size_t& at) const {
    for (; at < pattern_.size(); ++at) {
      if (pattern_[at] == U']') {
        ++at;
        return true;
      }
      if (pattern_[at] == U'\\' && ++at == pattern_.size()) return false;
    }
    return false;
  }

  [[nodiscard]] bool OnlyStarsFrom(std::size_t at) const {
    return pattern_.find_first_not_of(U'*', at) == std::u32string::npos;
  }

  const std::u32string& pattern_;
  const std::u32string& text_;
  std::vector<Star> stars_;
  // By the place behind a star: from this place of the text on, the rest of the pattern is known not to match.
  std::vector<std::size_t> failed_from_;
};

}  // namespace

PathGlob::PathGlob(std::string pattern, Case letters)
    : pattern_(std::move(pattern)), characters_(Decode(pattern_, letters)), letters_(letters) {
  if (letters_ == Case::Ignored) return;
  head_ = std::min(pattern_.find_first_of("*?[\\"), pattern_.size());
  // What stands behind a class or a backslash may belong to it.
  if (pattern_.find_first_of("[\\") == std::string::npos) tail_ = pattern_.size() - (pattern_.find_last_of("*?") + 1);
}

bool PathGlob::Matches(std::string_view text) const {
  // Most patterns do not match most texts, and tell so by their bytes.
  const std::string_view pattern(pattern_);
  if (!text.starts_with(pattern.substr(0, head_)) || !text.ends_with(pattern.substr(pattern.size() - tail_))) {
    return false;
  }
  return Attempt(characters_, Decode(text, letters_)).Run();
}

std::string PathGlob::Escape(std::string_view literal) {
  std::string escaped;
  escaped.reserve(literal.size());
  for (const char c : literal) {
    if (c == '*' || c == '?' || c == '[' || c == '\\') escaped += '\\';
    escaped += c;
  }
  return escaped;
}

}  // namespace zagent::edr

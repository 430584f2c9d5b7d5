#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace zagent::edr {

// A glob over whole texts with the meaning of Poco::Glob's default options: "*" stands for any number of characters
// and "?" for one, "/" and leading dots included; "[a-z]" and "[!a-z]" are classes; a backslash takes the next
// character as it is. Characters are those of UTF-8; bytes that are no UTF-8 stand for themselves.
//
// A match costs at most (length of the pattern) x (length of the text) steps, however many stars the pattern has:
// patterns come from manifests and texts from whoever names a file.
//
// Without regard to case, pattern and text are both taken in lower case.
//
// A pattern that is malformed where a match arrives (a class without its end, a last backslash) does not match.
class PathGlob {
 public:
  enum class Case : std::uint8_t { Counts, Ignored };

  explicit PathGlob(std::string pattern, Case letters = Case::Counts);

  [[nodiscard]] bool Matches(std::string_view text) const;
  [[nodiscard]] const std::string& GetPattern() const { return pattern_; }

  // A pattern that matches exactly `literal`.
  static std::string Escape(std::string_view literal);

 private:
  std::string pattern_;
  std::u32string characters_;
  Case letters_;
  std::size_t head_ = 0;  // bytes of the pattern that a text must begin with
  std::size_t tail_ = 0;  // and end with
};

}  // namespace zagent::edr

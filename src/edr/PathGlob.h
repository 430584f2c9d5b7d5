#pragma once

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
// A pattern that is malformed where a match arrives (a class without its end, a last backslash) does not match.
class PathGlob {
 public:
  explicit PathGlob(std::string pattern);

  [[nodiscard]] bool Matches(std::string_view text) const;
  [[nodiscard]] const std::string& GetPattern() const { return pattern_; }

  // A pattern that matches exactly `literal`.
  static std::string Escape(std::string_view literal);

 private:
  std::string pattern_;
  std::u32string characters_;
};

}  // namespace zagent::edr

#pragma once

#include <memory>
#include <string>

namespace Poco {
class RegularExpression;
}

namespace zagent::ioc::internal {

// A regular expression (PCRE) that a text must match from its beginning to its end. Compiled once; copies share it, and
// any thread may ask.
class WholeTextPattern {
 public:
  // Throws Poco::Exception for what is no regular expression.
  explicit WholeTextPattern(const std::string& text);

  // Takes nothing from the heap. False, too, where the library gives up: what an expression may cost is bounded, in
  // time and stack, so that no text can hang or crash who asks.
  [[nodiscard]] bool Matches(const std::string& text) const;

 private:
  std::shared_ptr<const Poco::RegularExpression> expression_;
};

}  // namespace zagent::ioc::internal

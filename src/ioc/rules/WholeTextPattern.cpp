#include "src/ioc/rules/WholeTextPattern.h"

#include <Poco/Exception.h>
#include <Poco/RegularExpression.h>

#include "common/src/util/Log.h"
#include "src/ioc/config/LogPrefix.h"

namespace zagent::ioc::internal {
namespace {

// A level of recursion takes about 500 bytes of the stack, a step some nanoseconds.
constexpr const char* kLimits = "(*LIMIT_MATCH=1000000)(*LIMIT_RECURSION=5000)";

std::shared_ptr<const Poco::RegularExpression> Compile(const std::string& text) {
  // The library reads up to a NUL.
  if (text.find('\0') != std::string::npos) throw Poco::RegularExpressionException("NUL in pattern");
  // By itself, too: "a)|(b" is none, but would become one in brackets.
  const Poco::RegularExpression alone(text);
  return std::make_shared<const Poco::RegularExpression>(kLimits + ("^(?:" + text + ")\\z"), 0, true);
}

}  // namespace

WholeTextPattern::WholeTextPattern(const std::string& text) : expression_(Compile(text)) {}

bool WholeTextPattern::Matches(const std::string& text) const {
  try {
    Poco::RegularExpression::Match place;
    return expression_->match(text, 0, place) > 0;
  } catch (const Poco::Exception& error) {
    ZLOG_DEBUG("Pattern gives up: " << error.displayText());
    return false;
  }
}

}  // namespace zagent::ioc::internal

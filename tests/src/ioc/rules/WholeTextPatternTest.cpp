#include "src/ioc/rules/WholeTextPattern.h"

#include <Poco/Exception.h>
#include <gtest/gtest.h>

#include "tests/fakes/LogCapture.h"

namespace zagent::ioc::internal {
namespace {

bool Matches(const std::string& pattern, const std::string& text) {
  return WholeTextPattern(pattern).Matches(text);
}

TEST(WholeTextPatternTest, MatchesFromBeginningToEnd) {
  EXPECT_TRUE(Matches("/bin/cat", "/bin/cat"));
  EXPECT_FALSE(Matches("cat", "/bin/cat"));
  EXPECT_FALSE(Matches("/bin/cat", "/bin/cat2"));
  EXPECT_TRUE(Matches("/bin/cat|/bin/cat2", "/bin/cat2")) << "the longer alternative";
  EXPECT_FALSE(Matches("/bin/cat$", "/bin/cat\n"));
  EXPECT_TRUE(Matches("", ""));
  EXPECT_FALSE(Matches("", "x"));
}

TEST(WholeTextPatternTest, RefusesWhatIsNoExpression) {
  for (const char* pattern : {"(", "[", "a)|(b", R"(\Qabc)", "(?x)a#"}) {
    EXPECT_THROW(WholeTextPattern{pattern}, Poco::Exception) << pattern;
  }
  EXPECT_THROW(WholeTextPattern{std::string("a\0b", 3)}, Poco::Exception) << "the library reads up to a NUL";
}

// Unbounded, the first of these runs for hours and the second one through the end of the stack.
TEST(WholeTextPatternTest, GivesUpBeforeATextCostsTooMuchTimeOrStack) {
  const fakes::LogCapture log;
  EXPECT_FALSE(Matches("(a+)+$", std::string(60, 'a') + "b"));
  EXPECT_FALSE(Matches("(a|b)*", std::string(1'000'000, 'a')));
  EXPECT_EQ(log.Count("[IOC]: Pattern gives up: "), 2) << log.All();
  EXPECT_TRUE(Matches("(a|b)*", std::string(1'000, 'a')));
}

}  // namespace
}  // namespace zagent::ioc::internal

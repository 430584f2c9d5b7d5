#include "src/ioc/config/Verdict.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <utility>

namespace zagent::ioc {
namespace {

template <typename Call>
std::string ErrorOf(Call call) {
  try {
    call();
    return "";
  } catch (const std::runtime_error& error) {
    return error.what();
  }
}

TEST(VerdictTest, EveryVerdictHasItsNumberAndItsWordBothWays) {
  const std::pair<int, const char*> expected[] = {
      {1, "Clean"}, {2, "CleanWithoutHash"}, {3, "Unknown"}, {4, "Suspicious"}, {5, "Malicious"}};
  for (const auto& [number, word] : expected) {
    EXPECT_EQ(VerdictWord(static_cast<Verdict>(number)), word);
    EXPECT_EQ(static_cast<int>(VerdictFromWord(word)), number);
  }
}

TEST(VerdictTest, ANumberWithoutAWordIsAnError) {
  EXPECT_EQ(ErrorOf([] { VerdictWord(static_cast<Verdict>(0)); }), "Cannot convert verdict 0 to string");
  EXPECT_EQ(ErrorOf([] { VerdictWord(static_cast<Verdict>(6)); }), "Cannot convert verdict 6 to string");
}

TEST(VerdictTest, AWordIsTakenAsItStandsOnly) {
  EXPECT_EQ(ErrorOf([] { VerdictFromWord("clean"); }), "Unknown verdict string: clean");
  EXPECT_EQ(ErrorOf([] { VerdictFromWord(""); }), "Unknown verdict string: ");
}

}  // namespace
}  // namespace zagent::ioc

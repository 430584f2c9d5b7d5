#include "common/src/util/Concealment.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "common/src/util/Base64.h"

namespace zagent::common::util {
namespace {

TEST(ConcealmentTest, CombinesEveryByteAndEncodesTheResult) {
  EXPECT_EQ(Base64Encode("\x20\x23\x22"), Conceal("abc", 0x41));
  EXPECT_EQ("abc", Reveal(Conceal("abc", 0x41), 0x41));
}

TEST(ConcealmentTest, RevealsBytesOfEveryValue) {
  std::string bytes;
  for (int i = 0; i < 256; ++i) bytes.push_back(static_cast<char>(i));
  EXPECT_EQ(bytes, Reveal(Conceal(bytes, 0x5a), 0x5a));
}

TEST(ConcealmentTest, KeepsAnEmptyTextEmpty) {
  EXPECT_EQ("", Conceal("", 0x5a));
  EXPECT_EQ("", Reveal("", 0x5a));
}

TEST(ConcealmentTest, HidesTheText) {
  const std::string concealed = Conceal("a secret of the agent", 0x5a);
  EXPECT_THAT(concealed, ::testing::Not(::testing::HasSubstr("secret")));
  EXPECT_THAT(Base64Decode(concealed), ::testing::Not(::testing::HasSubstr("secret")));
}

TEST(ConcealmentTest, FailsOnATextThatIsNoBase64InsteadOfRevealingGarbage) {
  try {
    (void)Reveal("not base64!", 0x5a);
    FAIL() << "revealed";
  } catch (const XORException& error) {
    EXPECT_THAT(error.what(), ::testing::StartsWith("Failed to reveal data: Input string is not a valid base"));
  }
}

}  // namespace
}  // namespace zagent::common::util

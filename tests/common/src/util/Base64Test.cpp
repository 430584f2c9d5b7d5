#include "common/src/util/Base64.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

namespace zagent::common::util {
namespace {

using ::testing::StartsWith;

std::string DecodingError(std::string_view text) {
  try {
    (void)Base64Decode(text);
  } catch (const Base64Exception& error) {
    return error.what();
  }
  return "accepted";
}

TEST(Base64Test, EncodesEveryPaddingLength) {
  EXPECT_EQ("", Base64Encode(""));
  EXPECT_EQ("Zg==", Base64Encode("f"));
  EXPECT_EQ("Zm8=", Base64Encode("fo"));
  EXPECT_EQ("Zm9v", Base64Encode("foo"));
  EXPECT_EQ("Zm9vYmFy", Base64Encode("foobar"));
}

TEST(Base64Test, UsesTheStandardAlphabetForItsLastTwoCharacters) {
  EXPECT_EQ("+/+/", Base64Encode("\xfb\xff\xbf"));
  EXPECT_EQ("\xfb\xff\xbf", Base64Decode("+/+/"));
}

TEST(Base64Test, WritesNoLineBreaksIntoLongTexts) {
  const std::string text = Base64Encode(std::string(1000, 'x'));
  EXPECT_EQ(1336U, text.size());
  EXPECT_EQ(std::string::npos, text.find('\n'));
}

TEST(Base64Test, DecodesWhatItEncodedForEveryByteAndLength) {
  std::string bytes;
  for (int i = 0; i < 256; ++i) {
    EXPECT_EQ(bytes, Base64Decode(Base64Encode(bytes))) << "length " << i;
    bytes.push_back(static_cast<char>(255 - i));
  }
}

TEST(Base64Test, RefusesBadInputWithItsText) {
  for (const char* text :
       {"Zg=", "Zg", "Z", "Zm9v\n", "Zm9v====", "Zm=v", "Zm9-", "====", "Zm 9", "Z===", "\xff\xff=="}) {
    EXPECT_THAT(DecodingError(text), StartsWith("Input string is not a valid base")) << text;
  }
}

TEST(Base64Test, RefusesStrayBitsInTheLastCharacterSoThatATextHasOneMeaning) {
  EXPECT_EQ("f", Base64Decode("Zg=="));
  EXPECT_THAT(DecodingError("Zh=="), StartsWith("Input string is not a valid base"));
}

TEST(Base64Test, RefusesToEncodeMoreThanOneCallCanCount) {
  const char byte = 'x';
  const std::string_view too_long(&byte, std::numeric_limits<int>::max());  // refused before it is read
  try {
    (void)Base64Encode(too_long);
    FAIL() << "encoded";
  } catch (const Base64Exception& error) {
    EXPECT_STREQ("Unknown Error (2) occurred in Base64 encoding", error.what());
  }
}

}  // namespace
}  // namespace zagent::common::util

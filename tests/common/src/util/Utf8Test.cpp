#include "common/src/util/Utf8.h"

#include <gtest/gtest.h>

namespace zagent::common::util {
namespace {

constexpr const char* kReplacement = "\xEF\xBF\xBD";

TEST(Utf8Test, WellFormedTextIsLeftAlone) {
  const std::string text = "/srv/na\xC3\xAFve/\xE2\x82\xAC/\xF0\x9F\x98\x80";
  EXPECT_EQ(ReplaceInvalidUtf8(text), text);
  EXPECT_EQ(ReplaceInvalidUtf8(""), "");
  EXPECT_EQ(ReplaceInvalidUtf8(std::string("a\0b", 3)), std::string("a\0b", 3));
}

TEST(Utf8Test, EachBadByteBecomesTheReplacementCharacter) {
  EXPECT_EQ(ReplaceInvalidUtf8("a\xFFz"), std::string("a") + kReplacement + "z");
  EXPECT_EQ(ReplaceInvalidUtf8("\x80\x80"), std::string(kReplacement) + kReplacement);
}

TEST(Utf8Test, ALeadByteDoesNotSwallowTheTextBehindIt) {
  EXPECT_EQ(ReplaceInvalidUtf8("\xF0.log"), std::string(kReplacement) + ".log");
  EXPECT_EQ(ReplaceInvalidUtf8("x\xE2\x82"), std::string("x") + kReplacement + kReplacement);
}

TEST(Utf8Test, OverlongFormsSurrogatesAndTooLargeCodePointsAreBad) {
  std::size_t position = 0;
  EXPECT_FALSE(NextCodePoint("\xC0\xAF", position));  // "/" in two bytes
  EXPECT_EQ(position, 1U);
  for (const char* bad : {"\xE0\x80\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xF8\x88\x80\x80\x80"}) {
    position = 0;
    EXPECT_FALSE(NextCodePoint(bad, position)) << bad;
  }
}

TEST(Utf8Test, AsciiIsSkippedUpToTheFirstOtherByteWhereverItStands) {
  for (std::size_t length = 0; length < 40; ++length) {
    const std::string plain(length, 'a');
    EXPECT_EQ(SkipAscii(plain, 0), length);
    for (std::size_t at = 0; at < length; ++at) {
      for (const char other : {'\0', '\x80', '\xFF'}) {
        std::string text = plain;
        text[at] = other;
        EXPECT_EQ(SkipAscii(text, 0), at) << length;
        EXPECT_EQ(SkipAscii(text, at), at) << length;
        EXPECT_EQ(SkipAscii(text, at + 1), length) << at;
      }
    }
  }
  EXPECT_EQ(SkipAscii("\x01\x7F\x01\x7F\x01\x7F\x01\x7F", 0), 8U);
}

TEST(Utf8Test, DecodesSequencesOfEveryLength) {
  const std::string text = "a\xC3\xA9\xE2\x82\xAC\xF4\x8F\xBF\xBF";
  std::size_t position = 0;
  EXPECT_EQ(NextCodePoint(text, position), U'a');
  EXPECT_EQ(NextCodePoint(text, position), U'\u00E9');
  EXPECT_EQ(NextCodePoint(text, position), U'\u20AC');
  EXPECT_EQ(NextCodePoint(text, position), static_cast<char32_t>(0x10FFFF));
  EXPECT_EQ(position, text.size());
}

}  // namespace
}  // namespace zagent::common::util

#include <gtest/gtest.h>
#include <sys/sysmacros.h>

#include <cerrno>

#include "common/src/util/Clock.h"
#include "common/src/util/DeviceText.h"
#include "common/src/util/ErrnoText.h"
#include "common/src/util/Json.h"

namespace zagent::common::util {
namespace {

TEST(ErrnoTextTest, SaysTheWordsAndTheNumber) {
  EXPECT_EQ(ErrnoText(ENOENT), "No such file or directory (2)");
}

TEST(ErrnoTextTest, AnUnknownNumberIsUnknownError) {
  EXPECT_EQ(ErrnoText(99999), "Unknown Error (99999)");
}

TEST(DeviceTextTest, PadsBothNumbersToTwoDigits) {
  EXPECT_EQ(DeviceText(makedev(0, 2)), "00:02");
  EXPECT_EQ(DeviceText(makedev(0xfd, 0x1a3)), "fd:1a3");
  EXPECT_EQ(DeviceText(makedev(0xabc, 0xabcde)), "abc:abcde");
}

TEST(FormatUtcTest, WritesWholeSeconds) {
  EXPECT_EQ(FormatUtc(1'714'558'830'999'999'999), "2024-05-01T10:20:30Z");
}

TEST(JsonTest, AMillionBracketsAreAnErrorAndNoCrash) {
  rapidjson::Document document;
  ParseJson(document, std::string(1'000'000, '['));
  EXPECT_TRUE(document.HasParseError());
}

TEST(JsonTest, AMillionNestedArraysParse) {
  rapidjson::Document document;
  ParseJson(document, std::string(1'000'000, '[') + std::string(1'000'000, ']'));
  EXPECT_FALSE(document.HasParseError());
}

TEST(JsonTest, WritesEveryKindOfValue) {
  const std::string text =
      R"({"a":[1,-2,3.5,true,false,null,"x\"y\u0001",[],{}],"b":{"c":[{"d":4294967296},[[]]]},"e":""})";
  rapidjson::Document document;
  ParseJson(document, text);
  ASSERT_FALSE(document.HasParseError());
  EXPECT_EQ(WriteJson(document), text);
  EXPECT_EQ(WriteJson(document["a"][1]), "-2");
}

TEST(JsonTest, AMillionNestedArraysAreWrittenWithoutUsingUpTheStack) {
  const std::string text = std::string(1'000'000, '[') + std::string(1'000'000, ']');
  rapidjson::Document document;
  ParseJson(document, text);
  EXPECT_EQ(WriteJson(document), text);
}

TEST(JsonTest, NestingIsMeasuredNoDeeperThanAsked) {
  rapidjson::Document document;
  ParseJson(document, R"({"a":[1,{"b":2}]})");
  EXPECT_FALSE(IsNestedDeeperThan(document, 3));
  EXPECT_TRUE(IsNestedDeeperThan(document, 2));
  EXPECT_FALSE(IsNestedDeeperThan(document["a"][0], 0));
  rapidjson::Document deep;
  ParseJson(deep, std::string(1'000'000, '[') + std::string(1'000'000, ']'));
  EXPECT_TRUE(IsNestedDeeperThan(deep, 32));
}

TEST(JsonTest, ASecondDocumentOrANulByteIsAnErrorAndTrailingBlanksAreNot) {
  rapidjson::Document document;
  ParseJson(document, "{} {}");
  EXPECT_TRUE(document.HasParseError());
  ParseJson(document, std::string("{\"a\":1\0}", 8));
  EXPECT_TRUE(document.HasParseError());
  ParseJson(document, "{} \n");
  EXPECT_FALSE(document.HasParseError());
}

TEST(JsonTest, AFailedAssertionThrowsInsteadOfAborting) {
  rapidjson::Document document;
  ParseJson(document, "{}");
  EXPECT_THROW((void)document["missing"], JsonAssertion);
}

TEST(JsonTest, FindMemberIsNullForWhatIsNotThere) {
  rapidjson::Document document;
  ParseJson(document, R"({"a": 1})");
  ASSERT_NE(FindMember(document, "a"), nullptr);
  EXPECT_EQ(FindMember(document, "b"), nullptr);
  ParseJson(document, "[]");
  EXPECT_EQ(FindMember(document, "a"), nullptr);
}

}  // namespace
}  // namespace zagent::common::util

#include "common/src/util/JsonPlace.h"

#include <gtest/gtest.h>

#include <string>

namespace zagent::common::util {
namespace {

// What stands at the place, to the end of the text.
std::string At(const std::string& json, const JsonPlace& place) {
  return json.substr(OffsetOf(json, place));
}

TEST(JsonPlaceTest, FindsMembersAndElements) {
  const std::string json = R"( { "a" : 1, "b": [ true, {"c" : -1.5e3, "d":"x"} , null ], "e":{} } )";
  EXPECT_EQ(At(json, {}), json.substr(1));
  EXPECT_EQ(At(json, {"a"}).substr(0, 2), "1,");
  EXPECT_EQ(At(json, {"b", "0"}).substr(0, 4), "true");
  EXPECT_EQ(At(json, {"b", "1", "c"}).substr(0, 6), "-1.5e3");
  EXPECT_EQ(At(json, {"b", "1", "d"}).substr(0, 3), R"("x")");
  EXPECT_EQ(At(json, {"b", "2"}).substr(0, 4), "null");
  EXPECT_EQ(At(json, {"e"}).substr(0, 2), "{}");
}

TEST(JsonPlaceTest, TextsThatLookLikeJsonAreTexts) {
  const std::string json = R"({"x":"}],\"a\":{","y":["[\\",{"z":"\\"}],"a":7})";
  EXPECT_EQ(At(json, {"a"}), "7}");
  EXPECT_EQ(At(json, {"y", "1", "z"}), R"("\\"}],"a":7})");
}

TEST(JsonPlaceTest, WhatIsNotThereIsFoundAsFarAsItIs) {
  const std::string json = R"({"a":[{"b":1}]})";
  EXPECT_EQ(At(json, {"a", "0", "missing"}), R"({"b":1}]})");
  EXPECT_EQ(At(json, {"a", "7"}), R"([{"b":1}]})");
  EXPECT_EQ(At(json, {"a", "no number"}), R"([{"b":1}]})");
  EXPECT_EQ(At(json, {"a", "0", "b", "deeper"}), "1}]}");
  EXPECT_EQ(At("[]", {"0"}), "[]");
  EXPECT_EQ(At("[]", {"3"}), "[]");
}

TEST(JsonPlaceTest, APlaceIsWrittenAsAKey) {
  EXPECT_EQ(KeyText({}), "");
  EXPECT_EQ(KeyText({"data", "rules", "0", "notify", "1"}), "data.rules[0].notify[1]");
  EXPECT_EQ(KeyText({"data", "rules", "0", "notify", "1"}, 3), "notify[1]");
  EXPECT_EQ(KeyText(Within({"a", "2"}, {"b"})), "a[2].b");
}

TEST(JsonPlaceTest, AMillionBracketsCostNoStack) {
  const std::string deep = std::string(1'000'000, '[') + std::string(1'000'000, ']');
  EXPECT_EQ(At(R"({"deep":)" + deep + R"(,"a":7})", {"a"}), "7}");
}

TEST(JsonPlaceTest, LinesAndColumnsAreThoseOfAnEditor) {
  const std::string text = "first\n\xC3\xA4\xE2\x82\xACx\nlast";
  EXPECT_EQ(PositionOf(text, 0), (TextPosition{1, 1}));
  EXPECT_EQ(PositionOf(text, 5), (TextPosition{1, 6}));
  EXPECT_EQ(PositionOf(text, 6), (TextPosition{2, 1}));
  EXPECT_EQ(PositionOf(text, text.find('x')), (TextPosition{2, 3}));
  EXPECT_EQ(PositionOf(text, text.size()), (TextPosition{3, 5}));
}

}  // namespace
}  // namespace zagent::common::util

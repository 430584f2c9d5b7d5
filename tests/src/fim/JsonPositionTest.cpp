#include "src/fim/JsonPosition.h"

#include <gtest/gtest.h>

#include <string>

namespace zagent::fim::internal {
namespace {

// What stands at the place, to the end of the text.
std::string At(const std::string& json, const JsonPlace& place) {
  return json.substr(OffsetOf(json, place));
}

TEST(JsonPositionTest, FindsMembersAndElements) {
  const std::string json = R"( { "a" : 1, "b": [ true, {"c" : -1.5e3, "d":"x"} , null ], "e":{} } )";
  EXPECT_EQ(At(json, {}), json.substr(1));
  EXPECT_EQ(At(json, {"a"}).substr(0, 2), "1,");
  EXPECT_EQ(At(json, {"b", "0"}).substr(0, 4), "true");
  EXPECT_EQ(At(json, {"b", "1", "c"}).substr(0, 6), "-1.5e3");
  EXPECT_EQ(At(json, {"b", "1", "d"}).substr(0, 3), R"("x")");
  EXPECT_EQ(At(json, {"b", "2"}).substr(0, 4), "null");
  EXPECT_EQ(At(json, {"e"}).substr(0, 2), "{}");
}

TEST(JsonPositionTest, TextsThatLookLikeJsonAreTexts) {
  const std::string json = R"({"x":"}],\"a\":{","y":["[\\",{"z":"\\"}],"a":7})";
  EXPECT_EQ(At(json, {"a"}), "7}");
  EXPECT_EQ(At(json, {"y", "1", "z"}), R"("\\"}],"a":7})");
}

TEST(JsonPositionTest, WhatIsNotThereIsFoundAsFarAsItIs) {
  const std::string json = R"({"a":[{"b":1}]})";
  EXPECT_EQ(At(json, {"a", "0", "missing"}), R"({"b":1}]})");
  EXPECT_EQ(At(json, {"a", "7"}), R"([{"b":1}]})");
  EXPECT_EQ(At(json, {"a", "no number"}), R"([{"b":1}]})");
  EXPECT_EQ(At(json, {"a", "0", "b", "deeper"}), "1}]}");
  EXPECT_EQ(At("[]", {"0"}), "[]");
  EXPECT_EQ(At("[]", {"3"}), "[]");
}

TEST(JsonPositionTest, AMillionBracketsCostNoStack) {
  const std::string deep = std::string(1'000'000, '[') + std::string(1'000'000, ']');
  EXPECT_EQ(At(R"({"deep":)" + deep + R"(,"a":7})", {"a"}), "7}");
}

TEST(JsonPositionTest, LinesAndColumnsAreThoseOfAnEditor) {
  const std::string text = "first\n\xC3\xA4\xE2\x82\xACx\nlast";
  EXPECT_EQ(PositionOf(text, 0), (TextPosition{1, 1}));
  EXPECT_EQ(PositionOf(text, 5), (TextPosition{1, 6}));
  EXPECT_EQ(PositionOf(text, 6), (TextPosition{2, 1}));
  EXPECT_EQ(PositionOf(text, text.find('x')), (TextPosition{2, 3}));
  EXPECT_EQ(PositionOf(text, text.size()), (TextPosition{3, 5}));
}

}  // namespace
}  // namespace zagent::fim::internal

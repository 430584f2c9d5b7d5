#include "src/fim/JsonDataFormatter.h"

#include <gtest/gtest.h>

#include <string>

namespace zagent::fim::internal {
namespace {

common::Bytes ToBytes(const std::string& text) {
  return {text.begin(), text.end()};
}

std::string Finished(JsonDataFormatter& formatter) {
  const common::Bytes bytes = formatter.Finish();
  return {bytes.begin(), bytes.end()};
}

std::string ErrorOf(const std::string& text) {
  JsonDataFormatter formatter;
  try {
    formatter.Append(ToBytes(text));
    return "";
  } catch (const common::DataFormatterException& error) {
    EXPECT_EQ(formatter.Size(), 0U);
    return error.what();
  }
}

TEST(JsonDataFormatterTest, DocumentsBecomeOneArrayInTheirOrder) {
  JsonDataFormatter formatter;
  formatter.Append(ToBytes(R"({"eventId":1})"));
  formatter.Append(ToBytes(R"( { "eventId" : 2, "deep": {"a":[1.50,null,true]} } )"));
  EXPECT_EQ(Finished(formatter), R"({"events":[{"eventId":1},{"eventId":2,"deep":{"a":[1.50,null,true]}}]})");
}

TEST(JsonDataFormatterTest, SizeIsThatOfTheFileAndZeroWhenEmpty) {
  JsonDataFormatter formatter;
  EXPECT_EQ(formatter.Size(), 0U);
  formatter.Append(ToBytes(R"({"a":1})"));
  EXPECT_EQ(formatter.Size(), Finished(formatter).size());
  formatter.Append(ToBytes(R"({"b":2})"));
  EXPECT_EQ(formatter.Size(), Finished(formatter).size());
  formatter.Clear();
  EXPECT_EQ(formatter.Size(), 0U);
  EXPECT_EQ(Finished(formatter), R"({"events":[]})");
}

TEST(JsonDataFormatterTest, WhatIsNoObjectIsRefused) {
  const std::string expected = "fim::JsonDataFormatter: 'data' is not a valid JSON object";
  for (const char* text : {"", "[]", "7", R"("text")", "{", R"({"a":1}{"b":2})", R"({"a":1} x)", "null"}) {
    EXPECT_EQ(ErrorOf(text), expected) << text;
  }
  EXPECT_EQ(ErrorOf(std::string("{\"a\":1}\0", 8)), expected);
  EXPECT_EQ(ErrorOf("{\"a\":\"\xFF\"}"), expected);
  EXPECT_EQ(ErrorOf("{\"a\":" + std::string(1'000'000, '[')), expected);
}

TEST(JsonDataFormatterTest, ARefusedDocumentLeavesTheOthersWhole) {
  JsonDataFormatter formatter;
  formatter.Append(ToBytes(R"({"a":1})"));
  EXPECT_THROW(formatter.Append(ToBytes(R"({"b":2)")), common::DataFormatterException);
  formatter.Append(ToBytes(R"({"c":3})"));
  EXPECT_EQ(Finished(formatter), R"({"events":[{"a":1},{"c":3}]})");
}

}  // namespace
}  // namespace zagent::fim::internal

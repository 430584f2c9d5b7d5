#include "src/health/StatusDocument.h"

#include <gtest/gtest.h>

#include "src/health/FieldsText.h"
#include "tests/fakes/LogCapture.h"

namespace zagent::health {
namespace {

constexpr const char* kTime = "2024-05-01T10:20:30Z";

TEST(StatusDocumentTest, HasOneObjectARow) {
  EXPECT_EQ(BuildStatusDocument({{kTime, "FIM", 4001, 1, ""}, {kTime, "/etc/\"m\"", 4002, 0, R"({"reason":"no"})"}}),
            R"({"status":[{"dateTime":"2024-05-01T10:20:30Z","contextId":"FIM","statusCode":4001,"state":1},)"
            R"({"dateTime":"2024-05-01T10:20:30Z","contextId":"/etc/\"m\"","statusCode":4002,"state":0,)"
            R"("additionalFields":{"reason":"no"}}]})");
}

TEST(StatusDocumentTest, CopiesNestedFieldsAsTheyAre) {
  const std::string fields = R"({"extraFields":{"list":[1,2.5,null],"deep":{"text":"x"}},"n":-1})";
  EXPECT_EQ(BuildStatusDocument({{kTime, "c", 4001, 1, fields}}),
            R"({"status":[{"dateTime":"2024-05-01T10:20:30Z","contextId":"c","statusCode":4001,"state":1,)"
            R"("additionalFields":)" +
                fields + "}]}");
}

TEST(StatusDocumentTest, LeavesFieldsOutThatAreNoJsonObject) {
  const std::string bare =
      R"({"status":[{"dateTime":"2024-05-01T10:20:30Z","contextId":"c","statusCode":4001,"state":1}]})";
  for (const char* fields : {"{\"half\":", "no json", "[1]", "7", "{} {}"}) {
    const fakes::LogCapture log;
    EXPECT_EQ(BuildStatusDocument({{kTime, "c", 4001, 1, fields}}), bare) << fields;
    EXPECT_EQ(log.Count("[EDR]: Error in parsing Extra fields column from AgentStatus table"), 1) << fields;
  }
}

TEST(StatusDocumentTest, SurvivesAMillionLevels) {
  const std::string deep = "{\"a\":" + std::string(1'000'000, '[') + std::string(1'000'000, ']') + "}";
  EXPECT_GT(BuildStatusDocument({{kTime, "c", 4001, 1, deep}}).size(), deep.size());
}

TEST(FieldsTextTest, WritesFieldsAndDetailsAsOneObject) {
  EXPECT_EQ(WriteFields({{"httpStatus", "500"}, {"count", std::int64_t{-3}}}, {{"correlationId", "a\"b"}}),
            R"({"count":-3,"httpStatus":"500","correlationId":"a\"b"})");
  EXPECT_EQ(WriteFields({}, {}), "");
}

TEST(FieldsTextTest, ReplacesBytesThatAreNoText) {
  EXPECT_EQ(ReplaceInvalidText("/etc/gr\xc3\xb6\xc3\x9f\x65"), "/etc/gr\xc3\xb6\xc3\x9f\x65");
  EXPECT_EQ(ReplaceInvalidText("/etc/a\xff.json"), "/etc/a?.json");
  EXPECT_EQ(WriteFields({{"reason", "\xff"}}, {}), R"({"reason":"?"})");
}

}  // namespace
}  // namespace zagent::health

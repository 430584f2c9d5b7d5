#include "src/fim/UploadDocument.h"

#include <gtest/gtest.h>

#include <string>

namespace zagent::fim::internal {
namespace {

constexpr const char* kTime = "2024-05-01T10:20:30Z";

std::string Build(const std::string& file) {
  const common::Bytes document = BuildUploadDocument(common::Bytes(file.begin(), file.end()), kTime);
  return {document.begin(), document.end()};
}

// "<reason> at <offset>"
std::string ErrorOf(const std::string& file) {
  try {
    return Build(file);
  } catch (const JsonCopyException& error) {
    return std::string(error.what()) + " at " + std::to_string(error.Offset());
  }
}

TEST(UploadDocumentTest, TheTimeOfTheUploadStandsBesideTheEvents) {
  EXPECT_EQ(Build(R"({"events":[{"timestamp":"1999-01-01T00:00:00Z","eventId":1}]})"),
            R"({"events":[{"timestamp":"1999-01-01T00:00:00Z","eventId":1}],"timestamp":"2024-05-01T10:20:30Z"})");
}

TEST(UploadDocumentTest, AnOlderTimeOfTheTopLevelIsReplaced) {
  EXPECT_EQ(Build(R"({"timestamp":{"x":[1,{"events":1}]},"events":[],"more":-0.5e+3})"),
            R"({"events":[],"more":-0.5e+3,"timestamp":"2024-05-01T10:20:30Z"})");
}

TEST(UploadDocumentTest, TextsAndNumbersComeThroughAsTheyAre) {
  const std::string events = R"({"events":[{"a":"\"\\\u0001\n)"
                             "\xC3\xA9"
                             R"(","b":18446744073709551616,"c":[]}]})";
  EXPECT_EQ(Build(events), events.substr(0, events.size() - 1) + R"(,"timestamp":"2024-05-01T10:20:30Z"})");
}

TEST(UploadDocumentTest, FaultsAreNamedInTheParsersWordsWithTheirPlace) {
  EXPECT_EQ(ErrorOf(""), "The document is empty. at 0");
  EXPECT_EQ(ErrorOf(R"({"events":[{"a":1})"), "Missing a comma or ']' after an array element. at 18");
  EXPECT_EQ(ErrorOf(R"({"events":[]} {})"), "The document root must not be followed by other values. at 14");
  EXPECT_EQ(ErrorOf(R"({"events":[tru]})"), "Invalid value. at 14");
}

TEST(UploadDocumentTest, OtherShapesAreFaultsToo) {
  EXPECT_EQ(ErrorOf("[]").substr(0, 32), "The document is not an object. a");
  EXPECT_EQ(ErrorOf("7").substr(0, 32), "The document is not an object. a");
  EXPECT_EQ(ErrorOf("{}").substr(0, 35), "The document has no array 'events'.");
  EXPECT_EQ(ErrorOf(R"({"events":{}})").substr(0, 35), "The document has no array 'events'.");
  EXPECT_EQ(ErrorOf(R"({"deep":{"events":[]}})").substr(0, 35), "The document has no array 'events'.");
}

TEST(UploadDocumentTest, ANulByteIsAnErrorWhereverItStands) {
  EXPECT_EQ(ErrorOf(std::string("{\"events\":[]}\0", 14)), "The document holds a NUL byte. at 13");
  EXPECT_EQ(ErrorOf(std::string("\0{\"events\":[]}", 14)), "The document holds a NUL byte. at 0");
}

TEST(UploadDocumentTest, AMillionBracketsCostNoStack) {
  EXPECT_EQ(ErrorOf(R"({"events":)" + std::string(1'000'000, '[')).substr(0, 34), "The document is nested too deeply.");
  std::string objects = R"({"events":[)";
  for (int i = 0; i < 200'000; ++i) objects += R"({"a":)";
  EXPECT_EQ(ErrorOf(objects).substr(0, 34), "The document is nested too deeply.");
}

TEST(UploadDocumentTest, TextsThatAreNoUtf8AreAFault) {
  const std::string reason = "The document holds a text that is not UTF-8. at ";
  EXPECT_EQ(ErrorOf("{\"events\":[\"\xC3\x28\"]}"), reason + "12");
  EXPECT_EQ(ErrorOf("{\"\xF4"), reason + "2");  // the text ends within a sequence
  // Half of a surrogate pair, escaped.
  EXPECT_EQ(ErrorOf(R"({"events":["\ude00"]})").substr(0, reason.size()), reason);
  EXPECT_EQ(ErrorOf(R"({"events":[{"\ude00":1}]})").substr(0, reason.size()), reason);
}

}  // namespace
}  // namespace zagent::fim::internal

#include "src/fim/Manifest.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TestData.h"
#include "tests/src/fim/Json.h"

namespace zagent::fim {
namespace {

using fakes::LogCapture;

constexpr const char* kRule =
    R"({"ruleId":"r1","ruleType":"file","imagePath":"/etc/passwd","notify":["modifyContent"]})";

std::string Document(const std::string& fim) {
  return R"({"data":{"fim":)" + fim + "}}";
}

std::string ErrorOf(const std::string& text) {
  try {
    const Manifest manifest(Json(text).Value());
    return "";
  } catch (const ManifestException& error) {
    return error.Mistakes().front().reason;
  }
}

TEST(ManifestTest, GivesVersionHashFlagAndRules) {
  const LogCapture log;
  const Manifest manifest(
      Json(Document(std::string(R"({"policyVersion":"1.0","collectHashes":true,"rules":[)") + kRule + "]}")).Value());
  EXPECT_EQ(manifest.GetPolicyVersion(), "1.0");
  EXPECT_TRUE(manifest.CollectsHashes());
  ASSERT_EQ(manifest.GetRules().size(), 1U);
  EXPECT_EQ(manifest.GetRules()[0]->GetId(), "r1");
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, std::string("[FIM]: Parsing Rule: ") + kRule)) << log.All();
}

TEST(ManifestTest, AMissingElementIsNamed) {
  EXPECT_EQ(ErrorOf("[]"), "Missing mandatory element: data");
  EXPECT_EQ(ErrorOf("{}"), "Missing mandatory element: data");
  EXPECT_EQ(ErrorOf(R"({"data":{}})"), "Missing mandatory element: fim");
  EXPECT_EQ(ErrorOf(R"({"data":7})"), "Missing mandatory element: fim");
  EXPECT_EQ(ErrorOf(Document("{}")), "Missing mandatory element: policyVersion");
  EXPECT_EQ(ErrorOf(Document(R"({"policyVersion":"1.0"})")), "Missing mandatory element: collectHashes");
  EXPECT_EQ(ErrorOf(Document(R"({"policyVersion":"1.0","collectHashes":true})")), "Missing mandatory element: rules");
}

TEST(ManifestTest, AWrongTypeIsNamed) {
  EXPECT_EQ(ErrorOf(Document(R"({"policyVersion":1})")), "policyVersion is not string");
  EXPECT_EQ(ErrorOf(Document(R"({"policyVersion":"1.0","collectHashes":1,"rules":[]})")),
            "collectHashes is not boolean");
  EXPECT_EQ(ErrorOf(Document(R"({"policyVersion":"1.0","collectHashes":true,"rules":{}})")),
            "Parsing failed. 'rules' section is not an array.");
}

TEST(ManifestTest, AnUnknownVersionYieldsNoRules) {
  const LogCapture log;
  const Manifest manifest(
      Json(Document(std::string(R"({"policyVersion":"2.0","collectHashes":true,"rules":[)") + kRule + "]}")).Value());
  EXPECT_TRUE(manifest.GetRules().empty());
  EXPECT_TRUE(log.Has("Unknown version [2.0] of FIM manifest. Skipping."));
}

TEST(ManifestTest, OneMalformedRuleRefusesTheWholeManifest) {
  EXPECT_EQ(ErrorOf(Document(std::string(R"({"policyVersion":"1.0","collectHashes":true,"rules":[)") + kRule + ",7]}")),
            "Invalid Rule json values");
}

TEST(ManifestTest, EveryBadRuleIsNamedWithItsIdAndTheKey) {
  const std::string rules =
      R"([{"ruleId":"r1","ruleType":"file","imagePath":"/etc/passwd","notify":["modifyContent","write"]},)" +
      std::string(kRule) +
      R"(,{"ruleType":"file","imagePath":"/x","notify":["read"]},)"
      R"({"ruleId":"r3","ruleType":"file","imagePath":"/x","notify":["read"],)"
      R"("exclusionFilters":[{"actorProcess":["vi"]},{"exclusionFilter":{"objectType":"file","patterns":[7]}}]}])";
  const Json json(Document(R"({"policyVersion":"1.0","collectHashes":true,"rules":)" + rules + "}"));
  try {
    const Manifest manifest(json.Value());
    FAIL() << "the manifest was taken";
  } catch (const ManifestException& error) {
    ASSERT_EQ(error.Mistakes().size(), 3U);
    EXPECT_EQ(error.Mistakes()[0].Text(), "Invalid Notify Flag (rule r1, key notify[1])");
    EXPECT_EQ(error.Mistakes()[1].Text(), "Missing mandatory element: ruleId (key data.fim.rules[2])");
    EXPECT_EQ(error.Mistakes()[2].Text(),
              "Failed to parse exclusion filters: Invalid value for patterns "
              "(rule r3, key exclusionFilters[1].exclusionFilter.patterns[0])");
    EXPECT_STREQ(error.what(), "Invalid Notify Flag (rule r1, key notify[1])");
  }
}

TEST(ManifestTest, DeepNestingIsRefusedBeforeAnythingRecursesIntoIt) {
  const std::string deep(1'000'000, '[');
  const std::string text = Document(R"({"policyVersion":"1.0","collectHashes":true,"rules":[{"ruleId":)" + deep +
                                    std::string(deep.size(), ']') + "}]}");
  const LogCapture log;  // the debug level writes rules out
  EXPECT_EQ(ErrorOf(text), "Manifest is nested too deeply");
}

TEST(ManifestTest, TheExampleManifestHoldsAFolderAndAFileRule) {
  const std::filesystem::path root = fakes::SourceTree();
  std::ifstream in(root / "examples/fim-manifest.json");
  const std::string text(std::istreambuf_iterator<char>(in), {});
  const Manifest manifest(Json(text).Value());
  EXPECT_TRUE(manifest.CollectsHashes());
  ASSERT_EQ(manifest.GetRules().size(), 2U);
  const internal::EventRule& folder = *manifest.GetRules()[0];
  EXPECT_EQ(folder.GetType(), edr::ObjectType::Directory);
  EXPECT_EQ(folder.GetPath(), "/srv/watched");
  EXPECT_EQ(folder.GetDirectoryActions().size(), 6U);
  const internal::EventRule& file = *manifest.GetRules()[1];
  EXPECT_EQ(file.GetType(), edr::ObjectType::File);
  EXPECT_EQ(file.GetPath(), "/etc/passwd");
}

}  // namespace
}  // namespace zagent::fim

// What ostrel-manifest-check says of manifests of indicators of compromise.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <climits>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include "src/manifest_check/ManifestCheck.h"
#include "tests/fakes/TempFolder.h"
#include "tests/fakes/TestData.h"

namespace zagent::manifest_check {
namespace {

const std::string kStarts = R"(    {"ruleId": "p1", "ruleType": "Process", "notify": {"process": ["create"]}})";

class IocManifestCheckTest : public testing::Test {
 protected:
  IocManifestCheckTest() { EXPECT_EQ(mkdir((base_ + "/watched").c_str(), 0700), 0); }

  static std::string Manifest(const std::string& rules, const std::string& settings = "{}",
                              const std::string& more = "") {
    return "{\n  \"policyVersion\": \"2.0.0\", \"policyId\": 1, \"productId\": 1,\n  \"globalSettings\": " + settings +
           more + ",\n  \"rules\": [\n" + rules + "\n  ]\n}\n";
  }
  [[nodiscard]] std::string Directory(const std::string& id, const std::string& path,
                                      const std::string& more = "") const {
    return R"(    {"ruleId": ")" + id + R"(", "ruleType": "Directory", "imagePath": ")" + path +
           R"(", "recursiveDepth": "All", "notify": {"File": ["write"], "Directory": ["delete"]})" + more + "}";
  }
  bool Check(const std::string& name, const std::string& text) { return check_.Check(folder_.Write(name, text)); }
  // What was printed, with "DIR" for the folder of this test.
  [[nodiscard]] std::string Printed() const {
    std::string text = out_.str();
    for (const std::string& folder : {base_, folder_.Path()}) {
      for (std::size_t at = text.find(folder); at != std::string::npos; at = text.find(folder)) {
        text.replace(at, folder.size(), "DIR");
      }
    }
    return text;
  }
  [[nodiscard]] bool HasPrinted(const std::string& text) const { return Printed().find(text) != std::string::npos; }

  fakes::TempFolder folder_;
  const std::string base_ = std::filesystem::canonical(folder_.Path());
  std::ostringstream out_;
  ManifestCheck check_{out_};
};

TEST_F(IocManifestCheckTest, AGoodManifestIsToldWithWhatTheKernelWillBeAsked) {
  EXPECT_TRUE(Check("m.json", Manifest(R"(    {"ruleType": "EDR", "ruleId": "w1", "ruleClass": "WhitelistGlobal",
      "imagePath": "/usr/bin/dpkg", "applyTo": ["file"], "exclusionFilters": [{"filterType": []}]},)"
                                       "\n" +
                                       kStarts + ",\n" + Directory("d1", base_ + "/watched") + R"(,
    {"ruleId": "n1", "ruleType": "Network", "notify": {"network": ["listen"]}})")));
  EXPECT_EQ(Printed(),
            "DIR/m.json: 3 rules, 1 of trusted programs\n"
            "  p1: -a always,exit -F arch=b64 -S clone,fork,vfork,execve -F key=p1\n"
            "  d1: -a always,exit -F dir=DIR/watched -F perm=w -F key=d1\n"
            "  n1: -a always,exit -F arch=b64 -S bind -F key=n1\n");
}

TEST_F(IocManifestCheckTest, AMistakeIsOneLineWithItsPlaceRuleAndKey) {
  EXPECT_FALSE(Check("m.json", Manifest(kStarts + ",\n" + Directory("d1", ""))));
  EXPECT_EQ(Printed(), "DIR/m.json:6:60: Rule parsing failed: Empty Rule Path for id:d1 (rule d1, key imagePath)\n");
}

TEST_F(IocManifestCheckTest, APathThatNothingCanHaveIsAMistakeOfItsRule) {
  EXPECT_FALSE(Check("m.json", Manifest(kStarts + ",\n" + Directory("d1", "etc") + R"(,
    {"ruleType": "EDR", "ruleId": "w1", "ruleClass": "WhitelistGlobal", "imagePath": "apt", "applyTo": []})")));
  EXPECT_EQ(Printed(),
            "DIR/m.json:6:5: Rule d1 is never in force: its path is not absolute\n"
            "DIR/m.json:7:5: Rule w1 is never in force: its path is not absolute\n");
  EXPECT_FALSE(Check("n.json", Manifest(Directory("d2", "/" + std::string(PATH_MAX, 'x')))));
  EXPECT_TRUE(HasPrinted("DIR/n.json:5:5: Rule d2 is never in force: its path is too long\n"));
}

TEST_F(IocManifestCheckTest, ATrustedProgramBehindALinkThatLeadsNowhereIsAWarning) {
  std::filesystem::create_symlink("nowhere", base_ + "/dangling");
  EXPECT_TRUE(Check("m.json", Manifest(kStarts + R"(,
    {"ruleType": "EDR", "ruleId": "w1", "ruleClass": "WhitelistGlobal", "applyTo": [], "imagePath": ")" +
                                       base_ + R"(/dangling"})")));
  EXPECT_TRUE(HasPrinted("DIR/m.json: warning: Cannot resolve symlink DIR/dangling\n")) << Printed();
}

TEST_F(IocManifestCheckTest, MetadataIsAWordWithoutEffect) {
  EXPECT_TRUE(Check("m.json", Manifest(kStarts, R"({"sendMetadata": true})")));
  EXPECT_TRUE(HasPrinted("DIR/m.json:3:38: warning: sendMetadata changes nothing: no event has a place for metadata\n"))
      << Printed();
  EXPECT_TRUE(Check("n.json", Manifest(Directory("d1", base_ + "/watched"), R"({"sendMetadata": false})")));
  EXPECT_FALSE(HasPrinted("DIR/n.json:3"));
}

TEST_F(IocManifestCheckTest, AnOlderVersionWouldBeRefused) {
  std::string text = Manifest(kStarts);
  text.replace(text.find("2.0.0"), 5, "1.9.9");
  EXPECT_FALSE(Check("m.json", text));
  EXPECT_EQ(Printed(), "DIR/m.json:2:20: Parsing failed. Unsupported manifest version provided (key policyVersion)\n");
}

TEST_F(IocManifestCheckTest, WhichKindOfManifestItIsIsToldByItsKeys) {
  EXPECT_FALSE(Check("ioc.json", R"({"rules": []})"));
  EXPECT_FALSE(Check("fim.json", R"({"data": {}, "rules": []})"));
  EXPECT_FALSE(Check("neither.json", "{}"));
  EXPECT_FALSE(Check("broken.json", "{"));
  EXPECT_FALSE(check_.Check(folder_ / "missing.json"));
  EXPECT_EQ(Printed(),
            "DIR/ioc.json:1:1: Missing mandatory element: policyVersion\n"
            "DIR/fim.json:1:10: Missing mandatory element: fim (key data)\n"
            "DIR/neither.json:1:1: Missing mandatory element: data\n"
            "DIR/broken.json:1:2: Missing a name for object member.\n"
            "Failed to read manifest: DIR/missing.json\n");
}

TEST_F(IocManifestCheckTest, RulesWithoutStartsOfProcessesInAnyFileAreAWarning) {
  const std::string warning = R"(warning: Without a Process rule for "create" nobody knows who acts)";
  EXPECT_TRUE(Check("m.json", Manifest(Directory("d1", base_ + "/watched"))));
  EXPECT_TRUE(
      Check("n.json", Manifest(Directory("d2", base_ + "/watched") + ",\n" +
                               R"({"ruleId": "e", "ruleType": "Process", "notify": {"process": ["delete"]}})")));
  EXPECT_TRUE(Check("empty.json", Manifest("")));
  EXPECT_TRUE(HasPrinted("DIR/empty.json: 0 rules\n"));
  EXPECT_FALSE(HasPrinted(warning)) << "another file may have it";
  check_.Finish();
  EXPECT_TRUE(HasPrinted("DIR/m.json: " + warning)) << Printed();
  EXPECT_TRUE(HasPrinted("DIR/n.json: " + warning)) << Printed();
  EXPECT_FALSE(HasPrinted("DIR/empty.json: " + warning)) << "it needs no actor";
}

TEST_F(IocManifestCheckTest, StartsOfProcessesInOneFileAreEnoughForAll) {
  EXPECT_TRUE(Check("m.json", Manifest(Directory("d1", base_ + "/watched"))));
  EXPECT_TRUE(Check("n.json", Manifest(kStarts)));
  EXPECT_TRUE(Check("o.json", Manifest(Directory("d2", base_ + "/watched"))));
  check_.Finish();
  EXPECT_FALSE(HasPrinted("nobody knows who acts")) << Printed();
}

TEST_F(IocManifestCheckTest, WhatNobodyReadsIsAWarningWithItsPlace) {
  EXPECT_TRUE(Check("m.json", Manifest(kStarts + ",\n" + Directory("d1", base_ + "/watched", R"(, "exclusionFilter": [],
 "inclusionFilters": [{"filterType": ["objectType", "remotePort"], "objectType": "File", "patterns": ["x"],
 "remotePort": {}, "actorProcess": ["vi"]}])") +
                                           R"(,
{"ruleId": "f1", "ruleType": "File", "imagePath": "/etc/passwd", "notify": {"File": ["write", "open"], "file": []}},
{"ruleId": "n1", "ruleType": "Network", "notify": {"network": ["close"]}},
{"ruleId": "r1", "ruleType": "Registry"})",
                                       R"({"sendMetaData": true})", R"(, "tag": {})")));
  for (const char* line : {":3:38: warning: Unknown key, which is passed over: sendMetaData\n",
                           ":3:52: warning: Unknown key, which is passed over: tag\n",
                           "warning: Unknown key, which is passed over: exclusionFilter\n",
                           ":7:53: warning: Unknown word, which is passed over: remotePort\n",
                           ":8:36: warning: Not named in filterType, and passed over: actorProcess\n",
                           ":9:95: warning: Unknown word, which is passed over: open\n",
                           ":9:112: warning: Unknown key, which is passed over: file\n",
                           ":10:1: warning: Rule n1 has no action that anything tells of\n",
                           ":11:30: warning: Unknown ruleType Registry: the rule is passed over\n"}) {
    EXPECT_TRUE(HasPrinted(line)) << line << Printed();
  }
  EXPECT_FALSE(HasPrinted("passed over: patterns"));
  EXPECT_FALSE(HasPrinted("passed over: close"));
}

TEST_F(IocManifestCheckTest, TagsAreJudgedAsTheEngineWouldEachAtItsPlace) {
  EXPECT_FALSE(Check("m.json", Manifest(kStarts, "{}", R"(, "tags": {"thresholdScore": 10,
 "CredentialAccess": {"score": 1, "pathRegex": "(", "processRegex": "/bin/cat"},
 "DefenseEvasion": {"score": 1, "permissions": [640, "x"]},
 "Execution": {"score": "1"},
 "Persistence": {"score": 1, "pathRegex": "/etc/x", "exclusions": [{"actorProcess": "("}]},
 "PrivilegeEscalation": {"score": 1}})")));
  EXPECT_EQ(Printed(),
            "DIR/m.json:4:22: warning: pathRegex is empty or invalid. Using default regex.\n"
            "DIR/m.json:5:20: warning: Invalid permission found at index 1 in definition of DefenseEvasion tag\n"
            "DIR/m.json:6:15: Invalid setting for Execution tag: Score is absent or invalid for Execution tag\n"
            "DIR/m.json:7:17: Invalid setting for Persistence tag: Invalid exclusion at index 0 for Persistence tag\n"
            "DIR/m.json: 1 rule\n"
            "  p1: -a always,exit -F arch=b64 -S clone,fork,vfork,execve -F key=p1\n");
}

TEST_F(IocManifestCheckTest, TagsNeedAThreshold) {
  EXPECT_FALSE(Check("m.json", Manifest(kStarts, "{}", R"(, "tags": {"Persistence": {"score": 1}})")));
  EXPECT_TRUE(HasPrinted("DIR/m.json:3:33: Tag settings does not have threshold score\n")) << Printed();
  EXPECT_FALSE(HasPrinted("regex")) << "the rest is not looked at";
  const std::string other = R"(    {"ruleId": "p2", "ruleType": "Process", "notify": {"process": ["create"]}})";
  EXPECT_FALSE(Check("n.json", Manifest(other, "{}", R"(, "tags": {"thresholdScore": 1.5})")));
  EXPECT_TRUE(HasPrinted("DIR/n.json:3:33: Threshold score is not an integer\n")) << Printed();
}

TEST_F(IocManifestCheckTest, TagsThatAreOffNeedNoSense) {
  EXPECT_TRUE(Check("m.json", Manifest(kStarts, "{}", R"(, "tags": {"thresholdScore": 0, "Execution": 1})")));
  EXPECT_FALSE(HasPrinted("Execution")) << Printed();
  const std::string other = R"(    {"ruleId": "p2", "ruleType": "Process", "notify": {"process": ["create"]}})";
  EXPECT_TRUE(Check("n.json", Manifest(other, "{}", R"(, "tags": [])")));
  EXPECT_TRUE(HasPrinted("DIR/n.json:3:33: warning: Tagging is disabled.\n")) << Printed();
}

TEST_F(IocManifestCheckTest, WhatNobodyReadsOfTagsIsAWarningWithItsPlace) {
  EXPECT_TRUE(Check("m.json", Manifest(kStarts, "{}", R"(, "tags": {"thresholdScore": 10, "treshold": 1,
 "Discovery": {"score": 1},
 "DefenseEvasion": {"score": 1, "permissions": [], "pathRegex": "x"},
 "Exfiltration": {"score": 1, "processRegex": "/bin/nc", "pathRegex": "x"},
 "Persistence": {"score": 1, "pathRegex": "x", "processRegex": "x"},
 "PrivilegeEscalation": {"score": 1, "exclusions": [{"actorProcess": "a"}, {"actorProcess": "a", "pattern": "b"}]}})")));
  for (const char* line : {":3:68: warning: Unknown key, which is passed over: treshold\n",
                           ":4:15: warning: Unknown key, which is passed over: Discovery\n",
                           ":5:65: warning: Unknown key, which is passed over: pathRegex\n",
                           ":6:71: warning: Unknown key, which is passed over: pathRegex\n",
                           ":7:64: warning: Unknown key, which is passed over: processRegex\n",
                           ":8:109: warning: Unknown key, which is passed over: pattern\n"}) {
    EXPECT_TRUE(HasPrinted(line)) << line << Printed();
  }
  EXPECT_FALSE(HasPrinted("empty or invalid"));
}

TEST_F(IocManifestCheckTest, TheTagsThatThePageShowsAreGood) {
  std::ifstream in(fakes::TestData("ioc/tags.json"));
  const std::string tags{std::istreambuf_iterator<char>(in), {}};
  EXPECT_TRUE(Check("m.json", Manifest(kStarts, "{}", "," + tags))) << Printed();
  EXPECT_FALSE(HasPrinted("passed over")) << Printed();
}

TEST_F(IocManifestCheckTest, IdsDifferOverManifestsOfAllKinds) {
  EXPECT_TRUE(Check("ioc.json", Manifest(kStarts + ",\n" + Directory("d1", base_ + "/watched"))));
  EXPECT_FALSE(Check("fim.json", R"({"data": {"fim": {"policyVersion": "1.0", "collectHashes": true, "rules": [
{"ruleId": "d1", "ruleType": "file", "imagePath": "/etc/passwd", "notify": ["modifyContent"]}]}}})"));
  EXPECT_TRUE(HasPrinted("DIR/fim.json:2:12: Rule id d1 is used more than once: the last rule holds\n")) << Printed();
  EXPECT_FALSE(Check("more.json", Manifest(kStarts)));
  EXPECT_TRUE(HasPrinted("DIR/more.json:5:16: Rule id p1 is used more than once: the last rule holds\n")) << Printed();
}

TEST_F(IocManifestCheckTest, ALinkIsWatchedAsItselfAndAsWhatItLeadsTo) {
  std::filesystem::create_directory_symlink("watched", base_ + "/link");
  EXPECT_TRUE(Check("m.json", Manifest(kStarts + ",\n" + Directory("d1", base_ + "/link"))));
  EXPECT_TRUE(
      HasPrinted("  d1: -a always,exit -F dir=DIR/watched -F perm=w -F key=d1\n"
                 "  d1-1: -a always,exit -F dir=DIR/link -F perm=w -F key=d1-1\n"))
      << Printed();
}

TEST_F(IocManifestCheckTest, ARuleOnALinkTakesTheIdOfNoOtherRule) {
  std::filesystem::create_directory_symlink("watched", base_ + "/link");
  EXPECT_TRUE(Check("m.json", Manifest(kStarts + ",\n" + Directory("d1", base_ + "/link") + ",\n" +
                                       Directory("d1-1", base_ + "/watched/below"))))
      << Printed();
  EXPECT_TRUE(HasPrinted("  d1-2: -a always,exit -F dir=DIR/link -F perm=w -F key=d1-2\n")) << Printed();
}

TEST_F(IocManifestCheckTest, APathThatIsNotThereIsAWarning) {
  EXPECT_TRUE(Check("m.json", Manifest(kStarts + ",\n" + Directory("d1", base_ + "/not/yet"))));
  EXPECT_TRUE(HasPrinted("DIR/m.json: warning: Rule d1 is not in force here: there is no DIR/not/yet\n")) << Printed();
}

TEST_F(IocManifestCheckTest, TheExampleManifestIsGoodAndAllOfItIsRead) {
  const std::string example = fakes::SourceTree() / "examples/ioc-manifest.json";
  EXPECT_TRUE(check_.Check(example)) << Printed();
  check_.Finish();
  EXPECT_TRUE(HasPrinted(example + ": 5 rules, 1 of trusted programs\n")) << Printed();
  EXPECT_FALSE(HasPrinted("passed over")) << Printed();
  EXPECT_FALSE(HasPrinted("nobody knows")) << Printed();
}

}  // namespace
}  // namespace zagent::manifest_check

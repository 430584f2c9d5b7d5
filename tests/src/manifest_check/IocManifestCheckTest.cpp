// What ostrel-manifest-check says of manifests of indicators of compromise.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
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
    {"ruleId": "n1", "ruleType": "Network", "notify": {"network": ["listen"]}})",
                                       R"({"sendMetadata": true})")));
  EXPECT_EQ(Printed(),
            "DIR/m.json: 3 rules, 1 of trusted programs, with metadata\n"
            "  p1: -a always,exit -F arch=b64 -S clone,fork,vfork,execve -F key=p1\n"
            "  d1: -a always,exit -F dir=DIR/watched -F perm=w -F key=d1\n"
            "  n1: -a always,exit -F arch=b64 -S bind -F key=n1\n");
}

TEST_F(IocManifestCheckTest, AMistakeIsOneLineWithItsPlaceRuleAndKey) {
  EXPECT_FALSE(Check("m.json", Manifest(kStarts + ",\n" + Directory("d1", "etc"))));
  EXPECT_EQ(Printed(),
            "DIR/m.json:6:60: Rule parsing failed: Rule Path is not absolute for id:d1 (rule d1, key imagePath)\n");
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

TEST_F(IocManifestCheckTest, RulesWithoutStartsOfProcessesAreAWarning) {
  constexpr const char* kWarning = "warning: Without a Process rule for \"create\" nobody knows who acts";
  EXPECT_TRUE(Check("m.json", Manifest(Directory("d1", base_ + "/watched"))));
  EXPECT_TRUE(HasPrinted(std::string("DIR/m.json: ") + kWarning)) << Printed();
  EXPECT_TRUE(
      Check("n.json", Manifest(Directory("d2", base_ + "/watched") + ",\n" +
                               R"({"ruleId": "e", "ruleType": "Process", "notify": {"process": ["delete"]}})")));
  EXPECT_TRUE(HasPrinted(std::string("DIR/n.json: ") + kWarning)) << Printed();
  EXPECT_TRUE(Check("o.json", Manifest(Directory("d3", base_ + "/watched") + ",\n" + kStarts)));
  EXPECT_FALSE(HasPrinted(std::string("DIR/o.json: ") + kWarning));
  EXPECT_TRUE(Check("empty.json", Manifest("")));
  EXPECT_TRUE(HasPrinted("DIR/empty.json: 0 rules\n"));
  EXPECT_FALSE(HasPrinted(std::string("DIR/empty.json: ") + kWarning));
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

TEST_F(IocManifestCheckTest, APathThatIsNotThereIsAWarning) {
  EXPECT_TRUE(Check("m.json", Manifest(kStarts + ",\n" + Directory("d1", base_ + "/not/yet"))));
  EXPECT_TRUE(HasPrinted("DIR/m.json: warning: Rule d1 is not in force here: there is no DIR/not/yet\n")) << Printed();
}

TEST_F(IocManifestCheckTest, TheExampleManifestIsGoodAndAllOfItIsRead) {
  const std::string example = fakes::SourceTree() / "examples/ioc-manifest.json";
  EXPECT_TRUE(check_.Check(example)) << Printed();
  EXPECT_TRUE(HasPrinted(example + ": 5 rules, 1 of trusted programs, with metadata\n")) << Printed();
  EXPECT_FALSE(HasPrinted("passed over")) << Printed();
  EXPECT_FALSE(HasPrinted("nobody knows")) << Printed();
}

}  // namespace
}  // namespace zagent::manifest_check

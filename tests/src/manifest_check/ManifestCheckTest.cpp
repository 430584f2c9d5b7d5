#include "src/manifest_check/ManifestCheck.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <sstream>

#include "tests/fakes/TempFolder.h"
#include "tests/fakes/TestData.h"

namespace zagent::manifest_check {
namespace {

class ManifestCheckTest : public testing::Test {
 protected:
  ManifestCheckTest() {
    const std::unique_ptr<char, decltype(&std::free)> real(canonicalize_file_name(folder_.Path().c_str()), &std::free);
    base_ = real.get();
    EXPECT_EQ(mkdir((base_ + "/watched").c_str(), 0700), 0);
  }

  static std::string Manifest(const std::string& rules, const std::string& version = "1.0") {
    return "{ \"data\": { \"fim\": {\n  \"policyVersion\": \"" + version +
           "\",\n  \"collectHashes\": true,\n  \"rules\": [\n" + rules + "\n  ] } } }\n";
  }
  static std::string Rule(const std::string& id, const std::string& path, const std::string& more = "") {
    return R"(    {"ruleId": ")" + id + R"(", "ruleType": "directory", "imagePath": ")" + path +
           R"(", "recursiveDepth": "all", "notify": ["read", "create", "modifyMetadata"])" + more + "}";
  }
  bool Check(const std::string& name, const std::string& text) { return check_.Check(folder_.Write(name, text)); }
  // What was printed, with "DIR" for the folder of this test.
  std::string Printed() {
    std::string text = out_.str();
    for (const std::string& folder : {base_, folder_.Path()}) {
      for (std::size_t at = text.find(folder); at != std::string::npos; at = text.find(folder)) {
        text.replace(at, folder.size(), "DIR");
      }
    }
    return text;
  }

  // The lines of what was printed that warn of a place in the file.
  std::string WarningsOf(const std::string& name) {
    std::istringstream printed(Printed());
    std::string warnings;
    for (std::string line; std::getline(printed, line);) {
      if (line.rfind("DIR/" + name + ":", 0) == 0 && line.find(": warning: ") != std::string::npos) {
        warnings += line + "\n";
      }
    }
    return warnings;
  }

  fakes::TempFolder folder_;
  std::string base_;
  std::ostringstream out_;
  ManifestCheck check_{out_};
};

TEST_F(ManifestCheckTest, AGoodManifestIsToldWithWhatTheKernelWillWatch) {
  EXPECT_TRUE(Check("m.json", Manifest(Rule("r1", base_ + "/watched") + ",\n" +
                                       R"({"ruleId": "r2", "ruleType": "file", "imagePath": ")" + base_ +
                                       R"(/file", "notify": ["modifyContent"]})")));
  EXPECT_EQ(Printed(),
            "DIR/m.json: 2 rules, with digests\n"
            "  r1: -a always,exit -F dir=DIR/watched -F perm=r -F auid!=unset -F key=r1\n"
            "  r1: -a always,exit -F dir=DIR/watched -F perm=wa -F key=r1\n"
            "  r2: -a always,exit -F path=DIR/file -F perm=w -F key=r2\n");
}

TEST_F(ManifestCheckTest, EveryMistakeIsOneLineWithItsPlaceRuleAndKey) {
  EXPECT_FALSE(Check("m.json", Manifest(Rule("r1", "etc") + ",\n" + Rule("r2", base_ + "/watched") + ",\n" +
                                        Rule("r3", "/etc", R"(, "exclusionFilters": [{"actorProcess": "vi"}])"))));
  EXPECT_EQ(Printed(),
            "DIR/m.json:5:60: Cannot create rule: Path is not absolute. (rule r1, key imagePath)\n"
            "DIR/m.json:7:179: Failed to parse exclusion filters: Expected array of processes filter "
            "(rule r3, key exclusionFilters[0].actorProcess)\n");
}

TEST_F(ManifestCheckTest, WhatIsNoJsonIsToldInTheParsersWords) {
  EXPECT_FALSE(Check("m.json", "{\n  \"data\": {\n    fim: 1\n"));
  EXPECT_EQ(Printed(), "DIR/m.json:3:5: Missing a name for object member.\n");
}

TEST_F(ManifestCheckTest, AMissingFileIsAMistake) {
  EXPECT_FALSE(check_.Check(folder_ / "missing.json"));
  EXPECT_EQ(Printed(), "Failed to read manifest: DIR/missing.json\n");
}

TEST_F(ManifestCheckTest, AMissingElementIsToldAtItsObject) {
  EXPECT_FALSE(Check("m.json", R"({"data": {"fim": {"policyVersion": "1.0", "rules": []}}})"));
  EXPECT_EQ(Printed(), "DIR/m.json:1:18: Missing mandatory element: collectHashes (key data.fim)\n");
}

TEST_F(ManifestCheckTest, AManifestOfAnotherVersionWouldBeSkipped) {
  EXPECT_FALSE(Check("m.json", Manifest("", "2.0")));
  EXPECT_EQ(Printed(), "DIR/m.json:2:20: Unknown version [2.0] of FIM manifest. Skipping.\n");
}

TEST_F(ManifestCheckTest, IdsDifferOverAllFiles) {
  const std::string uuid = "5f0c6a3e-7f5d-4a53-9a0e-2b6d7f1c0a01";
  EXPECT_TRUE(Check("one.json", Manifest(Rule("r1", base_ + "/watched"))));
  EXPECT_FALSE(Check("two.json", Manifest(Rule("r1", base_ + "/watched"))));
  EXPECT_FALSE(Check("three.json",
                     Manifest(Rule(uuid + "-a", base_ + "/watched") + ",\n" + Rule(uuid + "-b", base_ + "/watched"))));
  const std::string printed = Printed();
  EXPECT_NE(printed.find("DIR/two.json:5:16: Rule id r1 is used more than once: the last rule holds\n"),
            std::string::npos)
      << printed;
  EXPECT_NE(printed.find("DIR/three.json:6:16: Rule id " + uuid + "-b does not differ from " + uuid +
                         "-a in its first characters\n"),
            std::string::npos)
      << printed;
}

TEST_F(ManifestCheckTest, AnIdThatTheKernelDoesNotTakeIsAMistake) {
  EXPECT_FALSE(Check("m.json", Manifest(Rule("a!=b", base_ + "/watched"))));
  EXPECT_EQ(Printed(), "DIR/m.json:5:16: Rule id a!=b is no key for the kernel: it holds an operator\n");
}

TEST_F(ManifestCheckTest, AnIdMayBeAsLongAsTheKernelTakesIt) {
  EXPECT_TRUE(Check("m.json", Manifest(Rule(std::string(256, 'a'), base_ + "/watched"))));
  EXPECT_FALSE(Check("n.json", Manifest(Rule(std::string(257, 'b'), base_ + "/watched"))));
  EXPECT_NE(Printed().find("DIR/n.json:5:16: Rule id " + std::string(257, 'b') +
                           " is no key for the kernel: it is longer than 256 bytes\n"),
            std::string::npos)
      << Printed();
}

TEST_F(ManifestCheckTest, TheIdOfALinkNeedsRoomForItsSuffix) {
  ASSERT_EQ(symlink("watched", (base_ + "/link").c_str()), 0);
  EXPECT_TRUE(Check("m.json", Manifest(Rule(std::string(254, 'a'), base_ + "/link"))));
  const std::string id(255, 'b');
  EXPECT_FALSE(Check("n.json", Manifest(Rule(id, base_ + "/link"))));
  EXPECT_NE(Printed().find("DIR/n.json:5:16: Rule id " + id + "-1 (of rule " + id +
                           ", which is on a link) is no key for the kernel: it is longer than 256 bytes\n"),
            std::string::npos)
      << Printed();
}

TEST_F(ManifestCheckTest, AnIdThatALinkGetsBesideItsOwnIsTaken) {
  ASSERT_EQ(symlink("watched", (base_ + "/link").c_str()), 0);
  EXPECT_FALSE(Check("one.json", Manifest(Rule("r1", base_ + "/link") + ",\n" + Rule("r1-1", base_ + "/watched"))));
  ManifestCheck other_way(out_);
  EXPECT_FALSE(other_way.Check(
      folder_.Write("two.json", Manifest(Rule("r1-1", base_ + "/watched") + ",\n" + Rule("r1", base_ + "/link")))));
  EXPECT_EQ(Printed(),
            "DIR/one.json:6:16: Rule id r1-1 is used more than once (of rule r1, which is on a link): the last rule "
            "holds\n"
            "DIR/two.json:6:16: Rule id r1-1 (of rule r1, which is on a link) is used more than once: the last rule "
            "holds\n");
}

TEST_F(ManifestCheckTest, ALongIdMayBeOnALink) {
  ASSERT_EQ(symlink("watched", (base_ + "/link").c_str()), 0);
  const std::string uuid = "5f0c6a3e-7f5d-4a53-9a0e-2b6d7f1c0a01";
  EXPECT_TRUE(Check("m.json", Manifest(Rule(uuid, base_ + "/link")))) << Printed();
  EXPECT_FALSE(Check("n.json", Manifest(Rule(uuid + "-1", base_ + "/watched"))));
}

TEST_F(ManifestCheckTest, ExtendedCoverageIsShownWhereItIsAskedFor) {
  ManifestCheck extended(out_, {.extended = true, .io_uring = true});
  EXPECT_TRUE(extended.Check(folder_.Write("m.json", Manifest(Rule("r1", base_ + "/watched")))));
  EXPECT_EQ(Printed(),
            "DIR/m.json: 1 rule, with digests\n"
            "  r1: -a always,exit -F dir=DIR/watched -F perm=r -F auid!=unset -F key=r1\n"
            "  r1: -a always,exit -F dir=DIR/watched -F perm=wa -F key=r1\n"
            "  r1: -a always,exit -F arch=b64 -S utime,utimes,futimesat,utimensat,open_by_handle_at,452 "
            "-F dir=DIR/watched -F key=r1\n"
            "  r1: -a always,exit -F arch=b64 -S open -F a1&0x240 -F dir=DIR/watched -F key=r1\n"
            "  r1: -a always,exit -F arch=b64 -S openat -F a2&0x240 -F dir=DIR/watched -F key=r1\n"
            "  r1: -a always,io_uring -S 18,28,35,36,37,38,39,41,42 -F dir=DIR/watched -F key=r1\n");
}

TEST_F(ManifestCheckTest, ALinkIsWatchedAsItselfAndAsWhatItLeadsTo) {
  ASSERT_EQ(symlink("watched", (base_ + "/link").c_str()), 0);
  EXPECT_TRUE(Check("m.json", Manifest(Rule("r1", base_ + "/link"))));
  const std::string printed = Printed();
  EXPECT_NE(printed.find("  r1: -a always,exit -F dir=DIR/watched -F perm=wa -F key=r1\n"), std::string::npos);
  EXPECT_NE(printed.find("  r1-1: -a always,exit -F dir=DIR/link -F perm=wa -F key=r1-1\n"), std::string::npos);
}

TEST_F(ManifestCheckTest, ALinkThatLeadsNowhereIsAWarning) {
  ASSERT_EQ(symlink("nowhere", (base_ + "/link").c_str()), 0);
  EXPECT_TRUE(Check("m.json", Manifest(Rule("r1", base_ + "/link"))));
  const std::string printed = Printed();
  EXPECT_NE(printed.find("DIR/m.json: warning: Cannot resolve symlink DIR/link\n"), std::string::npos) << printed;
  EXPECT_NE(printed.find("  r1-1: -a always,exit -F dir=DIR/link -F perm=wa -F key=r1-1\n"), std::string::npos);
  EXPECT_EQ(printed.find("  r1: "), std::string::npos) << "there is nothing to watch behind it";
}

TEST_F(ManifestCheckTest, WhatWorksButMayNotBeMeantIsAWarning) {
  EXPECT_TRUE(Check("m.json", Manifest(Rule("r1", base_ + "/not yet") + ",\n" +
                                       R"({"ruleId": "r2", "ruleType": "file", "imagePath": ")" + base_ +
                                       R"(/file", "notify": ["read"], "trackContentChange": true})")));
  const std::string printed = Printed();
  EXPECT_NE(printed.find("DIR/m.json: warning: Rule r1 is not in force here: there is no DIR/not yet\n"),
            std::string::npos)
      << printed;
  EXPECT_NE(printed.find("DIR/m.json: warning: Required actions like modifyContent, delete, rename, create are not "
                         "enabled so trackcontentchange cannot be enable for this rule: r2\n"),
            std::string::npos)
      << printed;
  EXPECT_EQ(printed.find("there is no DIR/\n"), std::string::npos) << "the file's folder is there";
}

TEST_F(ManifestCheckTest, AKeyThatNobodyReadsIsAWarning) {
  const std::string filters =
      R"(, "inclusionFilters": [{"actorProcess": ["vi"], "users": ["root"]}, {"inclusionFilter": {"actorUsername": ["a"], )"
      R"("pattern": ["x"]}, "note": ""}], "exclusionFilter": [])";
  EXPECT_TRUE(Check("m.json", Manifest(Rule("r1", base_ + "/watched", filters))));
  const std::string printed = Printed();
  for (const char* key : {"exclusionFilter)", "inclusionFilters[0].users)", "inclusionFilters[1].note)",
                          "inclusionFilters[1].inclusionFilter.pattern)"}) {
    EXPECT_NE(printed.find(std::string(": warning: Unknown key, which is passed over (rule r1, key ") + key),
              std::string::npos)
        << key << "\n"
        << printed;
  }
  EXPECT_EQ(printed.find("key actorProcess"), std::string::npos);
  EXPECT_EQ(printed.find("DIR/m.json:5:"), 0U) << "a warning of a key has its place";
}

TEST_F(ManifestCheckTest, ExclusionsBesideInclusionsAreAWarning) {
  const std::string both =
      R"(,
     "inclusionFilters": [{"actorUsername": ["alice"]}],
     "exclusionFilters": [{"actorProcess": []}])";
  const std::string one = R"(, "inclusionFilters": [], "exclusionFilters": [{"actorProcess": ["vi"]}])";
  EXPECT_TRUE(
      Check("m.json", Manifest(Rule("r1", base_ + "/watched", both) + ",\n" + Rule("r2", base_ + "/watched", one))));
  EXPECT_EQ(WarningsOf("m.json"),
            "DIR/m.json:7:26: warning: Not looked at, because the rule has inclusion filters "
            "(rule r1, key exclusionFilters)\n");
}

TEST_F(ManifestCheckTest, AnExclusionWithoutAConditionIsAWarning) {
  const std::string filters =
      R"(, "exclusionFilters": [
{"actorProcess": [], "actorUsername": []},
{"exclusionFilter": {"objectType": "file", "patterns": []}},
{"objectType": "directory", "patterns": [], "timespanStart": "01:00:00", "timespanEnd": "01:00:00"},
{"actorProcess": [], "actorUsername": ["root"]},
{"patterns": [], "objectType": "file", "timespanStart": "01:00:00", "timespanEnd": "02:00:00"}])";
  const std::string inclusion = R"(, "inclusionFilters": [{"actorProcess": []}])";
  EXPECT_TRUE(Check(
      "m.json", Manifest(Rule("r1", base_ + "/watched", filters) + ",\n" + Rule("r2", base_ + "/watched", inclusion))));
  EXPECT_EQ(WarningsOf("m.json"),
            "DIR/m.json:6:1: warning: Filter without a condition: it drops everything (rule r1, key "
            "exclusionFilters[0])\n"
            "DIR/m.json:7:21: warning: Filter without a condition: it drops everything that happens to files (rule r1, "
            "key exclusionFilters[1].exclusionFilter)\n"
            "DIR/m.json:8:1: warning: Filter without a condition: it drops everything (rule r1, key "
            "exclusionFilters[2])\n");
}

TEST_F(ManifestCheckTest, AMalformedGlobIsAWarning) {
  const std::string filters =
      R"(, "inclusionFilters": [
{"objectType": "file", "patterns": ["[abc]", "[!a-z]*", "\\[abc", "*]", "[\\]]", "[abc"]},
{"inclusionFilter": {"actorProcess": ["vi\\", "a\\\\"]}},
{"actorUsername": ["ali[ce-]"]}])";
  EXPECT_TRUE(Check("m.json", Manifest(Rule("r1", base_ + "/watched", filters))));
  const std::string warning = ": warning: Malformed glob, which does not match what it seems to (rule r1, key ";
  EXPECT_EQ(WarningsOf("m.json"), "DIR/m.json:6:82" + warning + "inclusionFilters[0].patterns[5])\n" +
                                      "DIR/m.json:7:39" + warning +
                                      "inclusionFilters[1].inclusionFilter.actorProcess[0])\n" + "DIR/m.json:8:20" +
                                      warning + "inclusionFilters[2].actorUsername[0])\n");
}

TEST_F(ManifestCheckTest, AFileThatIsTooLargeForAManifestIsNotRead) {
  const std::string path = folder_.Write("m.json", "");
  ASSERT_EQ(truncate(path.c_str(), 64L * 1024 * 1024 + 1), 0);
  EXPECT_FALSE(check_.Check(path));
  EXPECT_EQ(Printed(), "Failed to read manifest: DIR/m.json: it has more than 67108864 bytes\n");
}

TEST_F(ManifestCheckTest, TheExampleManifestIsGood) {
  EXPECT_TRUE(check_.Check(fakes::SourceTree() / "examples/fim-manifest.json")) << Printed();
}

}  // namespace
}  // namespace zagent::manifest_check

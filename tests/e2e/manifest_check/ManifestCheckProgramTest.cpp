// ostrel-manifest-check as who writes manifests runs it: arguments, what is printed where, and the exit code.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "tests/fakes/TempFolder.h"

namespace zagent::e2e {
namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

struct Outcome {
  int code = -1;
  std::string out;
  std::string err;
};

class ManifestCheckProgramTest : public testing::Test {
 protected:
  // Runs the program in the folder of this test.
  [[nodiscard]] Outcome Run(const std::vector<std::string>& arguments) const {
    std::string command = "cd '" + folder_.Path() + "' && '" OSTREL_MANIFEST_CHECK "'";
    for (const std::string& argument : arguments) command += " '" + argument + "'";
    const int status = std::system((command + " >out 2>err").c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, folder_.Read("out"), folder_.Read("err")};
  }
  void WriteManifest(const std::string& name, const std::string& rule_id, const std::string& notify = "create") const {
    folder_.Write(name, R"({"data": {"fim": {"policyVersion": "1.0", "collectHashes": false, "rules": [{"ruleId": ")" +
                            rule_id + R"(", "ruleType": "directory", "imagePath": "/", "recursiveDepth": "all", )" +
                            R"("notify": [")" + notify + "\"]}]}}}");
  }

  fakes::TempFolder folder_;
};

TEST_F(ManifestCheckProgramTest, GoodManifestsAreToldWithTheirKernelRulesAndCodeZero) {
  WriteManifest("one.json", "r1");
  WriteManifest("two.json", "r2");
  const Outcome outcome = Run({"one.json", "two.json"});
  EXPECT_EQ(outcome.code, 0);
  EXPECT_EQ(outcome.out,
            "one.json: 1 rule\n"
            "  r1: -a always,exit -F dir=/ -F perm=w -F key=r1\n"
            "two.json: 1 rule\n"
            "  r2: -a always,exit -F dir=/ -F perm=w -F key=r2\n");
  EXPECT_EQ(outcome.err, "");
}

TEST_F(ManifestCheckProgramTest, OneBadManifestAmongSeveralIsCodeOneAndAllAreJudged) {
  WriteManifest("one.json", "r1");
  WriteManifest("bad.json", "r2", "crate");
  WriteManifest("three.json", "r3");
  const Outcome outcome = Run({"one.json", "bad.json", "missing.json", "three.json"});
  EXPECT_EQ(outcome.code, 1);
  EXPECT_THAT(outcome.out, StartsWith("one.json: 1 rule\n"));
  EXPECT_THAT(outcome.out, HasSubstr(": Invalid Notify Flag (rule r2, key notify[0])\n"));
  EXPECT_THAT(outcome.out, HasSubstr("\nbad.json:1:"));
  EXPECT_THAT(outcome.out, HasSubstr("\nFailed to read manifest: missing.json\n"));
  EXPECT_THAT(outcome.out, HasSubstr("\nthree.json: 1 rule\n"));
  EXPECT_THAT(outcome.out, Not(HasSubstr("bad.json: 1 rule")));
}

TEST_F(ManifestCheckProgramTest, IdsDifferOverTheFilesOfOneCall) {
  WriteManifest("one.json", "r1");
  WriteManifest("two.json", "r1");
  EXPECT_EQ(Run({"one.json"}).code, 0);
  EXPECT_EQ(Run({"two.json"}).code, 0);
  EXPECT_EQ(Run({"one.json", "two.json"}).code, 1);
}

TEST_F(ManifestCheckProgramTest, AWarningLeavesCodeZero) {
  WriteManifest("one.json", R"(r1", "notfy": ["create"], "note": ")");
  const Outcome outcome = Run({"one.json"});
  EXPECT_EQ(outcome.code, 0) << outcome.out;
  EXPECT_THAT(outcome.out, HasSubstr(": warning: Unknown key, which is passed over (rule r1, key notfy)\n"));
}

TEST_F(ManifestCheckProgramTest, ExtendedCoverageIsShownBehindItsSwitch) {
  WriteManifest("one.json", "r1");
  const Outcome ordinary = Run({"one.json"});
  const Outcome extended = Run({"--extended-coverage", "one.json"});
  EXPECT_EQ(ordinary.code, 0);
  EXPECT_EQ(extended.code, 0);
  EXPECT_THAT(ordinary.out, Not(HasSubstr("io_uring")));
  EXPECT_THAT(extended.out, HasSubstr("  r1: -a always,io_uring "));
  EXPECT_THAT(extended.out, HasSubstr("  r1: -a always,exit -F dir=/ -F perm=w -F key=r1\n"));
}

TEST_F(ManifestCheckProgramTest, WithoutAFileItTellsItsUsageAndCodeOne) {
  for (const std::vector<std::string>& arguments : {std::vector<std::string>{}, {"--extended-coverage"}}) {
    const Outcome outcome = Run(arguments);
    EXPECT_EQ(outcome.code, 1);
    EXPECT_EQ(outcome.out, "");
    EXPECT_THAT(outcome.err, StartsWith("Usage: ostrel-manifest-check [--extended-coverage] FILE...\n"));
  }
}

TEST_F(ManifestCheckProgramTest, ItsUsageMayBeAskedFor) {
  const Outcome outcome = Run({"--help"});
  EXPECT_EQ(outcome.code, 0);
  EXPECT_THAT(outcome.out, StartsWith("Usage: ostrel-manifest-check "));
  EXPECT_EQ(outcome.err, "");
}

}  // namespace
}  // namespace zagent::e2e

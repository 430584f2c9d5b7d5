#include "src/fim/EventRuleManager.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "tests/fakes/FakeEvent.h"
#include "tests/fakes/FakeHealthReporter.h"
#include "tests/fakes/FakeRuleEngine.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TempFolder.h"
#include "tests/src/fim/TestConfig.h"

namespace zagent::fim::internal {
namespace {

using Installed = std::map<std::string, std::string>;

class EventRuleManagerTest : public testing::Test {
 protected:
  static std::string Rule(const std::string& id, const std::string& path) {
    return R"({"ruleId":")" + id + R"(","ruleType":"directory","imagePath":")" + path +
           R"(","recursiveDepth":"all","notify":["create"]})";
  }
  // Writes a manifest of these rules and gives its path.
  std::string WriteManifest(const std::string& name, const std::string& rules, bool hashes = false,
                            const std::string& version = "1.0") {
    return folder_.Write(name, R"({"data":{"fim":{"policyVersion":")" + version + R"(","collectHashes":)" +
                                   (hashes ? "true" : "false") + R"(,"rules":[)" + rules + "]}}}");
  }
  static std::unique_ptr<Config> ConfigOf(const std::vector<std::string>& manifests) {
    TestSection section;
    section.manifests = manifests;
    return MakeConfig(section);
  }
  void Make(const std::vector<std::string>& manifests) {
    manager_ = std::make_unique<EventRuleManager>(
        *ConfigOf(manifests), engine_, table_, health_,
        [this](const std::vector<std::string>& ids, const edr::Event&) { delivered_ = ids; });
  }
  [[nodiscard]] Installed InEngine() const { return engine_.Installed("FIM"); }

  fakes::LogCapture log_;
  fakes::TempFolder folder_;
  fakes::FakeRuleEngine engine_;
  RuleTable table_;
  fakes::FakeHealthReporter reporter_;
  const health::ComponentHealth health_{reporter_, health::ComponentHealth::Kind::Fim};
  std::vector<std::string> delivered_;
  std::unique_ptr<EventRuleManager> manager_;
};

TEST_F(EventRuleManagerTest, RulesOfAllManifestsReachTheEngineAndTheTable) {
  const std::string one = WriteManifest("one.json", Rule("r1", "/etc"));
  const std::string two = WriteManifest("two.json", Rule("r2", "/srv"));
  Make({one, two});
  EXPECT_EQ(InEngine(), (Installed{{"r1", "/etc"}, {"r2", "/srv"}}));
  ASSERT_NE(manager_->GetRule("r1"), nullptr);
  EXPECT_EQ(manager_->GetRule("r1")->GetPath(), "/etc");
  EXPECT_EQ(manager_->GetRule("r3"), nullptr);
  EXPECT_TRUE(log_.Has("[FIM]: Successfully parsed manifest file " + one));
  EXPECT_TRUE(log_.Has("[FIM]: Adding rule r1"));
}

TEST_F(EventRuleManagerTest, HandlersAreInPlaceBeforeTheRules) {
  engine_.BeforeNextAdd([this] { engine_.Deliver("FIM", {"early"}, fakes::FakeEvent()); });
  Make({WriteManifest("one.json", Rule("r1", "/etc"))});
  EXPECT_EQ(delivered_, std::vector<std::string>{"early"});
}

TEST_F(EventRuleManagerTest, WithoutManifestsTheEngineIsNotAsked) {
  Make({});
  EXPECT_TRUE(engine_.Calls().empty());
  EXPECT_TRUE(log_.Has("[FIM]: EventRuleManager: No rules to be added."));
}

TEST_F(EventRuleManagerTest, ABadManifestIsSkippedAndTheOthersApply) {
  const std::string missing = folder_ / "missing.json";
  const std::string broken = folder_.Write("broken.json", "{");
  const std::string malformed = folder_.Write("malformed.json", R"({"data":{}})");
  Make({missing, broken, malformed, WriteManifest("good.json", Rule("r1", "/etc"))});
  EXPECT_EQ(InEngine(), (Installed{{"r1", "/etc"}}));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "[FIM]: Failed to read manifest: " + missing));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "[FIM]: Invalid manifest json format for: " + broken));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "[FIM]: Failed to parse manifest " + malformed +
                                                      ": line 1, column 9: Missing mandatory element: fim (key data)"));
}

TEST_F(EventRuleManagerTest, OfManyMistakesOneLineTellsTheFirstAndHowManyMoreThereAre) {
  const std::string bad = WriteManifest("bad.json", "{}, " + Rule("r1", "etc"));
  Make({bad});
  EXPECT_EQ(log_.Count("Failed to parse manifest " + bad), 1);
  EXPECT_TRUE(
      log_.Has(Poco::Message::PRIO_ERROR, ": Missing mandatory element: ruleId (key data.fim.rules[0]) (and 1 more)"))
      << log_.All();
}

// Whatever stands behind it in the list.
TEST_F(EventRuleManagerTest, OneManifestWithRulesIsEnoughToKeepThoseOfABadOne) {
  const std::string one = WriteManifest("one.json", Rule("r1", "/etc"));
  Make({one});
  folder_.Write("one.json", "{");
  const std::string good = WriteManifest("good.json", Rule("r2", "/srv"));
  manager_->Update(*ConfigOf({good, WriteManifest("empty.json", ""), one}));
  EXPECT_EQ(InEngine(), (Installed{{"r1", "/etc"}, {"r2", "/srv"}}));
}

TEST_F(EventRuleManagerTest, AManifestThatTurnsBadKeepsTheRulesThatItHad) {
  const std::string one = WriteManifest("one.json", Rule("r1", "/etc"), true);
  const std::string two = WriteManifest("two.json", Rule("r2", "/srv"));
  Make({one, two});
  folder_.Write("one.json", R"({"data":{"fim":{"policyVersion":"1.0","collectHashes":false,"rules":[{}]}}})");
  const std::string three = WriteManifest("three.json", Rule("r3", "/opt"));
  manager_->Update(*ConfigOf({one, three}));
  EXPECT_EQ(InEngine(), (Installed{{"r1", "/etc"}, {"r3", "/opt"}}));
  EXPECT_TRUE(table_.CollectsHashes());
  EXPECT_EQ(log_.Count("Failed to parse manifest " + one), 1);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_INFORMATION, "[FIM]: Keeping the earlier rules of manifest " + one));

  // Bad once more, and gone now: it is the last good state that counts.
  ASSERT_EQ(unlink(one.c_str()), 0);
  manager_->Update(*ConfigOf({one, two}));
  EXPECT_EQ(InEngine(), (Installed{{"r1", "/etc"}, {"r2", "/srv"}}));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "[FIM]: Failed to read manifest: " + one));

  manager_->Update(*ConfigOf({two}));
  EXPECT_EQ(InEngine(), (Installed{{"r2", "/srv"}})) << "it is not named any more";
}

TEST_F(EventRuleManagerTest, ABadManifestThatNeverHadRulesHasNoneToKeep) {
  const std::string bad = folder_.Write("bad.json", "{");
  Make({bad});
  manager_->Update(*ConfigOf({bad, WriteManifest("good.json", Rule("r1", "/etc"))}));
  EXPECT_EQ(InEngine(), (Installed{{"r1", "/etc"}}));
  EXPECT_FALSE(log_.Has("Keeping the earlier rules"));
}

TEST_F(EventRuleManagerTest, AnUpdateThatGivesNoRulesTakesTheKeptOnesAwayToo) {
  const std::string one = WriteManifest("one.json", Rule("r1", "/etc"));
  Make({one});
  folder_.Write("one.json", "{");
  const std::string empty = WriteManifest("empty.json", "");
  manager_->Update(*ConfigOf({one, empty}));
  EXPECT_TRUE(InEngine().empty());
  EXPECT_EQ(manager_->GetRule("r1"), nullptr);
  // And they do not come back with a later update.
  manager_->Update(*ConfigOf({one, WriteManifest("two.json", Rule("r2", "/srv"))}));
  EXPECT_EQ(InEngine(), (Installed{{"r2", "/srv"}}));
}

TEST_F(EventRuleManagerTest, AManifestOfAnotherVersionIsNoBadOneAndLosesItsRules) {
  const std::string one = WriteManifest("one.json", Rule("r1", "/etc"));
  Make({one});
  WriteManifest("one.json", Rule("r1", "/etc"), false, "2.0");
  manager_->Update(*ConfigOf({one, WriteManifest("two.json", Rule("r2", "/srv"))}));
  EXPECT_EQ(InEngine(), (Installed{{"r2", "/srv"}}));
}

TEST_F(EventRuleManagerTest, AManifestOfAMillionBracketsIsOnlyABadManifest) {
  const std::string deep = folder_.Write("deep.json", std::string(1'000'000, '['));
  Make({deep});
  EXPECT_TRUE(log_.Has("Invalid manifest json format for: " + deep));
}

TEST_F(EventRuleManagerTest, AManifestMayBeLargeButNotWithoutAnEnd) {
  const std::string path = WriteManifest("m.json", Rule("r1", "/etc"));
  std::ofstream(path, std::ios::app) << std::string(64 * 1024 * 1024 - std::filesystem::file_size(path), ' ');
  Make({path});
  EXPECT_EQ(InEngine(), (Installed{{"r1", "/etc"}}));
  manager_.reset();
  std::ofstream(path, std::ios::app) << ' ';
  Make({path});
  EXPECT_TRUE(InEngine().empty());
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR,
                       "[FIM]: Failed to read manifest: " + path + ": it has more than 67108864 bytes"));
  EXPECT_EQ(log_.Count("Failed to read manifest"), 1);
}

TEST_F(EventRuleManagerTest, AManifestOfAnotherVersionYieldsNoRules) {
  Make({WriteManifest("two.json", Rule("r1", "/etc"), false, "2.0")});
  EXPECT_TRUE(engine_.Calls().empty());
  EXPECT_TRUE(log_.Has("Unknown version [2.0] of FIM manifest. Skipping."));
}

TEST_F(EventRuleManagerTest, ALinkIsWatchedAsItselfAndAsWhatItPointsTo) {
  const std::string target = folder_ / "target";
  const std::string link = folder_ / "link";
  ASSERT_EQ(mkdir(target.c_str(), 0700), 0);
  ASSERT_EQ(symlink("target", link.c_str()), 0);
  Make({WriteManifest("one.json", Rule("r1", link))});
  EXPECT_EQ(InEngine(), (Installed{{"r1-1", link}, {"r1", target}}));
  EXPECT_EQ(manager_->GetRule("r1-1")->GetReportId(), "r1");
  EXPECT_EQ(manager_->GetRule("r1")->GetReportId(), "r1");
  EXPECT_TRUE(log_.Has("[FIM]: Adding symlink rule r1"));
  EXPECT_TRUE(log_.Has("[FIM]: Adding resolved rule r1 with path " + target));
}

TEST_F(EventRuleManagerTest, OfADanglingLinkOnlyTheLinkIsWatched) {
  const std::string link = folder_ / "link";
  ASSERT_EQ(symlink("nowhere", link.c_str()), 0);
  Make({WriteManifest("one.json", Rule("r1", link))});
  EXPECT_EQ(InEngine(), (Installed{{"r1-1", link}}));
  EXPECT_TRUE(log_.Has("[FIM]: Cannot resolve symlink"));
}

TEST_F(EventRuleManagerTest, APathBehindALinkIsWatchedAsItIsWrittenAndAsItIsMeant) {
  const std::string base = std::filesystem::canonical(folder_.Path());
  std::filesystem::create_directories(base + "/real/sub");
  ASSERT_EQ(symlink("real", (base + "/link").c_str()), 0);
  Make({WriteManifest("m.json", Rule("r1", base + "/link/sub"))});
  EXPECT_EQ(InEngine(), (Installed{{"r1-1", base + "/link/sub"}, {"r1", base + "/real/sub"}}));
  EXPECT_EQ(manager_->GetRule("r1-1")->GetReportId(), "r1");
  EXPECT_TRUE(log_.Has("[FIM]: Adding resolved rule r1 with path " + base + "/real/sub"));
}

TEST_F(EventRuleManagerTest, SoIsAPathBehindALinkThatIsStillToCome) {
  const std::string base = std::filesystem::canonical(folder_.Path());
  std::filesystem::create_directories(base + "/real");
  ASSERT_EQ(symlink("real", (base + "/link").c_str()), 0);
  Make({WriteManifest("m.json", Rule("r1", base + "/link/not/yet"))});
  EXPECT_EQ(InEngine(), (Installed{{"r1-1", base + "/link/not/yet"}, {"r1", base + "/real/not/yet"}}));
}

TEST_F(EventRuleManagerTest, APathThatIsOnlyWrittenOddlyIsOneRule) {
  const std::string base = std::filesystem::canonical(folder_.Path());
  std::filesystem::create_directories(base + "/real");
  Make({WriteManifest("m.json", Rule("r1", base + "//./real/"))});
  EXPECT_EQ(InEngine(), (Installed{{"r1", base + "/real"}}));
}

TEST_F(EventRuleManagerTest, APathThatCannotBeLookedAtIsTakenForNoLink) {
  const std::string long_name = "/srv/" + std::string(300, 'x');
  const std::string below_a_file = folder_.Write("file", "") + "/x";
  Make({WriteManifest("one.json",
                      Rule("long", long_name) + "," + Rule("below", below_a_file) + "," + Rule("good", "/etc"))});
  EXPECT_EQ(InEngine(), (Installed{{"long", long_name}, {"below", below_a_file}, {"good", "/etc"}}));
}

TEST_F(EventRuleManagerTest, AnIdThatIsUsedTwiceIsLogged) {
  Make({WriteManifest("one.json", Rule("r1", "/etc") + "," + Rule("r1", "/srv"))});
  EXPECT_EQ(InEngine(), (Installed{{"r1", "/srv"}}));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_WARNING, "Rule id r1 is used more than once"));
}

TEST_F(EventRuleManagerTest, HashesAreCollectedWhenAnyManifestAsks) {
  Make({WriteManifest("one.json", Rule("r1", "/etc"))});
  EXPECT_FALSE(table_.CollectsHashes());
  manager_->Update(*ConfigOf({folder_ / "one.json", WriteManifest("two.json", Rule("r2", "/srv"), true)}));
  EXPECT_TRUE(table_.CollectsHashes());
}

TEST_F(EventRuleManagerTest, AnUpdateWithTheSameManifestsDoesNothing) {
  const std::string one = WriteManifest("one.json", Rule("r1", "/etc"));
  const std::string two = WriteManifest("two.json", Rule("r2", "/srv"));
  Make({one, two});
  WriteManifest("one.json", Rule("r9", "/opt"));  // new content under the old path is not seen
  manager_->Update(*ConfigOf({two, one}));
  EXPECT_EQ(engine_.Calls().size(), 1U);
  EXPECT_NE(manager_->GetRule("r1"), nullptr);
}

TEST_F(EventRuleManagerTest, AnUpdateReplacesTheRules) {
  Make({WriteManifest("one.json", Rule("r1", "/etc") + "," + Rule("r2", "/srv"))});
  manager_->Update(*ConfigOf({WriteManifest("two.json", Rule("r2", "/opt"))}));
  EXPECT_EQ(InEngine(), (Installed{{"r2", "/opt"}}));
  EXPECT_EQ(manager_->GetRule("r1"), nullptr);
}

TEST_F(EventRuleManagerTest, ARuleInUseOutlivesItsReplacement) {
  Make({WriteManifest("one.json", Rule("r1", "/etc"))});
  const std::shared_ptr<const EventRule> in_flight = manager_->GetRule("r1");
  manager_->Update(*ConfigOf({WriteManifest("two.json", Rule("r1", "/opt"))}));
  EXPECT_EQ(in_flight->GetPath(), "/etc");
}

TEST_F(EventRuleManagerTest, AnUpdateThatLeavesNoRulesTakesThemOffTheEngine) {
  Make({WriteManifest("one.json", Rule("r1", "/etc"))});
  manager_->Update(*ConfigOf({folder_ / "missing.json"}));
  ASSERT_EQ(engine_.Calls().size(), 2U);
  EXPECT_TRUE(InEngine().empty());
  EXPECT_TRUE(log_.Has("No rules to be added."));
}

TEST_F(EventRuleManagerTest, DisablingTakesTheRulesAwayOnceAndALaterUpdateBringsThemBack) {
  const std::string one = WriteManifest("one.json", Rule("r1", "/etc"));
  Make({one});
  manager_->Disable();
  manager_->Disable();
  EXPECT_EQ(engine_.Calls().size(), 2U);
  EXPECT_TRUE(InEngine().empty());
  EXPECT_EQ(manager_->GetRule("r1"), nullptr);
  manager_->Update(*ConfigOf({one}));
  EXPECT_EQ(InEngine(), (Installed{{"r1", "/etc"}}));
}

TEST_F(EventRuleManagerTest, AnEngineThatHasLostItsRulesGetsThemAgain) {
  Make({WriteManifest("one.json", Rule("r1", "/etc"))});
  engine_.Invalidate();
  ASSERT_EQ(engine_.Calls().size(), 2U);
  EXPECT_EQ(InEngine(), (Installed{{"r1", "/etc"}}));
}

TEST_F(EventRuleManagerTest, AnUpdateThatComesInBetweenIsTheLastToReachTheEngine) {
  Make({WriteManifest("one.json", Rule("r1", "/etc"))});
  const auto newer = ConfigOf({WriteManifest("two.json", Rule("r2", "/srv"))});
  // The engine has lost its rules; while it takes the old set again, the configuration changes.
  engine_.BeforeNextAdd([&] { manager_->Update(*newer); });
  engine_.Invalidate();
  EXPECT_EQ(InEngine(), (Installed{{"r2", "/srv"}}));
}

TEST_F(EventRuleManagerTest, AnEngineThatFailsIsLoggedAndGetsTheRulesLater) {
  engine_.FailAdds("Failed to open audit socket");
  Make({WriteManifest("one.json", Rule("r1", "/etc"))});
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "Failed to apply rules: Failed to open audit socket"));
  EXPECT_NE(manager_->GetRule("r1"), nullptr);
  engine_.FailAdds("");
  engine_.Invalidate();
  EXPECT_EQ(engine_.Calls().size(), 2U);
}

TEST_F(EventRuleManagerTest, ItsEndTakesHandlersAndRulesOffTheEngine) {
  Make({WriteManifest("one.json", Rule("r1", "/etc"))});
  manager_.reset();
  EXPECT_TRUE(InEngine().empty());
  engine_.Deliver("FIM", {"late"}, fakes::FakeEvent());
  EXPECT_TRUE(delivered_.empty());
}

TEST_F(EventRuleManagerTest, TellsWhatBecameOfEachManifest) {
  const std::string good = WriteManifest("good.json", Rule("r1", "/etc"));
  const std::string broken = folder_.Write("broken.json", "{ no json");
  const std::string missing = folder_ / "missing.json";
  const std::string empty = folder_.Write("empty.json", "{}");
  Make({good, broken, missing, empty});
  const auto lines = reporter_.Lines();
  ASSERT_EQ(lines.size(), 4U);
  EXPECT_EQ(lines[0], "4002 " + broken + " 0 manifest=failed reason=Invalid manifest json format for: " + broken +
                          ": line 1, column 3: Missing a name for object member.");
  EXPECT_EQ(lines[1].find("4002 " + empty + " 0 manifest=failed reason="), 0U) << lines[1];
  EXPECT_EQ(lines[2], "4002 " + good + " 1 manifest=applied");
  EXPECT_EQ(lines[3], "4002 " + missing + " 0 manifest=failed reason=Failed to read manifest: " + missing);
}

TEST_F(EventRuleManagerTest, AManifestOfAnUnknownVersionIsToldAsFailed) {
  const std::string manifest = WriteManifest("two.json", Rule("r1", "/etc"), false, "2.0");
  Make({manifest});
  EXPECT_EQ(reporter_.Lines(),
            std::vector<std::string>{"4002 " + manifest + " 0 manifest=failed reason=unknown version 2.0"});
}

TEST_F(EventRuleManagerTest, ARefusedRuleFailsItsOwnManifestAlone) {
  const std::string one = WriteManifest("one.json", Rule("r1", "/etc") + "," + Rule("r2", "/usr"));
  const std::string two = WriteManifest("two.json", Rule("r3", "/srv"));
  engine_.RefuseRule("r2");
  Make({one, two});
  EXPECT_EQ(reporter_.Lines(), (std::vector<std::string>{
                                   "4002 " + one + " 0 manifest=failed reason=rule r2 not applied: the kernel refuses",
                                   "4002 " + two + " 1 manifest=applied"}));
  engine_.RefuseRule("");
  engine_.Invalidate();
  EXPECT_EQ(reporter_.Lines().back(), "4002 " + two + " 1 manifest=applied");
  EXPECT_EQ(reporter_.Lines()[2], "4002 " + one + " 1 manifest=applied");
}

TEST_F(EventRuleManagerTest, ARefusedRuleOnALinkFailsTheManifestThatItCameFrom) {
  std::filesystem::create_directory(folder_ / "real");
  std::filesystem::create_symlink(folder_ / "real", folder_ / "link");
  const std::string one = WriteManifest("one.json", Rule("r1", folder_ / "link"));
  const std::string two = WriteManifest("two.json", Rule("r2", "/srv"));
  engine_.RefuseRule("r1-1");
  Make({one, two});
  EXPECT_EQ(reporter_.Lines()[0],
            "4002 " + one + " 0 manifest=failed reason=rule r1-1 not applied: the kernel refuses");
  EXPECT_EQ(reporter_.Lines()[1], "4002 " + two + " 1 manifest=applied");
}

TEST_F(EventRuleManagerTest, AManifestThatTheEngineRefusedIsAppliedWhenItIsTakenLater) {
  const std::string good = WriteManifest("good.json", Rule("r1", "/etc"));
  engine_.FailAdds("no kernel");
  Make({good});
  EXPECT_EQ(reporter_.Lines().back(), "4002 " + good + " 0 manifest=failed reason=rules not applied: no kernel");
  engine_.FailAdds("");
  engine_.Invalidate();
  EXPECT_EQ(reporter_.Lines().back(), "4002 " + good + " 1 manifest=applied");
}

TEST_F(EventRuleManagerTest, WhatIsWrongInAManifestIsToldWhenTheEngineFailsToo) {
  const std::string good = WriteManifest("good.json", Rule("r1", "/etc"));
  const std::string missing = folder_ / "missing.json";
  engine_.FailAdds("no kernel");
  Make({good, missing});
  EXPECT_EQ(
      reporter_.Lines(),
      (std::vector<std::string>{"4002 " + good + " 0 manifest=failed reason=rules not applied: no kernel",
                                "4002 " + missing + " 0 manifest=failed reason=Failed to read manifest: " + missing}));
}

}  // namespace
}  // namespace zagent::fim::internal

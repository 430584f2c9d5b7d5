#include "src/ioc/rules/EventRuleManager.h"

#include <atomic>
#include <climits>
#include <filesystem>
#include <thread>

#include "tests/fakes/FakeHealthReporter.h"
#include "tests/fakes/FakeRuleEngine.h"
#include "tests/fakes/TempFolder.h"
#include "tests/src/ioc/rules/RulesFixture.h"

namespace zagent::ioc::internal {
namespace {

class IocEventRuleManagerTest : public RulesFixture {
 protected:
  std::string WriteManifest(const std::string& name, const std::string& rules, const std::string& settings = "{}",
                            const std::string& more = "") {
    return folder_.Write(name, R"({"policyVersion":"2.0.0","policyId":1,"productId":1,"globalSettings":)" + settings +
                                   more + R"(,"rules":[)" + rules + "]}");
  }
  static std::string Rule(const std::string& id, const std::string& path) {
    return DirectoryRuleText().With("ruleId", "\"" + id + "\"").With("imagePath", "\"" + path + "\"").Text();
  }
  void SetManifests(const std::vector<std::string>& manifests) {
    section_.manifests = manifests;
    config_->Update(ParsedJson(section_.Text()));
  }
  void Make(const std::vector<std::string>& manifests) {
    section_.manifests = manifests;
    config_ = std::make_unique<Config>(*common_, ParsedJson(section_.Text()));
    manager_ = std::make_unique<EventRuleManager>(*config_, engine_, *tree_, health_);
    engine_.RegisterEventHandlers(
        "IOC", [](const std::vector<std::string>&, const edr::Event&) {}, [this] { manager_->OnRulesInvalidated(); });
  }
  // Ids of the rules that the engine got last.
  std::string InEngine() {
    std::string ids;
    const auto calls = engine_.Calls();
    if (calls.empty()) return "no call";
    for (const auto& rule : calls.back().rules) ids += rule->GetId() + " ";
    return ids;
  }
  [[nodiscard]] std::string InManager() const {
    std::string ids;
    for (const auto& rule : manager_->GetRules()) ids += rule->GetId() + " ";
    return ids;
  }
  [[nodiscard]] bool HealthSays(const std::string& path, const std::string& what) const {
    for (const std::string& line : reporter_.Lines()) {
      if (line.find(path) != std::string::npos && line.find(what) != std::string::npos) return true;
    }
    return false;
  }

  fakes::LogCapture log_;
  fakes::TempFolder folder_;
  fakes::FakeRuleEngine engine_;
  fakes::FakeHealthReporter reporter_;
  const health::ComponentHealth health_{reporter_, health::ComponentHealth::Kind::Ioc};
  TestSection section_;
  std::unique_ptr<common::CommonConfig> common_ = MakeCommonConfig();
  std::unique_ptr<Config> config_;
  std::unique_ptr<EventRuleManager> manager_;
};

TEST_F(IocEventRuleManagerTest, RulesOfAllManifestsReachTheEngineUnderTheTag) {
  const std::string one = WriteManifest("one.json", Rule("r2", "/etc") + "," + ProcessRuleText().Text());
  const std::string two = WriteManifest("two.json", Rule("r1", "/srv") + "," + WhitelistRuleText().Text());
  Make({one, two});
  ASSERT_EQ(engine_.Calls().size(), 1U);
  EXPECT_EQ(engine_.Calls()[0].tag, "IOC");
  EXPECT_EQ(InEngine(), "p1 r1 r2 ");
  EXPECT_EQ(InManager(), "p1 r1 r2 ");
  ASSERT_EQ(manager_->GetWhitelistGlobalRules().size(), 1U) << "a trusted program is no matter of the engine";
  EXPECT_EQ(manager_->GetWhitelistGlobalRules()[0]->GetId(), "w1");
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_INFORMATION, "[IOC]: Successfully parsed manifest file " + one));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG, "[IOC]: Adding rule r2"));
  EXPECT_TRUE(HealthSays(one, "manifest=applied")) << reporter_.Lines().front();
  EXPECT_TRUE(HealthSays(two, "manifest=applied"));
}

TEST_F(IocEventRuleManagerTest, AManagerWithoutRulesIsAManager) {
  Make({});
  EXPECT_EQ(InEngine(), "");
  EXPECT_TRUE(manager_->GetRules().empty());
  EXPECT_TRUE(manager_->IsHeuristicsEnabled());
  EXPECT_FALSE(manager_->GetSendMetadata());
  EXPECT_TRUE(manager_->GetKnownProcessPaths().empty());
  EXPECT_TRUE(manager_->GetTaggingSettings()->ObjectEmpty());
  EXPECT_FALSE(manager_->HasGatewayUrl());
  EXPECT_EQ(fakes::WhatOf<std::runtime_error>([&] { (void)manager_->GetGatewayUrl(); }),
            "EventRuleManager: Gateway URL does not exist");
}

TEST_F(IocEventRuleManagerTest, ABadManifestIsSkippedAndTheOthersApply) {
  const std::string missing = folder_ / "missing.json";
  const std::string broken = folder_.Write("broken.json", "{\n  7");
  const std::string old = folder_.Write(
      "old.json", R"({"policyVersion":"1.9.9","policyId":1,"productId":1,"globalSettings":{},"rules":[]})");
  const std::string typed = WriteManifest("typed.json", "", R"({"gateway_url":7})");
  const std::string malformed = WriteManifest("malformed.json", Rule("r1", ""));
  const std::string good = WriteManifest("good.json", Rule("r2", "/etc"));
  Make({missing, broken, old, typed, malformed, good});
  EXPECT_EQ(InEngine(), "r2 ");
  const auto is_told = [this](const std::string& line) {
    return log_.Has(Poco::Message::PRIO_ERROR, "[IOC]: " + line);
  };
  EXPECT_TRUE(is_told("Failed to read manifest: " + missing));
  EXPECT_TRUE(is_told("Invalid manifest json format for: " + broken + ": line 2, column 3: "));
  EXPECT_TRUE(is_told("Failed to parse manifest " + old +
                      ": line 1, column 18: Parsing failed. Unsupported manifest version provided"));
  EXPECT_TRUE(is_told("Failed to parse manifest " + typed +
                      ": line 1, column 85: Invalid value in manifest for gateway_url: expected a string (key "
                      "globalSettings.gateway_url)"));
  EXPECT_EQ(log_.Count("gateway_url"), 1) << "one line a manifest";
  EXPECT_TRUE(is_told("Empty Rule Path for id:r1 (rule r1, key imagePath)"));
  EXPECT_TRUE(is_told("Failed to parse manifest " + malformed));
  EXPECT_TRUE(log_.Has("Rule parsing failed: Empty Rule Path for id:r1 (rule r1, key imagePath)"));
  for (const std::string& bad : {missing, broken, old, typed, malformed}) {
    EXPECT_TRUE(HealthSays(bad, "manifest=failed")) << bad;
  }
  EXPECT_TRUE(HealthSays(good, "manifest=applied"));
}

TEST_F(IocEventRuleManagerTest, ARuleWhosePathNothingCanHaveIsLeftOutAndTheOthersApply) {
  const std::string too_long = "/" + std::string(PATH_MAX, 'x');
  const std::string one = WriteManifest("one.json", Rule("r1", "etc") + "," + Rule("r2", "/etc"));
  const std::string two = WriteManifest("two.json", Rule("r3", too_long) + "," + ProcessRuleText().Text());
  const std::string three = WriteManifest("three.json", WhitelistRuleText().With("imagePath", R"("apt")").Text());
  Make({one, two, three});
  EXPECT_EQ(InEngine(), "p1 r2 ");
  EXPECT_EQ(InManager(), "p1 r2 ");
  EXPECT_TRUE(manager_->GetWhitelistGlobalRules().empty());
  const auto is_told_once = [this](const std::string& manifest, const std::string& text) {
    return log_.Has(Poco::Message::PRIO_ERROR, "[IOC]: EventRuleManager: " + manifest + ": " + text) &&
           log_.Count(text) == 1 && HealthSays(manifest, "manifest=failed") && HealthSays(manifest, text);
  };
  EXPECT_TRUE(is_told_once(one, "rule r1 not applied: its path is not absolute"));
  EXPECT_TRUE(is_told_once(two, "rule r3 not applied: its path is too long"));
  EXPECT_TRUE(is_told_once(three, "rule w1 not applied: its path is not absolute"));
}

TEST_F(IocEventRuleManagerTest, ARuleThatIsLeftOutReplacesTheEarlierOneOfItsIdAllTheSame) {
  const std::string one = WriteManifest("one.json", Rule("r1", "/etc"));
  const std::string two = WriteManifest("two.json", Rule("r1", "etc"));
  Make({one, two});
  EXPECT_EQ(InManager(), "");
  EXPECT_TRUE(HealthSays(one, "manifest=applied"));
  EXPECT_TRUE(HealthSays(two, "manifest=failed"));
}

TEST_F(IocEventRuleManagerTest, AHugeFileIsNotRead) {
  const std::string huge = folder_.Write("huge.json", "");
  ASSERT_EQ(truncate(huge.c_str(), 64LL * 1024 * 1024 + 1), 0);
  Make({huge});
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR,
                       "[IOC]: Failed to read manifest: " + huge + ": it has more than 67108864 bytes"));
}

TEST_F(IocEventRuleManagerTest, OfTwoRulesWithOneIdTheLaterHolds) {
  Make({WriteManifest("one.json", Rule("r1", "/etc")), WriteManifest("two.json", Rule("r1", "/srv"))});
  ASSERT_EQ(manager_->GetRules().size(), 1U);
  EXPECT_EQ(manager_->GetRules()[0]->GetPath(), "/srv");
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_WARNING, "Rule id r1 is used more than once: the last rule holds"));
}

TEST_F(IocEventRuleManagerTest, OfSettingsThatTwoManifestsGiveTheLaterHold) {
  const std::string one =
      WriteManifest("one.json", "", R"({"gateway_url":"https://one","sendMetadata":true})",
                    R"(,"knownProcessPaths":["/a"],"tags":{"thresholdScore":1},"heuristicsEnabled":false)");
  const std::string two = WriteManifest("two.json", "", "{}", R"(,"knownProcessPaths":["/b"])");
  Make({one});
  EXPECT_TRUE(manager_->GetSendMetadata());
  EXPECT_FALSE(manager_->IsHeuristicsEnabled());
  EXPECT_EQ(manager_->GetKnownProcessPaths(), std::vector<std::string>{"/a"});
  EXPECT_EQ(common::util::WriteJson(*manager_->GetTaggingSettings()), R"({"thresholdScore":1})");
  Make({one, two});
  EXPECT_FALSE(manager_->GetSendMetadata());
  EXPECT_TRUE(manager_->IsHeuristicsEnabled());
  EXPECT_EQ(manager_->GetKnownProcessPaths(), std::vector<std::string>{"/b"});
  EXPECT_TRUE(manager_->GetTaggingSettings()->ObjectEmpty());
  EXPECT_EQ(manager_->GetGatewayUrl(), "https://one") << "the last one that is given";
}

TEST_F(IocEventRuleManagerTest, ALinkIsWatchedAsItIsWrittenAndAsItIsMeant) {
  const std::string base = std::filesystem::canonical(folder_.Path());
  std::filesystem::create_directory(base + "/real");
  std::filesystem::create_directory_symlink("real", base + "/link");
  std::filesystem::create_symlink("nowhere", base + "/dangling");
  Make({WriteManifest("one.json", Rule("r1", base + "/link") + "," + Rule("r2", base + "/dangling") + "," +
                                      Rule("r3", base + "/real"))});
  EXPECT_EQ(
      engine_.Installed("IOC"),
      (std::map<std::string, std::string>{
          {"r1", base + "/real"}, {"r1-1", base + "/link"}, {"r2-1", base + "/dangling"}, {"r3", base + "/real"}}));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG, "[IOC]: Adding resolved rule r1 with path " + base + "/real"));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_WARNING, "[IOC]: Cannot resolve symlink " + base + "/dangling"));
}

TEST_F(IocEventRuleManagerTest, ALaterRuleLeavesNothingOfTheOneOnALinkThatItReplaces) {
  const std::string base = std::filesystem::canonical(folder_.Path());
  std::filesystem::create_directory(base + "/real");
  std::filesystem::create_directory_symlink("real", base + "/link");
  Make({WriteManifest("one.json", Rule("r1", base + "/link")), WriteManifest("two.json", Rule("r1", "/etc"))});
  EXPECT_EQ(engine_.Installed("IOC"), (std::map<std::string, std::string>{{"r1", "/etc"}}));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_WARNING, "Rule id r1 is used more than once: the last rule holds"));
}

TEST_F(IocEventRuleManagerTest, ARuleOnALinkTakesTheIdOfNoOtherRule) {
  const std::string base = std::filesystem::canonical(folder_.Path());
  std::filesystem::create_directory(base + "/real");
  std::filesystem::create_directory_symlink("real", base + "/link");
  const std::string linked = WriteManifest("linked.json", Rule("r", base + "/link"));
  const std::string other = WriteManifest("other.json", Rule("r-1", base + "/link") + "," + Rule("r-2", "/srv") + "," +
                                                            ProcessRuleText().With("ruleId", R"("r-3")").Text());
  const std::map<std::string, std::string> all = {{"r", base + "/real"},   {"r-4", base + "/link"},
                                                  {"r-1", base + "/real"}, {"r-1-1", base + "/link"},
                                                  {"r-2", "/srv"},         {"r-3", ""}};
  Make({linked, other});
  EXPECT_EQ(engine_.Installed("IOC"), all);
  Make({other, linked});
  EXPECT_EQ(engine_.Installed("IOC"), all);
  EXPECT_FALSE(log_.Has("used more than once"));
  // What is refused belongs to the manifest of the link's rule.
  engine_.RefuseRule("r-4");
  engine_.Invalidate();
  EXPECT_TRUE(HealthSays(linked, "rule r-4 not applied: the kernel refuses"));
}

TEST_F(IocEventRuleManagerTest, ATrustedProgramBehindALinkIsTrustedAsItIsWrittenAndAsItIsMeant) {
  const std::string base = std::filesystem::canonical(folder_.Path());
  std::filesystem::create_directory(base + "/usr-bin");
  folder_.Write("usr-bin/apt", "");
  std::filesystem::create_directory_symlink("usr-bin", base + "/bin");
  std::filesystem::create_symlink("nowhere", base + "/dangling");
  const auto trusted = [&](const std::string& id, const std::string& path) {
    return WhitelistRuleText()
        .With("ruleId", "\"" + id + "\"")
        .With("imagePath", "\"" + path + "\"")
        .With("exclusionFilters", R"([{"filterType":[]}])")
        .Text();
  };
  Make({WriteManifest("one.json", trusted("w1", base + "/bin/apt") + "," + trusted("w2", base + "/usr-bin/dpkg") + "," +
                                      trusted("w3", base + "/dangling"))});
  std::vector<std::pair<std::string, std::string>> rules;
  for (const auto& rule : manager_->GetWhitelistGlobalRules()) rules.emplace_back(rule->GetId(), rule->GetPath());
  EXPECT_EQ(rules, (std::vector<std::pair<std::string, std::string>>{{"w1", base + "/bin/apt"},
                                                                     {"w1", base + "/usr-bin/apt"},
                                                                     {"w2", base + "/usr-bin/dpkg"},
                                                                     {"w3", base + "/dangling"}}));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_WARNING, "[IOC]: Cannot resolve symlink " + base + "/dangling"));
  // The derived rule judges as the rule of the manifest does.
  fakes::FakeEvent event = FileEvent("/etc/x");
  event.image = common::ImageInfo(base + "/usr-bin/apt");
  EXPECT_NE(manager_->GetWhitelistGlobalRules()[1]->Match(event), edr::MatchResult::Matched);
  event.object_type = edr::ObjectType::Network;
  EXPECT_EQ(manager_->GetWhitelistGlobalRules()[1]->Match(event), edr::MatchResult::Matched);
}

TEST_F(IocEventRuleManagerTest, AnUpdateReplacesRulesThroughTheEngine) {
  const std::string one = WriteManifest("one.json", Rule("r1", "/etc"), R"({"gateway_url":"https://one"})");
  Make({one});
  EXPECT_TRUE(manager_->HasGatewayUrl());
  SetManifests({WriteManifest("two.json", Rule("r2", "/srv"))});
  EXPECT_TRUE(manager_->Update());
  EXPECT_EQ(engine_.Calls().size(), 2U);
  EXPECT_EQ(InEngine(), "r2 ");
  EXPECT_EQ(InManager(), "r2 ");
  EXPECT_FALSE(manager_->HasGatewayUrl());
  SetManifests({});
  EXPECT_TRUE(manager_->Update());
  EXPECT_EQ(InEngine(), "");
}

TEST_F(IocEventRuleManagerTest, TheSameListChangesNothing) {
  const std::string one = WriteManifest("one.json", Rule("r1", "/etc"));
  const std::string two = WriteManifest("two.json", Rule("r2", "/srv"));
  Make({one, two});
  WriteManifest("one.json", Rule("r3", "/opt"));
  EXPECT_FALSE(manager_->Update());
  SetManifests({two, one});
  EXPECT_FALSE(manager_->Update());
  EXPECT_EQ(InEngine(), "r1 r2 ");
  EXPECT_EQ(engine_.Calls().size(), 1U);
}

TEST_F(IocEventRuleManagerTest, ABadManifestOfAnUpdateTakesItsOldRulesAway) {
  const std::string one = WriteManifest("one.json", Rule("r1", "/etc"));
  Make({one});
  folder_.Write("one.json", "{");
  SetManifests({one, WriteManifest("two.json", Rule("r2", "/srv"))});
  EXPECT_TRUE(manager_->Update());
  EXPECT_EQ(InEngine(), "r2 ");
}

TEST_F(IocEventRuleManagerTest, AnUpdateTakesNoRuleOutOfForceThatStays) {
  int dropped = 0;
  engine_.RegisterEventHandlers(
      "FIM", [](const std::vector<std::string>&, const edr::Event&) {}, [&] { ++dropped; });
  Make({WriteManifest("one.json", Rule("r1", "/etc"))});
  SetManifests({WriteManifest("two.json", Rule("r1", "/etc") + "," + Rule("r2", "/srv"))});
  std::string loaded;
  std::size_t calls = 0;
  EXPECT_TRUE(manager_->Update([&] {
    loaded = InManager();
    calls = engine_.Calls().size();
  }));
  EXPECT_EQ(dropped, 0) << "the engine has dropped everybody's rules";
  EXPECT_EQ(InEngine(), "r1 r2 ");
  EXPECT_EQ(loaded, "r1 r2 ");
  EXPECT_EQ(calls, 1U) << "told before the engine has them";
}

TEST_F(IocEventRuleManagerTest, RulesComeBackWhenTheEngineHasLostThem) {
  Make({WriteManifest("one.json", Rule("r1", "/etc"))});
  engine_.Invalidate();
  EXPECT_EQ(engine_.Calls().size(), 2U);
  EXPECT_EQ(InEngine(), "r1 ");
}

TEST_F(IocEventRuleManagerTest, ARuleWithoutAnActionStaysAwayFromTheEngine) {
  Make({WriteManifest("one.json",
                      NetworkRuleText().With("notify", R"({"network":["close"]})").Text() + "," + Rule("r1", "/etc"))});
  EXPECT_EQ(InEngine(), "r1 ");
  EXPECT_EQ(InManager(), "n1 r1 ");
}

TEST_F(IocEventRuleManagerTest, AnEngineThatFailsIsLoggedAndTheRulesStay) {
  const std::string one = WriteManifest("one.json", Rule("r1", "/etc"));
  engine_.FailAdds("Failed to open audit socket");
  Make({one});
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR,
                       "[IOC]: EventRuleManager: Failed to apply rules: Failed to open audit socket"));
  EXPECT_EQ(InManager(), "r1 ");
  EXPECT_TRUE(HealthSays(one, "manifest=failed"));
  EXPECT_TRUE(HealthSays(one, "rules not applied: Failed to open audit socket"));
  engine_.FailAdds("");
  engine_.Invalidate();
  EXPECT_TRUE(HealthSays(one, "manifest=applied"));
}

TEST_F(IocEventRuleManagerTest, AnEngineThatFailsAnUpdateIsLoggedAndTheNewRulesWait) {
  Make({WriteManifest("one.json", Rule("r1", "/etc"))});
  const std::string two = WriteManifest("two.json", Rule("r2", "/srv"), R"({"gateway_url":"https://two"})");
  SetManifests({two});
  engine_.FailInvalidate("Failed to open audit socket");
  engine_.FailAdds("Failed to open audit socket");
  EXPECT_TRUE(manager_->Update()) << "what stands beside the rules holds at once";
  EXPECT_EQ(manager_->GetGatewayUrl(), "https://two");
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR,
                       "[IOC]: EventRuleManager: Failed to apply rules: Failed to open audit socket"));
  EXPECT_TRUE(HealthSays(two, "rules not applied: Failed to open audit socket"));
  EXPECT_EQ(InManager(), "r2 ");
  engine_.FailInvalidate("");
  engine_.FailAdds("");
  engine_.Invalidate();
  EXPECT_EQ(InEngine(), "r2 ");
  EXPECT_TRUE(HealthSays(two, "manifest=applied"));
}

TEST_F(IocEventRuleManagerTest, ARefusedRuleIsAFailureOfItsManifestAlone) {
  const std::string one = WriteManifest("one.json", Rule("r1", "/etc"));
  const std::string two = WriteManifest("two.json", Rule("r2", "/srv"));
  engine_.RefuseRule("r2");
  Make({one, two});
  EXPECT_TRUE(HealthSays(one, "manifest=applied"));
  EXPECT_TRUE(HealthSays(two, "rule r2 not applied: the kernel refuses"));
}

// While the engine takes the rules of before, an update brings newer ones.
TEST_F(IocEventRuleManagerTest, TheNewestRulesAreTheLastThatTheEngineGets) {
  Make({WriteManifest("one.json", Rule("r1", "/etc"))});
  SetManifests({WriteManifest("two.json", Rule("r2", "/srv"))});
  engine_.BeforeNextAdd([this] { EXPECT_TRUE(manager_->Update()); });
  manager_->OnRulesInvalidated();
  EXPECT_EQ(InEngine(), "r2 ");
}

TEST_F(IocEventRuleManagerTest, SettingsAndRulesAreReadWhileTheyChange) {
  const std::string one = WriteManifest("one.json", Rule("r1", "/etc"), R"({"gateway_url":"https://one"})",
                                        R"(,"tags":{"thresholdScore":1},"knownProcessPaths":["/a"])");
  const std::string two = WriteManifest("two.json", Rule("r2", "/srv") + "," + WhitelistRuleText().Text());
  Make({one});
  std::atomic<bool> ended{false};
  std::thread reader([&] {
    while (!ended) {
      for (const auto& rule : manager_->GetRules()) EXPECT_FALSE(rule->GetId().empty());
      (void)manager_->GetWhitelistGlobalRules();
      (void)manager_->GetKnownProcessPaths();
      EXPECT_TRUE(manager_->GetTaggingSettings()->IsObject());
      (void)manager_->GetSendMetadata();
      (void)manager_->IsHeuristicsEnabled();
      (void)manager_->HasGatewayUrl();
    }
  });
  for (int i = 0; i < 20; ++i) {
    SetManifests({i % 2 == 0 ? two : one});
    EXPECT_TRUE(manager_->Update());
    engine_.Invalidate();
  }
  ended = true;
  reader.join();
  EXPECT_EQ(InManager(), "r1 ");
}

}  // namespace
}  // namespace zagent::ioc::internal

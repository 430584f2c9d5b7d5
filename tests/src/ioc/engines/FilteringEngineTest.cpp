#include "src/ioc/engines/FilteringEngine.h"

#include "tests/fakes/FakeHealthReporter.h"
#include "tests/fakes/FakeRuleEngine.h"
#include "tests/fakes/TempFolder.h"
#include "tests/src/ioc/rules/RulesFixture.h"

namespace zagent::ioc::internal {
namespace {

using edr::EventType;

class FilteringEngineTest : public RulesFixture {
 protected:
  std::string WriteManifest(const std::string& name, const std::vector<ObjectText>& rules) {
    std::string array;
    for (const ObjectText& rule : rules) array += (array.empty() ? "" : ",") + rule.Text();
    return folder_.Write(
        name, R"({"policyVersion":"2.0.0","policyId":1,"productId":1,"globalSettings":{},"rules":[)" + array + "]}");
  }
  void Make(const std::vector<ObjectText>& rules) {
    section_.manifests = {WriteManifest("m.json", rules)};
    config_ = std::make_unique<Config>(*common_, ParsedJson(section_.Text()));
    manager_ = std::make_unique<EventRuleManager>(*config_, rule_engine_, *tree_, health_);
    engine_ = std::make_unique<FilteringEngine>(*tree_, *manager_);
  }
  void Update(const std::vector<ObjectText>& rules, const std::string& name = "n.json") {
    section_.manifests = {WriteManifest(name, rules)};
    config_->Update(ParsedJson(section_.Text()));
    ASSERT_TRUE(manager_->Update());
  }
  Verdict Judge(const edr::Event& event) { return engine_->Process(event); }
  // Of the shell itself.
  static fakes::FakeEvent ShellEvent(EventType type, const std::string& action) {
    fakes::FakeEvent event = StartEvent("/bin/dash", type);
    event.action = action;
    event.pid = kShell;
    event.ppid = kCron;
    return event;
  }
  [[nodiscard]] bool ShellHas(const char* tag) const { return tree_->Get(kShell)->HasTag(tag); }

  fakes::TempFolder folder_;
  fakes::FakeRuleEngine rule_engine_;
  fakes::FakeHealthReporter reporter_;
  const health::ComponentHealth health_{reporter_, health::ComponentHealth::Kind::Ioc};
  TestSection section_;
  std::unique_ptr<common::CommonConfig> common_ = MakeCommonConfig();
  std::unique_ptr<Config> config_;
  std::unique_ptr<EventRuleManager> manager_;
  std::unique_ptr<FilteringEngine> engine_;
};

TEST_F(FilteringEngineTest, WhatARuleMatchesIsReportedAndAllElseIsNot) {
  Make({FileRuleText(), DirectoryRuleText().With("imagePath", R"("/srv")")});
  const fakes::LogCapture log;
  EXPECT_EQ(Judge(FileEvent("/etc/passwd")), Verdict::Unknown);
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, "[IOC]: Write (ID: 1) matches with rule ID f1"));
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG,
                      "[IOC]: Adding verdict 'Unknown' to Write (ID: 1) as it matches manifest rule"));
  EXPECT_FALSE(log.Has("rule ID d1")) << "it stands elsewhere";
  EXPECT_EQ(Judge(FileEvent("/srv/www/x")), Verdict::Unknown);
  EXPECT_EQ(Judge(FileEvent("/etc/group")), Verdict::Clean);
}

TEST_F(FilteringEngineTest, ARuleThatDoesNotMatchIsToldAndTheNextIsTried) {
  Make({DirectoryRuleText().With("ruleId", R"("a")").With("notify", R"({"File":["attribute"]})"),
        DirectoryRuleText().With("ruleId", R"("b")")});
  const fakes::LogCapture log;
  EXPECT_EQ(Judge(FileEvent("/etc/passwd")), Verdict::Unknown);
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, "Write (ID: 1) does not match with rule ID a"));
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, "Write (ID: 1) matches with rule ID b"));
}

TEST_F(FilteringEngineTest, AFileRuleIsForItsPathAndADirectoryRuleForWhatIsBelow) {
  Make({FileRuleText().With("imagePath", R"("/srv/one")"), DirectoryRuleText()});
  EXPECT_EQ(Judge(FileEvent("/srv/one")), Verdict::Unknown);
  EXPECT_EQ(Judge(FileEvent("/srv/one/x")), Verdict::Clean);
  EXPECT_EQ(Judge(FileEvent("/srv/one2")), Verdict::Clean);
  EXPECT_EQ(Judge(FileEvent("/etc/ssh/x")), Verdict::Unknown);
  EXPECT_EQ(Judge(FileEvent("/etcetera/x")), Verdict::Clean) << "another folder whose name begins alike";
  EXPECT_EQ(Judge(DirectoryEvent("/etc/ssh", EventType::Delete)), Verdict::Unknown);
  EXPECT_EQ(Judge(FileEvent("/etc/ssh/../x")), Verdict::Unknown);
}

TEST_F(FilteringEngineTest, AFolderIsNoMatterOfAFileRule) {
  Make({FileRuleText().With("imagePath", R"("/etc")").With("notify", R"({"File":["rename"]})")});
  EXPECT_EQ(Judge(DirectoryEvent("/etc", EventType::Rename)), Verdict::Clean);
}

TEST_F(FilteringEngineTest, ARenameIsAMatterOfTheRulesOfBothEnds) {
  Make({FileRuleText(), DirectoryRuleText().With("imagePath", R"("/srv")")});
  EXPECT_EQ(Judge(RenameEvent("/tmp/x", "/etc/passwd")), Verdict::Unknown);
  EXPECT_EQ(Judge(RenameEvent("/etc/passwd", "/tmp/x")), Verdict::Unknown);
  EXPECT_EQ(Judge(RenameEvent("/tmp/x", "/srv/x")), Verdict::Unknown);
  EXPECT_EQ(Judge(RenameEvent("/srv/x", "/tmp/x")), Verdict::Unknown);
  EXPECT_EQ(Judge(RenameEvent("/tmp/x", "/tmp/y")), Verdict::Clean);
}

TEST_F(FilteringEngineTest, ProcessesAndConnectionsHaveRulesOfTheirOwn) {
  Make({ProcessRuleText(), FileRuleText()});
  EXPECT_EQ(Judge(ShellEvent(EventType::ProcessStart, "Execve")), Verdict::Unknown);
  EXPECT_EQ(Judge(NetworkEvent("1.2.3.4", 80)), Verdict::Clean);
  Make({NetworkRuleText(), FileRuleText()});
  EXPECT_EQ(Judge(NetworkEvent("1.2.3.4", 80)), Verdict::Unknown);
  EXPECT_EQ(Judge(ShellEvent(EventType::ProcessStart, "Execve")), Verdict::Clean);
}

TEST_F(FilteringEngineTest, TheTopIsAboveEverything) {
  Make({DirectoryRuleText().With("imagePath", R"("/")")});
  EXPECT_EQ(Judge(FileEvent("/srv/x")), Verdict::Unknown);
}

TEST_F(FilteringEngineTest, TheEndOfAProcessIsReportedIfSomethingOfItWas) {
  Make({ProcessRuleText()});
  for (const auto& [type, action] : {std::pair(EventType::ProcessExit, "Exit"), {EventType::AbnormalEnd, "Abort"}}) {
    const fakes::LogCapture log;
    EXPECT_EQ(Judge(ShellEvent(type, action)), Verdict::Clean);
    EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, "[IOC]: Adding verdict 'Clean' to " + std::string(action) +
                                                       " event for unreported process (/bin/dash, 60)"));
    tree_->Get(kShell)->AddTag(process_tag::kReported);
    EXPECT_EQ(Judge(ShellEvent(type, action)), Verdict::Unknown);
    EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, "[IOC]: Adding verdict 'Unknown' to " + std::string(action) +
                                                       " event for reported process (/bin/dash, 60)"));
    tree_->Get(kShell)->RemoveTag(process_tag::kReported);
  }
}

TEST_F(FilteringEngineTest, AnAbnormalEndNeedsNoImageOfItsOwn) {
  Make({});
  fakes::FakeEvent event = ShellEvent(EventType::AbnormalEnd, "Abort");
  event.image.reset();
  EXPECT_EQ(Judge(event), Verdict::Clean);
}

TEST_F(FilteringEngineTest, ADeletedFileIsReportedWithoutALookAtAnyRule) {
  Make({WhitelistRuleText().With("imagePath", R"("/bin/actor")").With("exclusionFilters", R"([{"filterType":[]}])")});
  const fakes::LogCapture log;
  fakes::FakeEvent event = FileEvent("/srv/x", EventType::Delete);
  event.action = "Delete";
  EXPECT_EQ(Judge(event), Verdict::Unknown);
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, "[IOC]: Adding verdict 'Unknown' to Delete event for file /srv/x"));
}

TEST_F(FilteringEngineTest, ATrustedProgramBeatsAllRules) {
  Make({DirectoryRuleText(), WhitelistRuleText().With("imagePath", R"("/bin/actor")")});
  const fakes::LogCapture log;
  EXPECT_EQ(Judge(FileEvent("/etc/passwd")), Verdict::Clean);
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG,
                      "[IOC]: Adding verdict 'Clean' to Write (ID: 1) as WhitelistGlobal exclusion filter matched"));
  fakes::FakeEvent other = FileEvent("/etc/passwd");
  other.image = common::ImageInfo("/bin/other");
  EXPECT_EQ(Judge(other), Verdict::Unknown);
}

TEST_F(FilteringEngineTest, AStartThatIsNotWantedMarksItsProcessUntilOneIs) {
  Make({ProcessRuleText().With("inclusionFilters", R"([{"filterType":["patterns"],"patterns":["wanted"]}])")});
  EXPECT_EQ(Judge(ShellEvent(EventType::ProcessStart, "Execve")), Verdict::Clean);
  EXPECT_TRUE(ShellHas(process_tag::kExcluded));
  EXPECT_EQ(Judge(ShellEvent(EventType::ProcessStart, "Execve")), Verdict::Clean);
  const fakes::LogCapture log;
  fakes::FakeEvent wanted = ShellEvent(EventType::ProcessStart, "Execve");
  wanted.image = common::ImageInfo("/bin/wanted");
  EXPECT_EQ(Judge(wanted), Verdict::Unknown);
  EXPECT_FALSE(ShellHas(process_tag::kExcluded));
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, "[IOC]: Removing 'Excluded' tag from process /bin/dash ( pid:60)"));
  EXPECT_EQ(Judge(wanted), Verdict::Unknown);
  EXPECT_FALSE(log.Has(Poco::Message::PRIO_ERROR, "")) << "a tag that is not there is not removed";
}

TEST_F(FilteringEngineTest, AReportedProcessIsNotMarked) {
  Make({});
  tree_->Get(kShell)->AddTag(process_tag::kReported);
  EXPECT_EQ(Judge(ShellEvent(EventType::ProcessStart, "Execve")), Verdict::Clean);
  EXPECT_FALSE(ShellHas(process_tag::kExcluded));
}

TEST_F(FilteringEngineTest, OnlyStartsMarkAProcess) {
  Make({});
  EXPECT_EQ(Judge(FileEvent("/etc/passwd")), Verdict::Clean);
  EXPECT_EQ(Judge(ShellEvent(EventType::ProcessExit, "Exit")), Verdict::Clean);
  EXPECT_FALSE(ShellHas(process_tag::kExcluded));
}

TEST_F(FilteringEngineTest, ChangedRulesAreSeenByTheFirstEventAfterTheWordAndNotBefore) {
  Make({FileRuleText()});
  Update({FileRuleText().With("ruleId", R"("g")").With("imagePath", R"("/etc/group")"),
          WhitelistRuleText().With("imagePath", R"("/bin/trusted")")});
  EXPECT_EQ(Judge(FileEvent("/etc/passwd")), Verdict::Unknown);
  engine_->OnRulesChanged();
  EXPECT_EQ(Judge(FileEvent("/etc/passwd")), Verdict::Clean);
  EXPECT_EQ(Judge(FileEvent("/etc/group")), Verdict::Unknown);
  fakes::FakeEvent trusted = FileEvent("/etc/group");
  trusted.image = common::ImageInfo("/bin/trusted");
  EXPECT_EQ(Judge(trusted), Verdict::Clean);
  Update({FileRuleText().With("imagePath", R"("/etc/group")")}, "o.json");
  engine_->OnRulesChanged();
  EXPECT_EQ(Judge(trusted), Verdict::Unknown) << "nobody is trusted any more";
}

TEST_F(FilteringEngineTest, APathIsMeantHoweverARuleWritesIt) {
  Make({FileRuleText().With("imagePath", R"("/etc/apt/../passwd")")});
  EXPECT_EQ(Judge(FileEvent("/etc/passwd")), Verdict::Unknown);
}

TEST_F(FilteringEngineTest, AnUnknownProcessIsTheTreesFailure) {
  Make({FileRuleText()});
  fakes::FakeEvent event = FileEvent("/etc/passwd");
  event.pid = 4711;
  EXPECT_THROW((void)Judge(event), common::GenericProcessTreeException);
}

}  // namespace
}  // namespace zagent::ioc::internal

#include "src/ioc/engines/TaggingEngine.h"

#include <atomic>
#include <iterator>
#include <map>
#include <random>
#include <thread>

#include "tests/src/ioc/engines/TagsFixture.h"

namespace zagent::ioc::internal {
namespace {

using edr::EventType;
using Poco::Message;

const std::set<std::string> kNames = {"CredentialAccess", "DefenseEvasion", "Execution",
                                      "Exfiltration",     "Persistence",    "PrivilegeEscalation"};

class TaggingEngineTest : public TagsFixture {
 protected:
  using Members = std::vector<std::pair<std::string, std::string>>;

  // Settings with this threshold and these tags, each with its own settings.
  static rapidjson::Document Settings(const std::string& threshold, const Members& tags) {
    std::string text = R"({"thresholdScore":)" + threshold;
    for (const auto& [name, own] : tags) text += ",\"" + name + "\":" + own;
    return ParsedJson(text + "}");
  }
  // All of them, each of this score.
  static Members All(int score) {
    Members tags;
    for (const std::string& name : kNames) tags.emplace_back(name, R"({"score":)" + std::to_string(score) + "}");
    return tags;
  }
  void Make(const std::string& threshold, const Members& tags) {
    engine_ = std::make_unique<TaggingEngine>(*tree_, Settings(threshold, tags));
  }
  Verdict Judge(const edr::Event& event) { return engine_->Process(event); }
  [[nodiscard]] std::set<std::string> TagsOf(std::int32_t pid) const {
    std::set<std::string> names;
    for (const auto& [name, value] : Process(pid).GetTags()) {
      if (kNames.count(name) != 0) names.insert(name);
      EXPECT_TRUE(kNames.count(name) == 0 || value.empty());
    }
    return names;
  }
  [[nodiscard]] std::int64_t ScoreOf(std::int32_t pid) const { return Process(pid).GetScore(); }
  // Which tags are in force: those that say that they look at an event of nothing.
  std::set<std::string> Active() {
    const fakes::LogCapture log;
    EXPECT_EQ(Judge(File("/bin/x", EventType::Read, "/srv/x")), Verdict::Clean);
    std::set<std::string> active;
    for (const std::string& name : kNames) {
      if (log.Has("Checking for " + name + " tag")) active.insert(name);
    }
    return active;
  }
  // The process starts a program, as the tree and then the engine learn of it.
  Verdict Begin(std::int32_t pid, std::int32_t ppid, const std::string& image = "/bin/child") {
    Exec(pid, ppid, image);
    return Judge(Process(pid).GetLastEvent());
  }

  const fakes::FakeEvent cron_ = File("/bin/x", EventType::Write, "/etc/cron.d/x");
  const fakes::FakeEvent shadow_ = File("/bin/cat", EventType::Read, "/etc/shadow");
  std::unique_ptr<TaggingEngine> engine_;
};

const std::set<std::string> kPersistence = {"Persistence"};
const std::set<std::string> kNone;

// Settings

TEST_F(TaggingEngineTest, TakesThresholdAndTags) {
  Make("7", All(1));
  EXPECT_EQ(engine_->GetThresholdScore(), 7);
  EXPECT_EQ(Active(), kNames);
}

TEST_F(TaggingEngineTest, SettingsThatCannotBeUsedAreToldAndTheOldOnesStay) {
  const std::vector<std::pair<std::string, std::string>> refusals = {
      {"[]", "Tag settings does not have threshold score"},
      {"null", "Tag settings does not have threshold score"},
      {"{}", "Tag settings does not have threshold score"},
      {R"({"Persistence":{"score":1}})", "Tag settings does not have threshold score"},
      {R"({"thresholdScore":"1"})", "Threshold score is not an integer"},
      {R"({"thresholdScore":1.5})", "Threshold score is not an integer"},
      {R"({"thresholdScore":null})", "Threshold score is not an integer"},
      {R"({"thresholdScore":9223372036854775808})", "Threshold score is not an integer"},
      {R"({"thresholdScore":1,"Execution":[]})", "Invalid setting json for Execution tag"},
      {R"({"thresholdScore":1,"DefenseEvasion":null})", "Invalid setting json for DefenseEvasion tag"},
      {R"({"thresholdScore":1,"Persistence":{}})",
       "Invalid setting for Persistence tag: Score is absent or invalid for Persistence tag"},
      {R"({"thresholdScore":1,"Exfiltration":{"score":1,"exclusions":1}})",
       "Invalid setting for Exfiltration tag: Exfiltration tag has invalid exclusions definition"},
      {R"({"thresholdScore":1,"CredentialAccess":{"score":1,"exclusions":[1]}})",
       "Invalid setting for CredentialAccess tag: Invalid exclusion at index 0 for CredentialAccess tag"},
      {R"({"thresholdScore":1,"PrivilegeEscalation":{"score":1,"exclusions":[{"actorProcess":"("}]}})",
       "Invalid setting for PrivilegeEscalation tag: Invalid exclusion at index 0 for PrivilegeEscalation tag"},
  };
  Make("7", {{"Persistence", R"({"score":7})"}});
  for (const auto& [settings, line] : refusals) {
    const fakes::LogCapture log;
    engine_->Configure(ParsedJson(settings));
    EXPECT_TRUE(log.Has(Message::PRIO_ERROR, "[IOC]: " + line)) << settings << "\n" << log.All();
    EXPECT_EQ(engine_->GetThresholdScore(), 7) << settings;
    EXPECT_EQ(Active(), kPersistence) << settings;
  }
  EXPECT_EQ(Judge(cron_), Verdict::Suspicious);
}

const std::vector<std::string> kOrder = {"Persistence", "Exfiltration",     "PrivilegeEscalation",
                                         "Execution",   "CredentialAccess", "DefenseEvasion"};

TEST_F(TaggingEngineTest, TheFirstMistakeIsTheOneThatIsTold) {
  for (std::size_t first = 0; first < kOrder.size(); ++first) {
    Members tags;
    for (std::size_t at = kOrder.size(); at-- > 0;) tags.emplace_back(kOrder[at], at < first ? R"({"score":1})" : "1");
    const fakes::LogCapture log;
    Make("1", tags);
    EXPECT_EQ(log.Count("Invalid setting json for"), 1);
    EXPECT_TRUE(log.Has(Message::PRIO_ERROR, "[IOC]: Invalid setting json for " + kOrder[first] + " tag"));
  }
}

TEST_F(TaggingEngineTest, TheTagsThatAreOffAreToldInOneOrder) {
  const fakes::LogCapture log;
  Make("1", {});
  std::vector<std::string> told;
  for (const Message& line : log.Lines()) {
    for (const std::string& name : kOrder) {
      if (line.getText() == "[IOC]: Disabling " + name + " tag as it is not configured") told.push_back(name);
    }
  }
  EXPECT_EQ(told, kOrder);
}

TEST_F(TaggingEngineTest, AThresholdOf0IsTheEndOfTagging) {
  Make("1", All(1));
  const fakes::LogCapture log;
  engine_->Configure(Settings("0", All(1)));
  EXPECT_TRUE(log.Has(Message::PRIO_INFORMATION, "[IOC]: Tag score threshold is 0. Disabling tagging ..."));
  EXPECT_EQ(engine_->GetThresholdScore(), 0);
  Process(kActor).AddScore(100);
  for (const fakes::FakeEvent& event : {cron_, shadow_, StartOf("/bin/bash", {"bash", "/tmp/x"})}) {
    EXPECT_EQ(Judge(event), Verdict::Clean);
  }
  EXPECT_EQ(log.Count("[IOC]: Tagging is disabled"), 3);
  EXPECT_FALSE(log.Has("Checking for")) << "no tag is asked";
  EXPECT_EQ(TagsOf(kActor), kNone);
}

TEST_F(TaggingEngineTest, WithoutSettingsItIsOff) {
  engine_ = std::make_unique<TaggingEngine>(*tree_, ParsedJson("{}"));
  EXPECT_EQ(engine_->GetThresholdScore(), 0);
  EXPECT_EQ(Judge(cron_), Verdict::Clean);
}

TEST_F(TaggingEngineTest, ATagWithoutSettingsOrScoreIsNotThere) {
  const fakes::LogCapture log;
  Make("5", {{"Persistence", R"({"score":5})"},
             {"Execution", R"({"score":0})"},
             {"Exfiltration", R"({"score":0,"exclusions":"not looked at"})"}});
  EXPECT_EQ(Active(), kPersistence);
  for (const char* name : {"PrivilegeEscalation", "CredentialAccess", "DefenseEvasion"}) {
    EXPECT_TRUE(
        log.Has(Message::PRIO_INFORMATION, "[IOC]: Disabling " + std::string(name) + " tag as it is not configured"));
  }
  EXPECT_EQ(log.Count("tag as it is not configured"), 3);
  for (const char* name : {"Execution", "Exfiltration"}) {
    EXPECT_TRUE(log.Has(Message::PRIO_INFORMATION, "[IOC]: Disabling " + std::string(name) + " tag with score 0"));
  }
  EXPECT_EQ(log.Count("tag with score 0"), 2);
  EXPECT_EQ(log.Count("is empty or invalid"), 1) << "of those that are there";
}

// Verdicts

TEST_F(TaggingEngineTest, ATagThatIsEarnedAddsItsScore) {
  Make("10", {{"Persistence", R"({"score":10})"}});
  const fakes::LogCapture log;
  EXPECT_EQ(Judge(cron_), Verdict::Suspicious);
  EXPECT_EQ(TagsOf(kActor), kPersistence);
  EXPECT_EQ(ScoreOf(kActor), 10);
  for (const char* line : {"Getting tag verdict for event with ID 1", "Checking for Persistence tag",
                           "Added Tag: Persistence, Updated Score: 10, for PID: 60", "PID: 60 Threshold: 10 Score: 10",
                           "Returning tag verdict 'Suspicious' to process (/bin/actor, 60)"}) {
    EXPECT_TRUE(log.Has(Message::PRIO_DEBUG, std::string("[IOC]: ") + line)) << line << "\n" << log.All();
  }
}

TEST_F(TaggingEngineTest, BelowTheThresholdAProcessIsClean) {
  Make("11", {{"Persistence", R"({"score":10})"}});
  const fakes::LogCapture log;
  EXPECT_EQ(Judge(cron_), Verdict::Clean);
  EXPECT_EQ(TagsOf(kActor), kPersistence);
  EXPECT_TRUE(log.Has("[IOC]: PID: 60 Threshold: 11 Score: 10"));
  EXPECT_TRUE(log.Has("[IOC]: Returning tag verdict 'Clean' to process (/bin/actor, 60)"));
}

TEST_F(TaggingEngineTest, AnEventThatShowsNoTacticChangesNothing) {
  Make("10", All(10));
  EXPECT_EQ(Judge(File("/bin/x", EventType::Write, "/srv/x")), Verdict::Clean);
  EXPECT_EQ(TagsOf(kActor), kNone);
  EXPECT_EQ(ScoreOf(kActor), 0);
}

TEST_F(TaggingEngineTest, TheScoresOfSeveralTagsAreSummedAndEachCountsOnce) {
  Make("30", {{"Persistence", R"({"score":10})"}, {"CredentialAccess", R"({"score":20})"}});
  EXPECT_EQ(Judge(cron_), Verdict::Clean);
  EXPECT_EQ(Judge(cron_), Verdict::Clean);
  EXPECT_EQ(ScoreOf(kActor), 10);
  EXPECT_EQ(Judge(shadow_), Verdict::Suspicious);
  EXPECT_EQ(ScoreOf(kActor), 30);
  EXPECT_EQ(Judge(File("/bin/x", EventType::Read, "/srv/x")), Verdict::Suspicious) << "it stays";
}

TEST_F(TaggingEngineTest, OneEventMayEarnSeveralTags) {
  Make("1000", All(1));
  fakes::FakeEvent event = File("/bin/vi", EventType::Write, "/root/.ssh/.x");
  event.elevated = true;
  EXPECT_EQ(Judge(event), Verdict::Clean);
  EXPECT_EQ(TagsOf(kActor), (std::set<std::string>{"Persistence", "DefenseEvasion", "PrivilegeEscalation"}));
  EXPECT_EQ(ScoreOf(kActor), 3);
}

TEST_F(TaggingEngineTest, AtTheThresholdNoFurtherTagIsAsked) {
  Make("10", All(10));
  fakes::FakeEvent event = File("/bin/vi", EventType::Write, "/root/.ssh/.x");
  event.elevated = true;
  EXPECT_EQ(Judge(event), Verdict::Suspicious);
  EXPECT_EQ(TagsOf(kActor).size(), 1U) << "whichever comes first";
  EXPECT_EQ(ScoreOf(kActor), 10);

  Process(kSibling).AddScore(10);
  event.pid = kSibling;
  const fakes::LogCapture log;
  EXPECT_EQ(Judge(event), Verdict::Suspicious);
  EXPECT_LE(log.Count("Checking for"), 1);
}

TEST_F(TaggingEngineTest, ANegativeScoreSpeaksForAProcess) {
  Make("10", {{"Persistence", R"({"score":-5})"}, {"CredentialAccess", R"({"score":10})"}});
  EXPECT_EQ(Judge(cron_), Verdict::Clean);
  EXPECT_EQ(Judge(shadow_), Verdict::Clean);
  EXPECT_EQ(ScoreOf(kActor), 5);
}

TEST_F(TaggingEngineTest, AScoreThatTheProcessHasIsJudgedByTheThresholdOfTheMoment) {
  Make("11", {{"Persistence", R"({"score":10})"}});
  EXPECT_EQ(Judge(cron_), Verdict::Clean);
  engine_->Configure(Settings("10", {{"Persistence", R"({"score":1})"}}));
  EXPECT_EQ(Judge(cron_), Verdict::Suspicious);
  engine_->Configure(Settings("10", {}));
  EXPECT_EQ(Judge(cron_), Verdict::Suspicious) << "without any tag";
}

TEST_F(TaggingEngineTest, AnUnknownProcessIsTheTreesFailure) {
  Make("10", All(10));
  fakes::FakeEvent event = cron_;
  event.pid = 4711;
  EXPECT_THROW((void)Judge(event), common::GenericProcessTreeException);
}

// What relatives get

TEST_F(TaggingEngineTest, ATagGoesToTheChildrenAndSiblingsThatAreThere) {
  Exec(70, kActor, "/bin/child");
  Exec(71, kSibling, "/bin/nephew");
  Make("100", {{"Persistence", R"({"score":10})"}});
  const fakes::LogCapture log;
  EXPECT_EQ(Judge(cron_), Verdict::Clean);
  for (const std::int32_t pid : {kActor, 70, kSibling}) {
    EXPECT_EQ(TagsOf(pid), kPersistence) << pid;
    EXPECT_EQ(ScoreOf(pid), 10) << pid;
  }
  for (const std::int32_t pid : {kInit, kShell, 71}) {
    EXPECT_EQ(TagsOf(pid), kNone) << pid;
    EXPECT_EQ(ScoreOf(pid), 0) << pid;
  }
  for (const char* line : {"Applying tag 'Persistence' to child processes",
                           "Adding tag 'Persistence' to process (/bin/child, 70) from related process (60)",
                           "Applying tag 'Persistence' to sibling processes",
                           "Adding tag 'Persistence' to process (/bin/sibling, 61) from related process (60)"}) {
    EXPECT_TRUE(log.Has(Message::PRIO_DEBUG, std::string("[IOC]: ") + line)) << line << "\n" << log.All();
  }
}

TEST_F(TaggingEngineTest, WhoHasTheTagDoesNotGetItsScoreAgain) {
  Exec(70, kActor);
  Make("100", {{"Persistence", R"({"score":10})"}});
  for (const std::int32_t pid : {70, kSibling}) Process(pid).AddTag("Persistence");
  (void)Judge(cron_);
  EXPECT_EQ(ScoreOf(70), 0);
  EXPECT_EQ(ScoreOf(kSibling), 0);
}

TEST_F(TaggingEngineTest, TheChildrenOfProcess1HaveNothingInCommon) {
  Exec(51, kInit, "/usr/sbin/daemon");
  Make("100", {{"Persistence", R"({"score":10})"}});
  fakes::FakeEvent event = cron_;
  event.pid = kShell;
  const fakes::LogCapture log;
  (void)Judge(event);
  EXPECT_EQ(TagsOf(kShell), kPersistence);
  EXPECT_EQ(TagsOf(kActor), kPersistence) << "its child";
  EXPECT_EQ(TagsOf(51), kNone);
  EXPECT_FALSE(log.Has("to sibling processes"));
  (void)Begin(52, kInit);
  EXPECT_EQ(TagsOf(52), kNone) << "a later one has nothing from them either";
}

TEST_F(TaggingEngineTest, WhatProcess1DoesIsItsOwn) {
  Make("100", {{"Persistence", R"({"score":10})"}});
  fakes::FakeEvent event = cron_;
  event.pid = kInit;
  event.ppid = 0;
  (void)Judge(event);
  EXPECT_EQ(TagsOf(kInit), kPersistence);
  EXPECT_EQ(TagsOf(kShell), kNone);
  (void)Begin(52, kInit);
  EXPECT_EQ(TagsOf(52), kNone);
}

TEST_F(TaggingEngineTest, AChildStartsWithTheTagsOfItsParent) {
  Make("100", {{"Persistence", R"({"score":10})"}, {"CredentialAccess", R"({"score":20})"}});
  (void)Judge(cron_);
  (void)Judge(shadow_);
  const fakes::LogCapture log;
  (void)Begin(70, kActor);
  EXPECT_EQ(TagsOf(70), (std::set<std::string>{"Persistence", "CredentialAccess"}));
  EXPECT_EQ(ScoreOf(70), 30);
  EXPECT_TRUE(log.Has(Message::PRIO_DEBUG,
                      "[IOC]: Adding tag 'Persistence' to process (/bin/child, 70) from parent process (60)"));
  EXPECT_EQ(log.Count("from parent process (60)"), 2);
  EXPECT_FALSE(log.Has("from sibling process"));
  (void)Begin(80, 70);
  EXPECT_EQ(ScoreOf(80), 30) << "and so on downwards";
}

TEST_F(TaggingEngineTest, AChildStartsWithTheTagsOfItsSiblings) {
  Make("10", {{"Persistence", R"({"score":10})"}});
  (void)Judge(cron_);
  ASSERT_EQ(TagsOf(kShell), kNone);
  const fakes::LogCapture log;
  EXPECT_EQ(Begin(62, kShell), Verdict::Suspicious);
  EXPECT_EQ(TagsOf(62), kPersistence);
  EXPECT_EQ(ScoreOf(62), 10) << "once, though two siblings have it";
  EXPECT_TRUE(
      log.Has(Message::PRIO_DEBUG, "[IOC]: Adding tag 'Persistence' to process (/bin/child, 62) from sibling process"));
  EXPECT_EQ(log.Count("from sibling process"), 1);
}

TEST_F(TaggingEngineTest, TagsComeFromParentAndSiblingsTogether) {
  Make("100", {{"Persistence", R"({"score":1})"}, {"CredentialAccess", R"({"score":2})"}});
  Process(kShell).AddTag("Persistence");
  Process(kSibling).AddTag("CredentialAccess");
  Process(kActor).AddTag("Persistence");
  (void)Begin(62, kShell);
  EXPECT_EQ(ScoreOf(62), 3);
}

TEST_F(TaggingEngineTest, OnlyStartsInherit) {
  Make("100", {{"Persistence", R"({"score":10})"}});
  Process(kShell).AddTag("Persistence");
  (void)Judge(File("/bin/x", EventType::Read, "/srv/x"));
  EXPECT_EQ(TagsOf(kActor), kNone);
}

TEST_F(TaggingEngineTest, OnlyTagsInForceAreInherited) {
  Make("100", {{"Persistence", R"({"score":10})"}});
  for (const char* tag : {"CredentialAccess", process_tag::kReported, process_tag::kHashMatchingVerdict}) {
    Process(kShell).AddTag(tag, "x");
  }
  (void)Begin(62, kShell);
  EXPECT_TRUE(Process(62).GetTags().empty());
  EXPECT_EQ(ScoreOf(62), 0);
}

TEST_F(TaggingEngineTest, AnotherProgramOfTheProcessBeginsAnewAndInheritsAgain) {
  Make("100", {{"Persistence", R"({"score":10})"}, {"CredentialAccess", R"({"score":20})"}});
  (void)Judge(cron_);
  Process(kActor).AddTag("CredentialAccess");
  Process(kActor).AddScore(20);
  (void)Begin(kActor, kShell, "/bin/other");
  EXPECT_EQ(TagsOf(kActor), kPersistence) << "which its sibling has";
  EXPECT_EQ(ScoreOf(kActor), 10);
}

TEST_F(TaggingEngineTest, AStartMayEarnATagItself) {
  Make("10", {{"Execution", R"({"score":10})"}});
  auto start = Start(70, kActor, "/bin/bash");
  start->arguments = {"bash", "/tmp/x"};
  tree_->AddEvent(std::move(start));
  EXPECT_EQ(Judge(Process(70).GetLastEvent()), Verdict::Suspicious);
  EXPECT_EQ(TagsOf(kActor), kNone) << "parents get nothing";
}

TEST_F(TaggingEngineTest, ChildrenInheritWhateverHasBecomeOfTheOneBeforeThem) {
  Make("100", {{"Persistence", R"({"score":10})"}});
  (void)Begin(62, kShell);
  (void)Judge(cron_);
  Exec(62, kShell, "/bin/other");  // of which the engine never hears: it has no tags
  (void)Begin(63, kShell);
  EXPECT_EQ(TagsOf(63), kPersistence);
  tree_->AddEvent(Exit(63, kShell));
  LetAllExpire();
  ASSERT_FALSE(tree_->Has(63));
  (void)Begin(64, kShell);
  EXPECT_EQ(TagsOf(64), kPersistence);
  tree_->AddEvent(Write(64, kInit));
  ASSERT_EQ(ParentOf(64), kInit);
  Process(kSibling).RemoveTag("Persistence");
  Process(kActor).RemoveTag("Persistence");
  (void)Begin(65, kShell);
  EXPECT_EQ(TagsOf(65), kNone) << "who went to process 1 is no sibling any more";
}

TEST_F(TaggingEngineTest, ATagThatComesIntoForceIsInheritedFromWhoHasIt) {
  Make("100", {{"Persistence", R"({"score":10})"}});
  (void)Judge(cron_);
  engine_->Configure(Settings("100", {{"Execution", R"({"score":1})"}}));
  (void)Begin(62, kShell);
  EXPECT_EQ(TagsOf(62), kNone);
  engine_->Configure(Settings("100", {{"Persistence", R"({"score":10})"}}));
  (void)Begin(63, kShell);
  EXPECT_EQ(TagsOf(63), kPersistence);
}

// Asking all siblings of each would be 200,000,000 questions: this would not come to its end.
TEST_F(TaggingEngineTest, ThousandsOfChildrenOfOneParentCostWhatFewDo) {
  Make("100", {{"Persistence", R"({"score":10})"}, {"Execution", R"({"score":10})"}});
  (void)Judge(cron_);
  for (std::int32_t pid = 1'000; pid < 21'000; ++pid) (void)Begin(pid, kShell);
  EXPECT_EQ(TagsOf(20'999), kPersistence);
}

// Asking all siblings each time, or every other time, would be hundreds of millions of questions: this would not
// come to its end.
TEST_F(TaggingEngineTest, OneOfThousandsOfChildrenMayStartProgramAfterProgram) {
  Make("100", {{"Persistence", R"({"score":10})"}, {"Execution", R"({"score":10})"}});
  for (std::int32_t pid = 1'000; pid < 41'000; ++pid) Exec(pid, kShell);
  const auto start_programs = [&](const std::vector<std::int32_t>& pids) {
    for (int at = 0; at < 15'000; ++at) {
      for (const std::int32_t pid : pids) {
        (void)Begin(pid, kShell);
        (void)tree_->GetEventsFromCache(pid);
      }
    }
  };
  start_programs({kActor});
  EXPECT_EQ(TagsOf(kActor), kNone);
  (void)Judge(cron_);
  start_programs({kActor});
  EXPECT_EQ(TagsOf(kActor), kPersistence);
  for (std::int32_t pid = 1'000; pid < 41'000; ++pid) Exec(pid, kShell);  // of which the engine never hears
  start_programs({kActor, kSibling});
  EXPECT_EQ(TagsOf(kActor), kPersistence) << "from the only one beside it that has it";
  for (const std::int32_t pid : {kActor, kSibling}) Exec(pid, kShell);
  start_programs({62});
  EXPECT_EQ(TagsOf(62), kNone);
}

TEST_F(TaggingEngineTest, WhatAChildHasFromItsParentGoesToLaterSiblingsWhenTheParentHasLostIt) {
  Make("100", {{"Persistence", R"({"score":10})"}});
  Process(kShell).AddTag("Persistence");
  (void)Begin(62, kShell);
  ASSERT_EQ(TagsOf(62), kPersistence);
  Exec(kShell, kInit, "/bin/other");
  ASSERT_EQ(TagsOf(kShell), kNone);
  (void)Begin(63, kShell);
  EXPECT_EQ(TagsOf(63), kPersistence);
}

TEST_F(TaggingEngineTest, ATagThatNoSiblingHasAnyMoreIsNotInherited) {
  Make("100", {{"Persistence", R"({"score":10})"}});
  const auto forget = [&](std::int32_t pid) { Exec(pid, kShell, "/bin/other"); };  // of which the engine never hears
  (void)Begin(62, kShell);
  (void)Judge(cron_);
  for (const std::int32_t pid : {kActor, kSibling, 62}) {
    ASSERT_EQ(TagsOf(pid), kPersistence) << pid;
    forget(pid);
  }
  (void)Begin(63, kShell);
  EXPECT_EQ(TagsOf(63), kNone);
  (void)Judge(cron_);
  forget(63);
  forget(kActor);
  (void)Begin(63, kShell);
  EXPECT_EQ(TagsOf(63), kPersistence) << "the third one that has had it still has it";
}

// The rules of inheritance and of spreading, by asking everybody each time.
TEST_F(TaggingEngineTest, RelativesGetWhatTheRulesSayInAnyOrderOfLives) {
  struct Life {
    std::int32_t parent = kInit;
    std::set<std::string> tags{};
  };
  const std::map<std::string, fakes::FakeEvent> acts = {
      {"Persistence", cron_},
      {"CredentialAccess", shadow_},
      {"Exfiltration", Connection("/usr/bin/curl", "1.2.3.4")},
  };
  Make("1000000",
       {{"Persistence", R"({"score":1})"}, {"CredentialAccess", R"({"score":2})"}, {"Exfiltration", R"({"score":4})"}});
  std::mt19937 random(7);
  const auto any = [&](std::int32_t from, std::int32_t to) {
    return std::uniform_int_distribution<std::int32_t>(from, to)(random);
  };
  std::map<std::int32_t, Life> model = {{kShell, {}}, {kActor, {kShell}}, {kSibling, {kShell}}};
  const auto one_of = [&] { return std::next(model.begin(), any(0, static_cast<int>(model.size()) - 1))->first; };
  for (int step = 0; step < 3'000; ++step) {
    const int what = any(0, 9);
    const std::int32_t pid = what < 3 ? any(100, 130) : one_of();
    const auto known = model.find(pid);
    if (what < 3 || what == 9) {  // a start: of a child, or of another program
      const std::int32_t parent = known != model.end() ? known->second.parent : (any(0, 5) == 0 ? kInit : one_of());
      (void)Begin(pid, parent);
      Life& life = model[pid] = {parent, {}};
      if (parent != kInit) {
        life.tags = model.at(parent).tags;
        for (const auto& [other, sibling] : model) {
          if (sibling.parent == parent) life.tags.insert(sibling.tags.begin(), sibling.tags.end());
        }
      }
    } else if (what < 6) {  // a tag is earned
      const auto act = std::next(acts.begin(), any(0, 2));
      fakes::FakeEvent event = act->second;
      event.pid = pid;
      (void)Judge(event);
      if (!known->second.tags.insert(act->first).second) continue;
      for (auto& [other, relative] : model) {
        const bool is_sibling = relative.parent == known->second.parent && relative.parent != kInit;
        if (relative.parent == pid || is_sibling) relative.tags.insert(act->first);
      }
    } else if (what == 6 && known->second.parent != kInit) {  // its parent is gone
      tree_->AddEvent(Write(pid, kInit));
      known->second.parent = kInit;
    } else if (what == 7 && pid >= 100) {  // the end
      tree_->AddEvent(Exit(pid, known->second.parent));
      LetAllExpire();
      model.erase(known);
      for (auto& [other, life] : model) {
        if (life.parent == pid) life.parent = kInit;
      }
    }
    for (const auto& [other, life] : model) ASSERT_EQ(TagsOf(other), life.tags) << "step " << step << ", " << other;
  }
}

// Threads

TEST_F(TaggingEngineTest, SettingsMayChangeWhileEventsAreJudged) {
  Make("10", All(10));
  std::atomic<bool> is_over = false;
  std::thread control([&] {
    for (int i = 0; i < 50; ++i) {
      engine_->Configure(i % 2 == 0 ? Settings("0", {}) : Settings("10", All(10)));
      EXPECT_TRUE(engine_->GetThresholdScore() == 0 || engine_->GetThresholdScore() == 10);
    }
    is_over = true;
  });
  while (!is_over) (void)Judge(cron_);
  control.join();
  EXPECT_EQ(Judge(cron_), Verdict::Suspicious);
}

}  // namespace
}  // namespace zagent::ioc::internal

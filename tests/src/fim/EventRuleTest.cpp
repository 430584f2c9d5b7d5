#include "src/fim/EventRule.h"

#include <gtest/gtest.h>

#include "tests/fakes/FakeEvent.h"
#include "tests/fakes/LogCapture.h"
#include "tests/src/fim/Json.h"

namespace zagent::fim::internal {
namespace {

using edr::EventType;
using edr::EventTypes;
using edr::MatchResult;
using fakes::FakeEvent;
using fakes::LogCapture;

// The JSON of a directory rule on /etc, whose members a test replaces.
struct RuleText {
  std::string id = R"("rule-1")";
  std::string type = R"("directory")";
  std::string path = R"("/etc")";
  std::string depth = R"("all")";
  std::string notify = R"(["read","create","delete","rename","modifyContent","modifyMetadata"])";
  std::string more;

  [[nodiscard]] std::string Text() const {
    std::string text;
    const auto add = [&](const char* key, const std::string& value) {
      if (!value.empty()) text += (text.empty() ? "{\"" : ",\"") + std::string(key) + "\":" + value;
    };
    add("ruleId", id);
    add("ruleType", type);
    add("imagePath", path);
    add("recursiveDepth", depth);
    add("notify", notify);
    return text + more + "}";
  }
  [[nodiscard]] EventRule Make() const { return EventRule(Json(Text()).Value()); }
  [[nodiscard]] std::string Error() const {
    try {
      (void)Make();
      return "";
    } catch (const edr::EventRuleException& error) {
      return error.what();
    }
  }
};

RuleText FileRule(const std::string& path) {
  RuleText rule;
  rule.type = R"("file")";
  rule.path = "\"" + path + "\"";
  rule.depth = "";
  return rule;
}

FakeEvent Event(EventType type, const std::string& path) {
  return FakeEvent(type, "action", path);
}

FakeEvent Rename(const std::string& from, const std::string& to) {
  FakeEvent event = Event(EventType::Rename, from);
  event.new_file = common::ImageInfo(to);
  return event;
}

TEST(EventRuleTest, NotifyWordsBecomeActionsOfFilesAndFolders) {
  const EventRule rule = RuleText().Make();
  const EventTypes all = {EventType::Read,   EventType::Create, EventType::Delete,
                          EventType::Rename, EventType::Write,  EventType::AttributeChange};
  EXPECT_EQ(rule.GetFileActions(), all);
  EXPECT_EQ(rule.GetDirectoryActions(), all);
  EXPECT_EQ(rule.GetType(), edr::ObjectType::Directory);
  EXPECT_EQ(rule.GetId(), "rule-1");
  EXPECT_EQ(rule.GetName(), "rule-1");
  EXPECT_EQ(rule.GetReportId(), "rule-1");
  EXPECT_EQ(rule.GetPath(), "/etc");
}

TEST(EventRuleTest, BothAttributeWordsReportAttributeChangesOnly) {
  for (const char* word : {R"(["modifySecuritySettings"])", R"(["modifyMetadata"])"}) {
    RuleText text;
    text.notify = word;
    const EventRule rule = text.Make();
    EXPECT_EQ(rule.GetFileActions(), EventTypes{EventType::AttributeChange});
    EXPECT_TRUE(rule.PostProcess(Event(EventType::AttributeChange, "/etc/passwd")));
    EXPECT_FALSE(rule.PostProcess(Event(EventType::Write, "/etc/passwd")));
  }
}

TEST(EventRuleTest, AccessorsOfOtherRuleKindsThrow) {
  const EventRule rule = FileRule("/etc/passwd").Make();
  const auto error_of = [](const auto& call) -> std::string {
    try {
      call();
      return "";
    } catch (const edr::EventRuleException& error) {
      return error.what();
    }
  };
  EXPECT_EQ(error_of([&] { (void)rule.GetDirectoryActions(); }), "Fetching Directory actions for non-directory rule");
  EXPECT_EQ(error_of([&] { (void)rule.GetProcessActions(); }), "Fetching Process actions for non-process rule");
  EXPECT_NE(error_of([&] { (void)rule.GetNetworkActions(); }), "");
}

TEST(EventRuleTest, MalformedRulesAreRefusedWithTheirReason) {
  const auto error = [](const auto& change) {
    RuleText rule;
    change(rule);
    return rule.Error();
  };
  EXPECT_EQ(error([](RuleText& rule) { rule.id = ""; }), "Missing mandatory element: ruleId");
  EXPECT_EQ(error([](RuleText& rule) { rule.id = "7"; }), "Invalid Rule json values");
  EXPECT_EQ(error([](RuleText& rule) { rule.type = ""; }), "Missing mandatory element: ruleType");
  EXPECT_EQ(error([](RuleText& rule) { rule.type = R"("socket")"; }), "Rule type is invalid");
  EXPECT_EQ(error([](RuleText& rule) { rule.path = ""; }), "Missing mandatory element: imagePath");
  EXPECT_EQ(error([](RuleText& rule) { rule.path = R"("")"; }), "Cannot create rule: Path is empty.");
  EXPECT_EQ(error([](RuleText& rule) { rule.path = R"("etc")"; }), "Cannot create rule: Path is not absolute.");
  EXPECT_EQ(error([](RuleText& rule) { rule.path = "\"/etc\\u0000/x\""; }), "Invalid Rule json values");
  EXPECT_EQ(error([](RuleText& rule) { rule.depth = ""; }), "Missing mandatory element: recursiveDepth");
  EXPECT_EQ(error([](RuleText& rule) { rule.depth = "3"; }), "Recursive Depth: string is expected");
  EXPECT_EQ(error([](RuleText& rule) { rule.depth = R"("deep")"; }), "Recursive Depth: a decimal number is expected");
  EXPECT_EQ(error([](RuleText& rule) { rule.notify = ""; }), "Missing mandatory element: notify");
  EXPECT_EQ(error([](RuleText& rule) { rule.notify = "{}"; }), "Invalid Rule json values");
  EXPECT_EQ(error([](RuleText& rule) { rule.notify = "[]"; }), "No Actions in Notify List");
  EXPECT_EQ(error([](RuleText& rule) { rule.notify = R"(["write"])"; }), "Invalid Notify Flag");
  EXPECT_EQ(error([](RuleText& rule) { rule.notify = "[4]"; }), "Invalid Notify Flag");
  EXPECT_EQ(error([](RuleText& rule) { rule.more = R"(,"trackContentChange":1)"; }), "Invalid Rule json values");
}

TEST(EventRuleTest, MalformedFilterSectionsAreRefusedWithTheirReason) {
  RuleText rule;
  rule.more = R"(,"inclusionFilters":{})";
  EXPECT_EQ(rule.Error(), "Failed to parse inclusion filters: Filters not array");
  rule.more = R"(,"exclusionFilters":[{"exclusionFilter":{}}])";
  EXPECT_EQ(rule.Error(), "Failed to parse exclusion filters: Missing or invalid filters.");
}

TEST(EventRuleTest, AFaultSaysWhereItIs) {
  const auto place = [](const auto& change) {
    RuleText rule;
    change(rule);
    try {
      (void)rule.Make();
      return JsonPlace{"no fault"};
    } catch (const RuleFault& fault) {
      return fault.Place();
    }
  };
  EXPECT_EQ(place([](RuleText& rule) { rule.id = ""; }), JsonPlace{});
  EXPECT_EQ(place([](RuleText& rule) { rule.type = "7"; }), JsonPlace{"ruleType"});
  EXPECT_EQ(place([](RuleText& rule) { rule.path = R"("etc")"; }), JsonPlace{"imagePath"});
  EXPECT_EQ(place([](RuleText& rule) { rule.depth = "3"; }), JsonPlace{"recursiveDepth"});
  EXPECT_EQ(place([](RuleText& rule) { rule.notify = R"(["read","x"])"; }), (JsonPlace{"notify", "1"}));
  EXPECT_EQ(place([](RuleText& rule) { rule.notify = "[]"; }), JsonPlace{"notify"});
  EXPECT_EQ(place([](RuleText& rule) { rule.more = R"(,"trackContentChange":1)"; }), JsonPlace{"trackContentChange"});
  EXPECT_EQ(place([](RuleText& rule) { rule.more = R"(,"inclusionFilters":7)"; }), JsonPlace{"inclusionFilters"});
  EXPECT_EQ(place([](RuleText& rule) {
              rule.more = R"(,"inclusionFilters":[{"actorUsername":["a"]},{"inclusionFilter":{"actorProcess":[1]}}])";
            }),
            (JsonPlace{"inclusionFilters", "1", "inclusionFilter", "actorProcess", "0"}));
  EXPECT_EQ(place([](RuleText& rule) {
              rule.more = R"(,"exclusionFilters":[{"timespanStart":"01:00:00","timespanEnd":"x"}])";
            }),
            (JsonPlace{"exclusionFilters", "0", "timespanEnd"}));
}

TEST(EventRuleTest, DepthNoneAcceptsPathsOfTheRulesOwnDepthOnly) {
  RuleText text;
  text.depth = R"("none")";
  const EventRule rule = text.Make();
  EXPECT_TRUE(rule.PostProcess(Event(EventType::Write, "/etc")));
  EXPECT_FALSE(rule.PostProcess(Event(EventType::Write, "/etc/passwd")));
}

TEST(EventRuleTest, DepthOneAllowsOneLevelMore) {
  RuleText text;
  text.depth = R"("1")";
  const EventRule rule = text.Make();
  EXPECT_TRUE(rule.PostProcess(Event(EventType::Write, "/etc/passwd")));
  EXPECT_TRUE(rule.PostProcess(Event(EventType::Write, "/etc/ssh/")));
  EXPECT_FALSE(rule.PostProcess(Event(EventType::Write, "/etc/ssh/sshd_config")));
}

TEST(EventRuleTest, DepthWordsIgnoreCaseAndNoDepthGoesBeyondTen) {
  const std::string ten = "/etc/1/2/3/4/5/6/7/8/9/10";
  for (const char* depth : {R"("ALL")", R"("10")", R"("11")", R"("99999999999999999999")"}) {
    RuleText text;
    text.depth = depth;
    const EventRule rule = text.Make();
    EXPECT_TRUE(rule.PostProcess(Event(EventType::Write, ten))) << depth;
    EXPECT_FALSE(rule.PostProcess(Event(EventType::Write, ten + "/11"))) << depth;
  }
  RuleText none;
  none.depth = R"("NoNe")";
  EXPECT_FALSE(none.Make().PostProcess(Event(EventType::Write, "/etc/passwd")));
}

TEST(EventRuleTest, ATrailingSlashOfTheRulesPathDoesNotCountAsDepth) {
  RuleText text;
  text.path = R"("/etc/")";
  text.depth = R"("1")";
  const EventRule rule = text.Make();
  EXPECT_TRUE(rule.PostProcess(Event(EventType::Write, "/etc/passwd")));
  EXPECT_FALSE(rule.PostProcess(Event(EventType::Write, "/etc/ssh/sshd_config")));
}

TEST(EventRuleTest, ARenameIsReportedWhenEitherEndLiesBelowThePath) {
  const EventRule rule = RuleText().Make();
  EXPECT_TRUE(rule.PostProcess(Rename("/tmp/new", "/etc/passwd")));
  EXPECT_TRUE(rule.PostProcess(Rename("/etc/passwd", "/tmp/old")));
  EXPECT_TRUE(rule.PostProcess(Rename("/etc/a", "/etc/b")));
  EXPECT_FALSE(rule.PostProcess(Rename("/tmp/a", "/tmp/b")));
}

// Of another hard link or a bind mount there is no telling how deep it lies.
TEST(EventRuleTest, JudgesWhatLiesElsewhereByItsActionAlone) {
  RuleText text;
  text.depth = R"("none")";
  text.notify = R"(["delete","rename"])";
  const EventRule rule = text.Make();
  EXPECT_EQ(rule.Match(Event(EventType::Delete, "/srv/a/b/c")), MatchResult::Matched);
  EXPECT_EQ(rule.Match(Event(EventType::Delete, "/etcetera/a/b")), MatchResult::Matched);
  EXPECT_EQ(rule.Match(Event(EventType::Write, "/srv/a/b/c")), MatchResult::OutOfScope);
  EXPECT_EQ(rule.Match(Event(EventType::Delete, "a/b/c")), MatchResult::OutOfScope) << "nobody knows where it lies";
  EXPECT_EQ(rule.Match(Event(EventType::Delete, "/etc/passwd")), MatchResult::OutOfScope) << "too deep";
  EXPECT_EQ(rule.Match(Rename("/srv/a", "/srv/b")), MatchResult::Matched);
  EXPECT_EQ(rule.Match(Rename("/srv/a", "/etc/b")), MatchResult::OutOfScope) << "one end is here, and too deep";
}

TEST(EventRuleTest, TakesAPathThatIsNotTidyForWhatItMeans) {
  for (const char* path : {"/etc//ssh", "/etc/ssh/"}) {
    RuleText text;
    text.path = "\"" + std::string(path) + "\"";
    text.depth = R"("none")";
    text.notify = R"(["delete"])";
    const EventRule rule = text.Make();
    EXPECT_EQ(rule.Match(Event(EventType::Delete, "/etc/ssh")), MatchResult::Matched) << path;
    EXPECT_EQ(rule.Match(Event(EventType::Delete, "/etc/ssh/moduli")), MatchResult::OutOfScope)
        << path << ": it lies here, and too deep";
    EXPECT_EQ(rule.Match(Event(EventType::Delete, "/etc/ssh2/a/b")), MatchResult::Matched) << path << ": elsewhere";
  }
}

TEST(EventRuleTest, AnUntidyPathFindsBothEndsOfARename) {
  for (const char* path : {"/etc/ssh/", "/etc//ssh", "/etc/./ssh", "/etc/ssh/.", "/etc/ssh//", "/etc/ssl/../ssh"}) {
    RuleText text;
    text.path = "\"" + std::string(path) + "\"";
    text.depth = R"("1")";
    const EventRule rule = text.Make();
    if (std::string(path).find("..") == std::string::npos) {
      EXPECT_EQ(rule.GetPath(), "/etc/ssh") << "as the kernel and the path index know it";
    }
    EXPECT_EQ(rule.Match(Event(EventType::Write, std::string(path) + "/moduli")), MatchResult::Matched);
    EXPECT_EQ(rule.Match(Event(EventType::Write, std::string(path) + "/a/b")), MatchResult::OutOfScope);
    EXPECT_TRUE(rule.PostProcess(Rename("/etc/ssh", "/srv/ssh"))) << path;
    EXPECT_TRUE(rule.PostProcess(Rename("/tmp/new", "/etc/ssh/moduli"))) << path;
    EXPECT_TRUE(rule.PostProcess(Rename("/etc/ssh/moduli", "/tmp/old"))) << path;
    EXPECT_FALSE(rule.PostProcess(Rename("/tmp/new", "/etc/ssh/keys/host"))) << path << ": too deep";
    EXPECT_FALSE(rule.PostProcess(Rename("/tmp/a", "/etc/ssl/b"))) << path;
  }
}

TEST(EventRuleTest, APathPatternContinuesAnUntidyPathToo) {
  for (const char* path : {"/etc/ssh/", "/etc//ssh", "/etc/./ssh"}) {
    RuleText text;
    text.path = "\"" + std::string(path) + "\"";
    text.more = R"(,"exclusionFilters":[{"objectType":"file","patterns":["/moduli"]}])";
    const EventRule rule = text.Make();
    EXPECT_EQ(rule.Match(Event(EventType::Write, "/etc/ssh/moduli")), MatchResult::RefusedByFilter) << path;
    EXPECT_EQ(rule.Match(Event(EventType::Write, "/etc/ssh/known")), MatchResult::Matched) << path;
    EXPECT_EQ(EventRule(rule, "rule-1-1", "/srv//real/").Match(Event(EventType::Write, "/srv/real/moduli")),
              MatchResult::RefusedByFilter);
  }
}

TEST(EventRuleTest, TheRootFolderHoldsEverything) {
  RuleText text;
  text.path = R"("/")";
  text.depth = R"("1")";
  const EventRule rule = text.Make();
  EXPECT_TRUE(rule.PostProcess(Rename("/etc/passwd", "/etc/a/b/c")));
  EXPECT_EQ(rule.Match(Event(EventType::Write, "/etc/passwd")), MatchResult::Matched);
  EXPECT_EQ(rule.Match(Event(EventType::Write, "/etc/ssh/moduli")), MatchResult::OutOfScope);
}

TEST(EventRuleTest, ARenameMustHaveBothPathAndDepthAtOneEnd) {
  RuleText text;
  text.depth = R"("1")";
  const EventRule rule = text.Make();
  // Below the path but too deep at one end, shallow but elsewhere at the other.
  EXPECT_FALSE(rule.PostProcess(Rename("/etc/ssh/sshd_config", "/tmp/x")));
  EXPECT_TRUE(rule.PostProcess(Rename("/etc/ssh/sshd_config", "/etc/x")));
}

TEST(EventRuleTest, DropsAreExplainedInTheDebugLog) {
  const LogCapture log;
  RuleText text;
  text.notify = R"(["create"])";
  text.depth = R"("none")";
  const EventRule rule = text.Make();
  FakeEvent event = Event(EventType::Delete, "/etc/passwd");
  event.id = 42;
  EXPECT_FALSE(rule.PostProcess(event));
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, "[FIM]: Dropping Event 42 as no actions matched in rule: rule-1"));
  event.type = EventType::Create;
  EXPECT_FALSE(rule.PostProcess(event));
  EXPECT_TRUE(log.Has("Recursive depth for rule:rule-1 not matching with rule for event:42"));
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_TRACE, "Depth of path : /etc/passwd is 1"));
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_TRACE, "[FIM]: Event Path for PostProcessing/etc/passwd"));
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_TRACE, "[FIM]: PostProcess event for ruleId: rule-1"));
}

TEST(EventRuleTest, AFileRuleTakesNoEventOfAFolder) {
  const EventRule rule = FileRule("/etc/passwd").Make();
  FakeEvent event = Event(EventType::Delete, "/etc/passwd");
  EXPECT_EQ(rule.Match(event), MatchResult::Matched);
  event.object_type = edr::ObjectType::Directory;
  EXPECT_EQ(rule.Match(event), MatchResult::OutOfScope);
}

TEST(EventRuleTest, AnEventWithoutAFileIsNoReasonToFall) {
  const EventRule rule = RuleText().Make();
  FakeEvent event;
  event.type = EventType::Rename;
  EXPECT_FALSE(rule.PostProcess(event));
}

TEST(EventRuleTest, InclusionFiltersLetThroughWhatOneOfThemMatches) {
  const LogCapture log;
  RuleText text;
  text.more = R"(,"inclusionFilters":[{"inclusionFilter":{"objectType":"file","patterns":["passwd"]}},
                                      {"objectType":"file","patterns":["group"]}])";
  const EventRule rule = text.Make();
  EXPECT_EQ(rule.Match(Event(EventType::Write, "/etc/passwd")), MatchResult::Matched);
  EXPECT_EQ(rule.Match(Event(EventType::Write, "/etc/group")), MatchResult::Matched);
  EXPECT_EQ(rule.Match(Event(EventType::Write, "/etc/hosts")), MatchResult::RefusedByFilter);
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, "matching inclusion criterias"));
}

TEST(EventRuleTest, ExclusionFiltersHoldBackWhatOneOfThemMatches) {
  const LogCapture log;
  RuleText text;
  text.more = R"(,"exclusionFilters":[{"exclusionFilter":{"objectType":"file","patterns":["*.swp"]}}])";
  const EventRule rule = text.Make();
  EXPECT_EQ(rule.Match(Event(EventType::Write, "/etc/.passwd.swp")), MatchResult::RefusedByFilter);
  EXPECT_FALSE(log.Has("Exclusion filters not matched"));
  EXPECT_EQ(rule.Match(Event(EventType::Write, "/etc/passwd")), MatchResult::Matched);
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, "Applying Exclusion filters"));
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, "Exclusion filters not matched"));
}

TEST(EventRuleTest, OnlyAnExclusionByTheEventsProcessTrustsItsName) {
  RuleText rule;
  FakeEvent event = Event(EventType::Write, "/etc/passwd");
  event.image = common::ImageInfo("/usr/bin/apt-get");
  EXPECT_FALSE(rule.Make().TrustsProgramOf(event));
  rule.more = R"(,"exclusionFilters":[{"objectType":"file","patterns":["*"]}])";
  EXPECT_FALSE(rule.Make().TrustsProgramOf(event));
  rule.more = R"(,"exclusionFilters":[{"actorUsername":["x"]},{"actorProcess":["apt-get"]}])";
  EXPECT_TRUE(rule.Make().TrustsProgramOf(event));
  event.image = common::ImageInfo("/usr/bin/vi");
  EXPECT_FALSE(rule.Make().TrustsProgramOf(event));
  event.image = common::ImageInfo("/usr/bin/apt-get");
  rule.more += R"(,"inclusionFilters":[{"actorProcess":["apt-get"]}])";
  EXPECT_FALSE(rule.Make().TrustsProgramOf(event)) << "the exclusion is not looked at";
}

TEST(EventRuleTest, AnAtomicReplacementOfAWatchedFileIsReported) {
  RuleText rule;
  rule.more = R"(,"inclusionFilters":[{"objectType":"file","patterns":["passwd"]}])";
  EXPECT_EQ(rule.Make().Match(Rename("/etc/passwd+", "/etc/passwd")), MatchResult::Matched);
  EXPECT_EQ(rule.Make().Match(Rename("/etc/group+", "/etc/group")), MatchResult::RefusedByFilter);
  rule.more = R"(,"exclusionFilters":[{"objectType":"file","patterns":["*+"]}])";
  EXPECT_EQ(rule.Make().Match(Rename("/etc/passwd+", "/etc/passwd")), MatchResult::Matched);
  EXPECT_EQ(rule.Make().Match(Rename("/etc/a+", "/etc/b+")), MatchResult::RefusedByFilter);
}

TEST(EventRuleTest, WithBothKindsTheInclusionFiltersAloneDecide) {
  RuleText text;
  text.more = R"(,"inclusionFilters":[{"objectType":"file","patterns":["passwd"]}],
                  "exclusionFilters":[{"objectType":"file","patterns":["*"]}])";
  const EventRule rule = text.Make();
  EXPECT_EQ(rule.Match(Event(EventType::Write, "/etc/passwd")), MatchResult::Matched);
  EXPECT_EQ(rule.Match(Event(EventType::Write, "/etc/hosts")), MatchResult::RefusedByFilter);
}

TEST(EventRuleTest, ContentIsTrackedWhenTheRuleHearsOfChanges) {
  for (const char* word : {"modifyContent", "delete", "rename", "create"}) {
    RuleText text;
    text.notify = std::string("[\"read\",\"") + word + "\"]";
    text.more = R"(,"trackContentChange":true)";
    EXPECT_TRUE(text.Make().IsTrackContentChange()) << word;
  }
  EXPECT_FALSE(RuleText().Make().IsTrackContentChange());
}

TEST(EventRuleTest, TrackingContentOfARuleThatOnlyHearsReadsIsSwitchedOff) {
  const LogCapture log;
  RuleText text;
  text.notify = R"(["read"])";
  text.more = R"(,"trackContentChange":true)";
  const EventRule rule = text.Make();
  EXPECT_FALSE(rule.IsTrackContentChange());
  EXPECT_EQ(rule.Match(Event(EventType::Read, "/etc/passwd")), MatchResult::Matched);
  EXPECT_TRUE(
      log.Has("Required actions like modifyContent, delete, rename, create are not enabled so "
              "trackcontentchange cannot be enable for this rule: rule-1"))
      << log.All();
}

TEST(EventRuleTest, ADerivedRuleHasItsOwnIdAndPathAndReportsTheOldId) {
  RuleText text;
  text.path = R"("/link")";
  text.depth = R"("1")";
  text.more = R"(,"trackContentChange":true,"inclusionFilters":[{"objectType":"file","patterns":["/x"]}])";
  const EventRule rule(text.Make(), "rule-1-1", "/deep/real");
  EXPECT_EQ(rule.GetId(), "rule-1-1");
  EXPECT_EQ(rule.GetReportId(), "rule-1");
  EXPECT_EQ(rule.GetPath(), "/deep/real");
  EXPECT_TRUE(rule.IsTrackContentChange());
  EXPECT_EQ(rule.Match(Event(EventType::Write, "/deep/real/x")), MatchResult::Matched);
  EXPECT_EQ(rule.Match(Event(EventType::Write, "/deep/real/y")), MatchResult::RefusedByFilter);
  EXPECT_EQ(rule.Match(Event(EventType::Write, "/deep/real/y/x")), MatchResult::OutOfScope);
  EXPECT_THROW(EventRule(text.Make(), "rule-1", ""), edr::EventRuleException);
}

TEST(EventRuleTest, StagesOfParsingAreInTheDebugLog) {
  const LogCapture log;
  (void)RuleText().Make();
  for (const char* line : {"Parsing Rule with id: rule-1", "Recursive depth is set to: 10", "Reading Inclusion Filters",
                           "Reading Exclusion Filters", "Parsed rule with id: rule-1"}) {
    EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, std::string("[FIM]: ") + line)) << line;
  }
}

}  // namespace
}  // namespace zagent::fim::internal

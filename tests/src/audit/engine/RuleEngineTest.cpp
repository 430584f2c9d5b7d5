#include <gtest/gtest.h>
#include <libaudit.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "src/audit/rules/AuditSocket.h"
#include "tests/src/audit/engine/RuleEngineFixture.h"

namespace zagent::audit {
namespace {

using namespace std::chrono_literals;
using edr::EventType;
using edr::ObjectType;
using fakes::FakeEvent;
using fakes::FakeRule;
using fakes::SeenRule;

class RuleEngineTest : public RuleEngineFixture {
 protected:
  // As somebody with auditctl does.
  void TakeFromKernel(const std::string& key) {
    internal::AuditSocket socket(kernel_, "Test");
    for (internal::AuditRule& rule : socket.GetRulesFromAudit()) {
      if (rule.GetKey() == key) socket.Delete(rule);
    }
  }
};

// --- start and end

TEST_F(RuleEngineTest, StartsWithItsExclusionsAndARaisedLimit) {
  EXPECT_EQ(Exclusions(), kAllExclusions);
  EXPECT_EQ(kernel_.backlog_limit, 8192U);
  const std::vector<SeenRule> own = kernel_.RulesWithKey("ostrel_ignore_rule_ostrel-edr");
  ASSERT_EQ(own.size(), 1U);
  EXPECT_EQ(own[0].Find(AUDIT_PID)->value, static_cast<std::uint32_t>(getpid()));
  EXPECT_EQ(kernel_.OpenDescriptors(), 0U);
}

TEST_F(RuleEngineTest, LeavesAHigherLimitAlone) {
  engine_.reset();
  kernel_.backlog_limit = 100'000;
  Start();
  EXPECT_EQ(kernel_.backlog_limit, 100'000U);
}

TEST_F(RuleEngineTest, DoesNotTakeALateStatusForTheAnswerToARule) {
  engine_.reset();
  kernel_.foreign_type = AUDIT_USER;  // in front of the status, which is left behind
  kernel_.foreign_count = 1;
  kernel_.refuse_add = [](const SeenRule& rule) { return rule.Key() == "ostrel_ignore_rule_ostrel-edr" ? EPERM : 0; };
  Start();
  EXPECT_TRUE(log_.Has("GetAuditBacklogLimit: Invalid audit reply"));
  EXPECT_TRUE(log_.Has("Failed to add exclusion rule for pid " + std::to_string(getpid()) + " (errno = 1)"));
}

TEST_F(RuleEngineTest, CannotStartWithoutAnAuditSocket) {
  engine_.reset();
  kernel_.open_error = EPERM;
  EXPECT_EQ(ErrorOf([&] { Start(); }), "engine: Failed to open audit socket");
  EXPECT_TRUE(log_.Has("RuleEngine: Failed to open audit socket: Operation not permitted (1)"));
}

TEST_F(RuleEngineTest, LeavesTheKernelWithoutAnyRuleOfItsOwn) {
  engine_->AddRules("FIM", {Watch("a"), Watch("b")});
  engine_->AddRules("IOC", {Watch("c")});
  engine_.reset();
  EXPECT_TRUE(kernel_.Rules().empty());
  EXPECT_EQ(kernel_.OpenDescriptors(), 0U);
  EXPECT_TRUE(log_.Has("Destroying RuleEngine"));
}

TEST_F(RuleEngineTest, EndsWithoutASocketToo) {
  kernel_.open_error = EMFILE;
  engine_.reset();
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR,
                       "RuleEngine::~RuleEngine: Failed to open audit socket: Too many open files (24)"));
}

TEST_F(RuleEngineTest, ClearsUpAfterARunThatWasKilled) {
  engine_->AddRules("FIM", {Watch("a")});
  kernel_.open_error = EMFILE;
  engine_.reset();  // as good as killed
  kernel_.open_error = 0;
  ASSERT_EQ(kernel_.Rules().size(), kAllExclusions + 1);

  Start();
  EXPECT_EQ(Exclusions(), kAllExclusions);
  engine_->AddRules("FIM", {FakeRule::Directory("a", folder_.Path(), {EventType::AttributeChange})});
  ASSERT_EQ(InstalledIds(), (Ids{"a"}));
  EXPECT_EQ(kernel_.RulesWithKey("a").front().Permissions(), static_cast<std::uint32_t>(AUDIT_PERM_ATTR));
  EXPECT_TRUE(log_.Has("RuleEngine::DeleteExclusionRules: Deleted old rule ostrel_ignore_rule_ostrel-edr"));
}

// --- rules

TEST_F(RuleEngineTest, RefusesAnEmptyTagAndANullRule) {
  EXPECT_EQ(ErrorOf([&] { engine_->AddRules("", {Watch("a")}); }), "RuleEngine::AddRules: 'tag' is empty");
  EXPECT_EQ(ErrorOf([&] {
              engine_->AddRules("FIM", {Watch("a"), nullptr});
            }),
            "RuleEngine::AddRules: 'rule' is nullptr");
  EXPECT_TRUE(InstalledIds().empty());
}

TEST_F(RuleEngineTest, InstallsRulesInTheOrderOfTheirIds) {
  engine_->AddRules("FIM", {Watch("b"), Watch("c"), Watch("a")});
  EXPECT_EQ(InstalledIds(), (Ids{"a", "b", "c"}));
  EXPECT_TRUE(log_.Has("RuleEngine::AddRules: Adding 3 rules"));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG, "RuleEngine::AddRules: Added rule with ID a"));
}

TEST_F(RuleEngineTest, ReplacesTheRulesOfATagOnly) {
  engine_->AddRules("FIM", {Watch("a"), Watch("b")});
  engine_->AddRules("IOC", {Watch("x")});
  engine_->AddRules("FIM", {Watch("b"), Watch("c")});
  EXPECT_EQ(InstalledIds(), (Ids{"b", "x", "c"}));
}

TEST_F(RuleEngineTest, KeepsARuleThatIsInBothSetsInForce) {
  Listen("FIM");
  const Rule kept = Watch("kept");
  engine_->AddRules("FIM", {kept, Watch("gone")});
  engine_->AddRules("FIM", {kept});
  EXPECT_EQ(InstalledIds(), (Ids{"kept"}));
  engine_->ProcessEvent(FolderEvent(1, folder_ / "sub"));
  EXPECT_EQ(heard_, (Ids{"FIM kept,:1"}));
}

TEST_F(RuleEngineTest, TakesANewObjectUnderAnOldIdForANewRule) {
  Listen("FIM");
  engine_->AddRules("FIM", {FakeRule::Directory("a", folder_.Path(), {EventType::Write})});
  engine_->AddRules("FIM", {FakeRule::Directory("a", "/tmp", {EventType::AttributeChange})});
  const std::vector<SeenRule> rules = kernel_.RulesWithKey("a");
  ASSERT_EQ(rules.size(), 1U);
  EXPECT_EQ(rules[0].Path(), "/tmp");
  engine_->ProcessEvent(FolderEvent(1, "/tmp/sub"));
  EXPECT_EQ(heard_, (Ids{"FIM a,:1"}));
}

TEST_F(RuleEngineTest, AnEmptySetRemovesTheRulesOfTheTag) {
  Listen("FIM");
  engine_->AddRules("FIM", {Watch("a")});
  engine_->AddRules("FIM", {});
  EXPECT_TRUE(InstalledIds().empty());
  EXPECT_EQ(Exclusions(), kAllExclusions);
  engine_->ProcessEvent(FolderEvent(1, folder_ / "sub"));
  EXPECT_TRUE(heard_.empty());
}

TEST_F(RuleEngineTest, SharesAnIdBetweenTagsWithoutHarm) {
  engine_->AddRules("IOC", {Watch("1")});
  engine_->AddRules("FIM", {FakeRule::File("1", "/etc/passwd", {EventType::Write})});
  const auto paths = [&] {
    std::set<std::string> found;
    for (const SeenRule& rule : kernel_.RulesWithKey("1")) found.insert(rule.Path());
    return found;
  };
  EXPECT_EQ(paths(), (std::set<std::string>{folder_.Path(), "/etc/passwd"}));
  engine_->AddRules("FIM", {Watch("1")});
  EXPECT_EQ(paths(), (std::set<std::string>{folder_.Path()}));
  engine_->AddRules("FIM", {});
  EXPECT_EQ(paths(), (std::set<std::string>{folder_.Path()}));
}

TEST_F(RuleEngineTest, DoesNotTouchTheKernelsRuleOfAnotherTagThatHasTheSameId) {
  engine_->AddRules("IOC", {Watch("1")});
  kernel_.calls.clear();
  engine_->AddRules("FIM", {FakeRule::File("1", "/etc/passwd", {EventType::Write})});
  EXPECT_EQ(kernel_.calls, (std::vector<std::string>{"add 1"}));
}

TEST_F(RuleEngineTest, LetsTwoTagsShareOneRuleOfTheKernel) {
  engine_->AddRules("IOC", {Watch("1")});
  engine_->AddRules("FIM", {Watch("1")});
  EXPECT_EQ(InstalledIds(), (Ids{"1"}));
  engine_->AddRules("FIM", {});
  EXPECT_EQ(InstalledIds(), (Ids{"1"}));
  engine_->AddRules("IOC", {});
  EXPECT_TRUE(InstalledIds().empty());
}

// Between taking it away and adding it again nothing would be heard.
TEST_F(RuleEngineTest, LeavesARuleInTheKernelThatComesAgainAsItWas) {
  engine_->AddRules("FIM", {Watch("a"), Watch("b"), FakeRule::Directory("c", "/tmp", {EventType::Read})});
  kernel_.calls.clear();
  engine_->AddRules("FIM", {Watch("a"), FakeRule::Directory("c", "/tmp", {EventType::Write}), Watch("d")});
  EXPECT_EQ(kernel_.calls, (std::vector<std::string>{"delete c", "delete b", "delete c", "add c", "add d"}));
  EXPECT_EQ(InstalledIds(), (Ids{"a", "c", "d"}));
}

TEST_F(RuleEngineTest, AddsARuleAgainThatSomebodyHasTakenOutOfTheKernel) {
  engine_->AddRules("FIM", {Watch("a")});
  TakeFromKernel("a");
  ASSERT_TRUE(InstalledIds().empty());
  engine_->AddRules("FIM", {Watch("a")});
  EXPECT_EQ(InstalledIds(), (Ids{"a"}));
}

TEST_F(RuleEngineTest, DoesNotConfuseRulesOfDifferentTypesWithOneId) {
  const auto process = [](const std::string& path) {
    return std::make_shared<const FakeRule>("1", ObjectType::Process, path, edr::EventTypes{EventType::ProcessStart});
  };
  engine_->AddRules("IOC", {Watch("1"), process("/bin/sh")});
  EXPECT_EQ(InstalledIds(), (Ids{"1", "1"}));
  engine_->AddRules("IOC", {Watch("1")});
  ASSERT_EQ(InstalledIds(), (Ids{"1"}));
  EXPECT_EQ(kernel_.RulesWithKey("1").front().Path(), folder_.Path());
}

TEST_F(RuleEngineTest, RefusesTheSecondProcessRuleOnOneName) {
  const auto process = [](const std::string& path) {
    return std::make_shared<const FakeRule>("sh", ObjectType::Process, path, edr::EventTypes{EventType::ProcessStart});
  };
  EXPECT_EQ(ErrorOf([&] {
              engine_->AddRules("IOC", {process("/bin/sh"), process("/usr/bin/sh")});
            }),
            "engine: Cannot add more than 1 process rule for 'sh'");
  EXPECT_EQ(InstalledIds(), (Ids{"sh"}));
}

TEST_F(RuleEngineTest, TellsHowManyRulesAreInForceAfterEveryChange) {
  engine_->AddRules("FIM", {Watch("a"), FakeRule::Directory("b", folder_ / "missing", {EventType::Write})});
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_INFORMATION, "Rules in force: 1 of 2"));
  engine_->AddRules("IOC", {Watch("c")});
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_INFORMATION, "Rules in force: 2 of 3"));
  engine_->AddRules("FIM", {});
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_INFORMATION, "Rules in force: 1 of 1"));
}

TEST_F(RuleEngineTest, TellsHowFarItHasComeWhenTheKernelTakesItsTime) {
  kernel_.refuse_delete = [this](const SeenRule&) {
    clock_.Advance(3s);
    return 0;
  };
  engine_->AddRules("FIM", {Watch("a"), Watch("b"), Watch("c"), Watch("d")});
  engine_->AddRules("FIM", {});
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_INFORMATION, "RuleEngine::AddRules: Removed 2 of 4 rules"));
  EXPECT_EQ(log_.Count("RuleEngine::AddRules: Removed "), 2);
}

TEST_F(RuleEngineTest, KeepsTwoIdsOfOneTagApartThatBeginAlike) {
  const std::string uuid = "0f6d7a52-0b52-4f5e-9a3b-0a8a4a1f5c11";
  engine_->AddRules("FIM", {Watch(uuid + "-1"), FakeRule::File(uuid, "/etc/passwd", {EventType::Write})});
  engine_->AddRules("FIM", {Watch(uuid + "-1"), FakeRule::File(uuid, "/etc/group", {EventType::Write})});
  EXPECT_EQ(InstalledIds(), (Ids{uuid + "-1", uuid}));
  EXPECT_EQ(kernel_.RulesWithKey(uuid).front().Path(), "/etc/group");
}

TEST_F(RuleEngineTest, AcceptsARuleOnAPathThatDoesNotExist) {
  engine_->AddRules("FIM", {FakeRule::Directory("a", folder_ / "missing", {EventType::Write})});
  EXPECT_TRUE(InstalledIds().empty());
  EXPECT_TRUE(log_.Has("Ignoring rule a as path " + (folder_ / "missing") + " does not exist"));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_WARNING, "Rule a is not in force: there is no " + (folder_ / "missing")));
}

TEST_F(RuleEngineTest, InstallsTheOthersWhenOneRuleIsRefused) {
  const auto idle = FakeRule::Directory("b", folder_.Path(), {});
  EXPECT_EQ(ErrorOf([&] {
              engine_->AddRules("FIM", {Watch("a"), idle, Watch("c")});
            }),
            "engine: AddPathRules: Failed to add rule without actions: b");
  EXPECT_EQ(InstalledIds(), (Ids{"a", "c"}));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "RuleEngine::AddRules: Failed to add rule with ID b: "));
}

TEST_F(RuleEngineTest, TellsEachRuleThatWasRefused) {
  kernel_.refuse_add = [](const SeenRule& rule) { return rule.Key() == "b" || rule.Key() == "d" ? ENOSPC : 0; };
  edr::RuleEngineException::Refusals refusals;
  try {
    engine_->AddRules("FIM", {Watch("a"), Watch("b"), Watch("c"), Watch("d")});
  } catch (const edr::RuleEngineException& error) {
    refusals = error.GetRefusals();
  }
  EXPECT_EQ(refusals, (edr::RuleEngineException::Refusals{{"b", "Failed to add rule to audit subsystem"},
                                                          {"d", "Failed to add rule to audit subsystem"}}));
}

TEST_F(RuleEngineTest, RefusesARuleWhoseIdIsNoKey) {
  EXPECT_EQ(ErrorOf([&] {
              engine_->AddRules("FIM", {Watch("a>=b"), Watch("c")});
            }),
            "engine: CreateRules: Failed to add key for rule id a>=b: it holds an operator");
  EXPECT_EQ(InstalledIds(), (Ids{"c"}));
}

TEST_F(RuleEngineTest, RefusesARelativePathWithoutTouchingTheKernel) {
  EXPECT_EQ(ErrorOf([&] { engine_->AddRules("FIM", {FakeRule::File("a", "etc/passwd", {EventType::Write})}); }),
            "engine: Trie::Insert: path is empty or invalid");
  EXPECT_TRUE(InstalledIds().empty());
}

TEST_F(RuleEngineTest, RefusesTheSecondOfTwoRulesWithOneId) {
  EXPECT_EQ(ErrorOf([&] {
              engine_->AddRules("FIM", {Watch("a"), Watch("a")});
            }),
            "engine: Cannot add more than 1 rule with id 'a'");
  EXPECT_EQ(InstalledIds(), (Ids{"a"}));
}

TEST_F(RuleEngineTest, TriesARuleAgainThatTheKernelRefused) {
  const Rule rule = Watch("a");
  kernel_.refuse_add = [](const SeenRule&) { return ENOSPC; };
  EXPECT_EQ(ErrorOf([&] { engine_->AddRules("FIM", {rule}); }), "engine: Failed to add rule to audit subsystem");
  kernel_.refuse_add = nullptr;
  engine_->AddRules("FIM", {rule});
  EXPECT_EQ(InstalledIds(), (Ids{"a"}));
}

TEST_F(RuleEngineTest, LeavesNoHalfOfARuleInTheKernel) {
  kernel_.refuse_add = [](const SeenRule& rule) { return rule.Permissions() == AUDIT_PERM_WRITE ? ENOSPC : 0; };
  const auto rule = FakeRule::Directory("a", folder_.Path(), {EventType::Read, EventType::Write});
  EXPECT_NE(ErrorOf([&] { engine_->AddRules("FIM", {rule}); }), "no error");
  EXPECT_TRUE(InstalledIds().empty());
}

TEST_F(RuleEngineTest, ChangesNothingWithoutAnAuditSocket) {
  Listen("FIM");
  engine_->AddRules("FIM", {Watch("a")});
  kernel_.open_error = EMFILE;
  EXPECT_EQ(ErrorOf([&] { engine_->AddRules("FIM", {}); }), "engine: Failed to open audit socket");
  EXPECT_TRUE(log_.Has("RuleEngine::AddRules: Failed to open audit socket: Too many open files (24)"));
  engine_->ProcessEvent(FolderEvent(1, folder_ / "sub"));
  EXPECT_EQ(heard_, (Ids{"FIM a,:1"}));
}

// --- invalidation

TEST_F(RuleEngineTest, InvalidateDropsEverythingAndAsksTheOwnersToComeBack) {
  Listen("FIM");
  Listen("IOC");
  engine_->AddRules("FIM", {Watch("a")});
  engine_->AddRules("IOC", {Watch("b")});
  engine_->Invalidate();
  EXPECT_TRUE(InstalledIds().empty());
  EXPECT_EQ(Exclusions(), kAllExclusions);
  EXPECT_EQ(invalidated_, (std::vector<std::string>{"FIM", "IOC"}));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG, "RuleEngine::Invalidate: Cleaning up all rules"));
  engine_->ProcessEvent(FolderEvent(1, folder_ / "sub"));
  EXPECT_TRUE(heard_.empty());
}

TEST_F(RuleEngineTest, AnOwnerAddsItsRulesFromTheInvalidatedHandler) {
  const Rule rule = Watch("a");
  engine_->RegisterEventHandlers(
      "FIM", [](const Ids&, const edr::Event&) {}, [&] { engine_->AddRules("FIM", {rule}); });
  engine_->AddRules("FIM", {rule});
  engine_->Invalidate();
  EXPECT_EQ(InstalledIds(), (Ids{"a"}));
}

TEST_F(RuleEngineTest, InvalidateFailsWithoutAnAuditSocketAndLeavesTheRules) {
  engine_->AddRules("FIM", {Watch("a")});
  kernel_.open_error = EPERM;
  EXPECT_EQ(ErrorOf([&] { engine_->Invalidate(); }), "engine: Failed to open audit socket");
  EXPECT_TRUE(log_.Has("RuleEngine::Invalidate: Failed to open audit socket: Operation not permitted (1)"));
  EXPECT_EQ(InstalledIds(), (Ids{"a"}));
}

TEST_F(RuleEngineTest, InvalidateKeepsTheFileEventsThatRest) {
  const Rule rule = Watch("a");
  Listen("FIM");
  engine_->AddRules("FIM", {rule});
  auto event = std::make_unique<FakeEvent>(EventType::Write, "Write", folder_ / "file");
  engine_->ProcessEvent(std::move(event));
  engine_->Invalidate();
  engine_->AddRules("FIM", {rule});
  clock_.Advance(31s);
  engine_->OnIdle();
  EXPECT_EQ(heard_, (Ids{"FIM a,:1"}));
}

// --- exclusions

TEST_F(RuleEngineTest, MovesTheAgentsExclusions) {
  engine_->UpdateExclusions(401, "/opt/ostrel/bin/host-warden");
  EXPECT_EQ(kernel_.RulesWithKey("ostrel_ignore_rule_host-warden").at(0).Find(AUDIT_PID)->value, 401U);
  EXPECT_EQ(Exclusions(), kAllExclusions);
}

TEST_F(RuleEngineTest, DoesNotAskTheKernelWhenTheAgentIsTheSame) {
  const int opened = kernel_.OpenCount();
  engine_->UpdateExclusions(400, "/opt/ostrel/bin/host-warden");
  EXPECT_EQ(kernel_.OpenCount(), opened);
}

TEST_F(RuleEngineTest, LogsThatTheAgentsExclusionsCouldNotMoveAndTriesAgain) {
  kernel_.open_error = EMFILE;
  engine_->UpdateExclusions(401, "/opt/ostrel/bin/host-warden");
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR,
                       "RuleEngine: Failed to refresh exclusion rules in audit with new host warden pid: "
                       "Failed to open audit socket"));
  kernel_.open_error = 0;
  engine_->UpdateExclusions(401, "/opt/ostrel/bin/host-warden");
  EXPECT_EQ(kernel_.RulesWithKey("ostrel_ignore_rule_host-warden").at(0).Find(AUDIT_PID)->value, 401U);
}

}  // namespace
}  // namespace zagent::audit

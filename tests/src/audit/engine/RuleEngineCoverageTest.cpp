#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include "tests/src/audit/engine/RuleEngineFixture.h"

namespace zagent::audit {
namespace {

using edr::EventType;
using fakes::FakeRule;
using Folders = std::vector<internal::WatchedFolder>;

// --- extended coverage

class RuleEngineCoverageTest : public RuleEngineFixture {
 protected:
  void StartExtended() {
    engine_.reset();
    extended_coverage_ = true;
    Start();
  }
  [[nodiscard]] std::size_t RulesOfIoUring() const {
    std::size_t count = 0;
    for (const fakes::SeenRule& rule : kernel_.Rules()) count += rule.flags == 7U ? 1U : 0U;
    return count;
  }
};

TEST_F(RuleEngineCoverageTest, InstallsTheWatchAloneWithoutTheKey) {
  engine_->AddRules("FIM", {Watch("a")});
  EXPECT_EQ(InstalledIds(), (Ids{"a"}));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_INFORMATION, "Extended coverage is off"));
}

TEST_F(RuleEngineCoverageTest, InstallsWhatTheWatchDoesNotTellBehindIt) {
  StartExtended();
  EXPECT_EQ(Exclusions(), kAllExclusions);
  engine_->AddRules("FIM", {Watch("a")});
  const auto rules = kernel_.RulesWithKey("a");
  ASSERT_EQ(rules.size(), 5U);
  EXPECT_NE(rules[0].Permissions(), 0U);
  EXPECT_EQ(RulesOfIoUring(), 1U);
}

TEST_F(RuleEngineCoverageTest, TakesEverythingAwayWithTheRule) {
  StartExtended();
  engine_->AddRules("FIM", {Watch("a"), Watch("b")});
  engine_->AddRules("FIM", {Watch("b")});
  EXPECT_EQ(InstalledIds(), Ids(5, "b"));
  engine_->AddRules("FIM", {});
  EXPECT_TRUE(InstalledIds().empty());
  EXPECT_EQ(RulesOfIoUring(), 0U);
}

TEST_F(RuleEngineCoverageTest, LeavesNothingInTheKernel) {
  StartExtended();
  engine_->AddRules("FIM", {Watch("a")});
  engine_.reset();
  EXPECT_TRUE(kernel_.Rules().empty());
  EXPECT_FALSE(log_.Has(Poco::Message::PRIO_WARNING, "Failed to delete"));
}

TEST_F(RuleEngineCoverageTest, ClearsUpAfterARunThatWasKilled) {
  StartExtended();
  engine_->AddRules("FIM", {Watch("a")});
  kernel_.open_error = EMFILE;
  engine_.reset();  // as good as killed
  kernel_.open_error = 0;
  ASSERT_EQ(RulesOfIoUring(), 1U);

  extended_coverage_ = false;
  Start();
  engine_->AddRules("FIM", {Watch("a")});
  EXPECT_EQ(InstalledIds(), (Ids{"a"}));
  EXPECT_EQ(RulesOfIoUring(), 0U);
}

TEST_F(RuleEngineCoverageTest, ClearsUpATrialThatWasCutShort) {
  kernel_.refuse_delete = [](const fakes::SeenRule& rule) { return rule.flags == 7U ? EPERM : 0; };
  StartExtended();
  ASSERT_EQ(RulesOfIoUring(), 1U);
  kernel_.refuse_delete = nullptr;
  Start();
  EXPECT_EQ(RulesOfIoUring(), 0U);
}

TEST_F(RuleEngineCoverageTest, AsksAKernelWithoutTheListOnce) {
  kernel_.takes_io_uring = false;
  StartExtended();
  engine_->AddRules("FIM", {Watch("a"), Watch("b")});
  engine_->Invalidate();
  engine_->AddRules("FIM", {Watch("a")});
  EXPECT_EQ(InstalledIds(), Ids(4, "a"));
  engine_.reset();
  EXPECT_EQ(log_.Count("The kernel takes no rules for io_uring"), 1);
  EXPECT_FALSE(log_.Has(Poco::Message::PRIO_WARNING, "Failed to delete"));
  EXPECT_FALSE(log_.Has(Poco::Message::PRIO_ERROR, "Failed to add rule"));
}

// --- whose folders are of interest

class RuleEngineFoldersTest : public RuleEngineFixture {};

TEST_F(RuleEngineFoldersTest, TellsTheFoldersOfAllTagsWhenRulesChange) {
  engine_->AddRules("FIM", {Watch("a"), FakeRule::File("b", "/etc/passwd", {EventType::Write})});
  EXPECT_EQ(watched_, (Folders{{"/etc", false}, {folder_.Path(), true}}));
  engine_->AddRules("IOC", {FakeRule::Directory("x", "/etc", {EventType::Write})});
  EXPECT_EQ(watched_, (Folders{{"/etc", false}, {"/etc", true}, {folder_.Path(), true}}));
  engine_->AddRules("FIM", {});
  EXPECT_EQ(watched_, (Folders{{"/etc", true}}));
}

TEST_F(RuleEngineFoldersTest, TellsThemWhenARuleWasRefusedToo) {
  kernel_.refuse_add = [](const fakes::SeenRule& rule) { return rule.Key() == "a" ? ENOSPC : 0; };
  EXPECT_EQ(ErrorOf([&] {
              engine_->AddRules("FIM", {Watch("a"), Watch("b")});
            }),
            "engine: Failed to add rule to audit subsystem");
  EXPECT_EQ(watched_, (Folders{{folder_.Path(), true}}));
}

TEST_F(RuleEngineFoldersTest, DoesNotForgetThemWhileTheOwnersComeBack) {
  engine_->AddRules("FIM", {Watch("a")});
  engine_->Invalidate();
  EXPECT_EQ(watched_, (Folders{{folder_.Path(), true}}));
}

}  // namespace
}  // namespace zagent::audit

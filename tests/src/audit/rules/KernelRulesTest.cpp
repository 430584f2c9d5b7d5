#include "src/audit/rules/KernelRules.h"

#include <gtest/gtest.h>
#include <libaudit.h>

#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "src/audit/rules/CreateRules.h"
#include "tests/fakes/FakeAuditNetlink.h"
#include "tests/fakes/FakeRule.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::audit::internal {
namespace {

using edr::EventType;
using fakes::FakeRule;

class KernelRulesTest : public ::testing::Test {
 protected:
  void Add(const edr::EventRule& rule) {
    std::vector<AuditRule> created = CreateRules(rule);
    AddRuleToAudit(socket_, rule, created);
  }
  std::shared_ptr<const FakeRule> Folder(const std::string& id) {
    return FakeRule::Directory(id, folder_.Path(), {EventType::Read, EventType::Write});
  }

  fakes::LogCapture log_;
  fakes::TempFolder folder_;
  fakes::FakeAuditNetlink kernel_;
  AuditSocket socket_{kernel_, "Test"};
};

TEST_F(KernelRulesTest, ARuleGoesInAndOutAgain) {
  Add(*Folder("id"));
  EXPECT_EQ(kernel_.RulesWithKey("id").size(), 2U);
  EXPECT_TRUE(log_.Has("RuleEngine::AddRuleToAudit: Adding rule with ID id"));
  EXPECT_TRUE(log_.Has("Added rule id to the audit subsytem"));
  DeleteRuleFromAudit(socket_, *Folder("id"));
  EXPECT_TRUE(kernel_.Rules().empty());
  EXPECT_TRUE(log_.Has("RuleEngine::DeleteRuleFromAudit: Deleting rule with ID id"));
  EXPECT_EQ(log_.Count("RuleEngine::DeleteRuleFromAudit: Deleted rule with ID id"), 2);
}

TEST_F(KernelRulesTest, ARuleThatIsThereCountsAsDone) {
  Add(*Folder("id"));
  Add(*Folder("id"));
  EXPECT_EQ(kernel_.Rules().size(), 2U);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG, "Rule id already exists"));
}

TEST_F(KernelRulesTest, ARuleOnAPathThatDoesNotExistCountsAsDone) {
  Add(*FakeRule::Directory("id", folder_ / "missing", {EventType::Write}));
  EXPECT_TRUE(kernel_.Rules().empty());
  EXPECT_TRUE(
      log_.Has(Poco::Message::PRIO_DEBUG, "Ignoring rule id as path " + (folder_ / "missing") + " does not exist"));
  EXPECT_FALSE(log_.Has("Added rule id"));
}

TEST_F(KernelRulesTest, APathThatLeadsNowhereDoesNotExistEither) {
  for (const int error : {ENOENT, ENOTDIR, ELOOP, ENAMETOOLONG}) {
    kernel_.refuse_add = [error](const fakes::SeenRule&) { return error; };
    std::vector<AuditRule> created = CreateRules(*Folder("id"), {});
    EXPECT_EQ(AddRuleToAudit(socket_, *Folder("id"), created), Outcome::PathMissing) << error;
  }
}

TEST_F(KernelRulesTest, SaysWhetherTheKernelHadWhatItTakesAway) {
  Add(*Folder("id"));
  EXPECT_TRUE(DeleteRuleFromAudit(socket_, *Folder("id")));
  EXPECT_FALSE(DeleteRuleFromAudit(socket_, *Folder("id")));
  EXPECT_FALSE(DeleteRuleFromAudit(socket_, *FakeRule::Directory("id", "not absolute", {EventType::Write})));
}

TEST_F(KernelRulesTest, AFileMayComeLaterThanItsRule) {
  Add(*FakeRule::File("id", folder_ / "not-yet", {EventType::Write}));
  EXPECT_EQ(kernel_.RulesWithKey("id").size(), 1U);
}

TEST_F(KernelRulesTest, AnyOtherRefusalIsAnError) {
  kernel_.refuse_add = [](const fakes::SeenRule&) { return ENOSPC; };
  try {
    Add(*Folder("id"));
    FAIL() << "no exception";
  } catch (const edr::RuleEngineException& error) {
    EXPECT_STREQ(error.what(), "Failed to add rule to audit subsystem");
  }
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR,
                       "RuleEngine::AddRuleToAudit: Failed to add rule to audit subsystem: No space left on device"));
}

TEST_F(KernelRulesTest, NoHalfOfARefusedRuleStays) {
  for (const int error : {ENOSPC, ENOENT}) {
    int others = 1;
    kernel_.refuse_add = [&](const fakes::SeenRule&) { return others-- > 0 ? 0 : error; };
    std::vector<AuditRule> created = CreateRules(*Folder("id"), {});
    ASSERT_EQ(created.size(), 2U);
    try {
      EXPECT_EQ(AddRuleToAudit(socket_, *Folder("id"), created), Outcome::PathMissing);
    } catch (const edr::RuleEngineException&) {
      EXPECT_EQ(error, ENOSPC);
    }
    EXPECT_EQ(others, -1);
    EXPECT_TRUE(kernel_.Rules().empty());
  }
  EXPECT_FALSE(log_.Has("Added rule id"));
}

TEST_F(KernelRulesTest, LeavesTheHalfThatWasThereBefore) {
  std::vector<AuditRule> created = CreateRules(*Folder("id"), {});
  ASSERT_EQ(socket_.Add(created[0]), 0);
  kernel_.refuse_add = [](const fakes::SeenRule& rule) { return rule.Permissions() == AUDIT_PERM_READ ? 0 : ENOSPC; };
  EXPECT_THROW(AddRuleToAudit(socket_, *Folder("id"), created), edr::RuleEngineException);
  EXPECT_EQ(kernel_.RulesWithKey("id").size(), 1U);
}

TEST_F(KernelRulesTest, TellsWhatItCouldNotDelete) {
  Add(*Folder("id"));
  kernel_.refuse_delete = [](const fakes::SeenRule&) { return EPERM; };
  DeleteRuleFromAudit(socket_, *Folder("id"));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_WARNING,
                       "RuleEngine::DeleteRuleFromAudit: Failed to delete old rule id: Operation not permitted (1)"));
  // A rule that cannot even be built again is no reason to throw.
  DeleteRuleFromAudit(socket_, FakeRule("", edr::ObjectType::File, "/etc/passwd", {EventType::Write}));
  EXPECT_TRUE(log_.Has("Failed to delete old rule : CreateRules: Failed to add key"));
}

TEST_F(KernelRulesTest, ARuleThatIsGoneAlreadyIsNoWarning) {
  DeleteRuleFromAudit(socket_, *Folder("id"));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG, "Failed to delete old rule id: No such file or directory (2)"));
  EXPECT_FALSE(log_.Has(Poco::Message::PRIO_WARNING, "Failed to delete"));
}

TEST_F(KernelRulesTest, DeletesWhatAnEarlierRunLeftUnderTheSameIds) {
  Add(*Folder("mine"));
  Add(*Folder("other"));
  DeleteDuplicateRules(socket_, {FakeRule::File("mine", "/somewhere/else", {EventType::Write})});
  EXPECT_TRUE(kernel_.RulesWithKey("mine").empty());
  EXPECT_EQ(kernel_.RulesWithKey("other").size(), 2U);
  EXPECT_TRUE(log_.Has("RuleEngine::DeleteDuplicateRules: Deleting duplicate rules"));
  EXPECT_TRUE(log_.Has("RuleEngine::DeleteDuplicateRules: Deleted old rule mine"));
}

TEST_F(KernelRulesTest, LeavesWhatIsKept) {
  Add(*Folder("mine"));
  const auto rewritten = FakeRule::Directory("mine", folder_.Path(), {EventType::Write});
  const RuleIdentities kept = IdentitiesOf(*rewritten, {});
  DeleteDuplicateRules(socket_, {Folder("mine")}, kept);
  ASSERT_EQ(kernel_.Rules().size(), 1U);
  EXPECT_EQ(kernel_.Rules().front().Permissions(), static_cast<std::uint32_t>(AUDIT_PERM_WRITE));
  DeleteRuleFromAudit(socket_, *Folder("mine"), {}, kept);
  EXPECT_EQ(kernel_.Rules().size(), 1U);
}

TEST_F(KernelRulesTest, ARuleThatCannotBeExpressedHasNoIdentities) {
  EXPECT_EQ(IdentitiesOf(*Folder("id"), {}).size(), 2U);
  EXPECT_TRUE(IdentitiesOf(*Folder("a!=b"), {}).empty());
}

TEST_F(KernelRulesTest, ComparesTheFirst36CharactersOfIds) {
  const std::string uuid = "0f6d7a52-0b52-4f5e-9a3b-0a8a4a1f5c11";
  Add(*Folder(uuid + "-1"));
  Add(*Folder("short"));
  DeleteDuplicateRules(socket_, {Folder(uuid), Folder("shor")});
  EXPECT_TRUE(kernel_.RulesWithKey(uuid + "-1").empty());
  EXPECT_EQ(kernel_.RulesWithKey("short").size(), 2U);
}

TEST_F(KernelRulesTest, LeavesRulesWithoutAKeyAlone) {
  AuditRule keyless;
  ASSERT_TRUE(keyless.WatchDirectory(folder_.Path()));
  ASSERT_EQ(socket_.Add(keyless), 0);
  DeleteDuplicateRules(socket_, {std::make_shared<const FakeRule>("", edr::ObjectType::File, "/x", edr::EventTypes{})});
  EXPECT_EQ(kernel_.Rules().size(), 1U);
}

TEST_F(KernelRulesTest, TellsADuplicateThatItCouldNotDelete) {
  Add(*Folder("id"));
  kernel_.refuse_delete = [](const fakes::SeenRule&) { return EPERM; };
  DeleteDuplicateRules(socket_, {Folder("id")});
  EXPECT_TRUE(log_.Has("RuleEngine::DeleteDuplicateRules: Failed to delete old rule id: Operation not permitted (1)"));
}

TEST_F(KernelRulesTest, RulesOfExtendedCoverageGoInAndOutWithTheRule) {
  const Coverage everything{.extended = true, .io_uring = true};
  std::vector<AuditRule> created = CreateRules(*Folder("id"), everything);
  AddRuleToAudit(socket_, *Folder("id"), created);
  EXPECT_EQ(kernel_.RulesWithKey("id").size(), 6U);
  DeleteRuleFromAudit(socket_, *Folder("id"), everything);
  EXPECT_TRUE(kernel_.Rules().empty());
}

TEST_F(KernelRulesTest, DeletesWhatAnEarlierRunWithExtendedCoverageLeft) {
  std::vector<AuditRule> created = CreateRules(*Folder("mine"), {.extended = true, .io_uring = true});
  AddRuleToAudit(socket_, *Folder("mine"), created);
  DeleteDuplicateRules(socket_, {Folder("mine")});
  EXPECT_TRUE(kernel_.Rules().empty());
}

TEST_F(KernelRulesTest, AsksTheKernelWhetherItHasARuleAndLeavesItAsItIs) {
  const auto rule = FakeRule::Directory("id", folder_.Path(), {EventType::Read, EventType::Write});
  EXPECT_FALSE(HasInKernel(socket_, *rule, {}));
  EXPECT_TRUE(kernel_.Rules().empty());
  std::vector<AuditRule> created = CreateRules(*rule, {});
  ASSERT_EQ(created.size(), 2U);
  ASSERT_EQ(socket_.Add(created[0]), 0);
  EXPECT_FALSE(HasInKernel(socket_, *rule, {})) << "a half is not all of it";
  EXPECT_EQ(kernel_.Rules().size(), 1U);
  ASSERT_EQ(socket_.Add(created[1]), 0);
  EXPECT_TRUE(HasInKernel(socket_, *rule, {}));
  EXPECT_EQ(kernel_.Rules().size(), 2U);
  const auto inexpressible = FakeRule::Directory("a!=b", folder_.Path(), {EventType::Write});
  EXPECT_FALSE(HasInKernel(socket_, *inexpressible, {}));
  EXPECT_TRUE(log_.Has("Failed to look for rule a!=b: "));
}

}  // namespace
}  // namespace zagent::audit::internal

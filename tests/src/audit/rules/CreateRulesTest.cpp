#include "src/audit/rules/CreateRules.h"

#include <gtest/gtest.h>
#include <libaudit.h>

#include <string>
#include <vector>

#include "src/edr/EventRuleEngine.h"
#include "tests/fakes/FakeAuditNetlink.h"
#include "tests/fakes/FakeRule.h"
#include "tests/fakes/LogCapture.h"

namespace zagent::audit::internal {
namespace {

using edr::EventType;
using edr::ObjectType;
using fakes::FakeRule;
using fakes::SeenRule;

std::vector<SeenRule> Create(const edr::EventRule& rule) {
  std::vector<SeenRule> seen;
  for (AuditRule& created : CreateRules(rule)) seen.emplace_back(*created.Get());
  return seen;
}

std::string ErrorOf(const edr::EventRule& rule) {
  try {
    CreateRules(rule);
  } catch (const edr::RuleEngineException& error) {
    return error.what();
  }
  return "no error";
}

class CreateRulesTest : public ::testing::Test {
 protected:
  fakes::LogCapture log_;
};

TEST_F(CreateRulesTest, WatchesAFileForWritingUnderTheRulesId) {
  const auto rules = Create(*FakeRule::File("id-1", "/etc/passwd", {EventType::Write}));
  ASSERT_EQ(rules.size(), 1U);
  EXPECT_EQ(rules[0].fields, (std::vector<SeenRule::Field>{{AUDIT_WATCH, AUDIT_EQUAL, 11, "/etc/passwd"},
                                                           {AUDIT_PERM, AUDIT_EQUAL, AUDIT_PERM_WRITE, ""},
                                                           {AUDIT_FILTERKEY, AUDIT_EQUAL, 4, "id-1"}}));
  EXPECT_EQ(rules[0].flags, 4U);
  EXPECT_EQ(rules[0].action, 2U);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_TRACE, "CreateRules: Creating rule with ID id-1"));
  EXPECT_TRUE(log_.Has("AddPathRules: Creating path rules for rule id id-1"));
  EXPECT_TRUE(log_.Has("AddPathRules: Creating write/attribute rules for rule id id-1"));
  EXPECT_TRUE(log_.Has("AddPermsToRule: Adding watch permissions to path /etc/passwd"));
  EXPECT_TRUE(log_.Has("CreateRules: Adding id-1 to rule"));
}

TEST_F(CreateRulesTest, TurnsEventTypesIntoWatchPermissions) {
  const std::vector<std::pair<EventType, std::uint32_t>> table = {
      {EventType::Create, AUDIT_PERM_WRITE},         {EventType::Delete, AUDIT_PERM_WRITE},
      {EventType::Write, AUDIT_PERM_WRITE},          {EventType::Rename, AUDIT_PERM_WRITE},
      {EventType::AttributeChange, AUDIT_PERM_ATTR}, {EventType::Read, AUDIT_PERM_READ},
  };
  for (const auto& [type, permission] : table) {
    const auto rules = Create(*FakeRule::Directory("id", "/etc", {type}));
    ASSERT_EQ(rules.size(), 1U);
    EXPECT_EQ(rules[0].Permissions(), permission) << static_cast<int>(type);
    EXPECT_EQ(rules[0].Text(AUDIT_DIR), "/etc");
  }
}

TEST_F(CreateRulesTest, ReadsWithARuleOfItsOwnThatWantsALoginSession) {
  const auto rules =
      Create(*FakeRule::Directory("id", "/etc", {EventType::Read, EventType::Write, EventType::AttributeChange}));
  ASSERT_EQ(rules.size(), 2U);
  EXPECT_EQ(rules[0].Permissions(), static_cast<std::uint32_t>(AUDIT_PERM_READ));
  const SeenRule::Field session{AUDIT_LOGINUID, AUDIT_NOT_EQUAL, 4294967295U, ""};
  ASSERT_NE(rules[0].Find(AUDIT_LOGINUID), nullptr);
  EXPECT_EQ(*rules[0].Find(AUDIT_LOGINUID), session);
  EXPECT_EQ(rules[1].Permissions(), static_cast<std::uint32_t>(AUDIT_PERM_WRITE | AUDIT_PERM_ATTR));
  EXPECT_EQ(rules[1].Find(AUDIT_LOGINUID), nullptr);
  EXPECT_EQ(rules[0].Key(), "id");
  EXPECT_EQ(rules[1].Key(), "id");
}

TEST_F(CreateRulesTest, CountsTheDirectoryActionsOfADirectoryRule) {
  FakeRule rule("id", ObjectType::Directory, "/etc", {EventType::Write});
  rule.directory_types = {EventType::AttributeChange};
  const auto rules = Create(rule);
  ASSERT_EQ(rules.size(), 1U);
  EXPECT_EQ(rules[0].Permissions(), static_cast<std::uint32_t>(AUDIT_PERM_WRITE | AUDIT_PERM_ATTR));
}

TEST_F(CreateRulesTest, RefusesARuleWithoutAnyActionThatAWatchCouldTell) {
  EXPECT_EQ(ErrorOf(FakeRule("id", ObjectType::File, "/etc/passwd", {EventType::Baseline})),
            "AddPathRules: Failed to add rule without actions: id");
  // Reading alone is an action.
  EXPECT_EQ(Create(FakeRule("id", ObjectType::File, "/etc/passwd", {EventType::Read})).size(), 1U);
}

// Of no type, or not of its type any more when it is asked for its path.
class Odd final : public edr::EventRule {
 public:
  explicit Odd(ObjectType type) : type_(type) {}

  [[nodiscard]] const edr::EventTypes& GetDirectoryActions() const override { return types_; }
  [[nodiscard]] const edr::EventTypes& GetFileActions() const override { return types_; }
  [[nodiscard]] const edr::EventTypes& GetProcessActions() const override { return types_; }
  [[nodiscard]] const edr::EventTypes& GetNetworkActions() const override { return types_; }
  [[nodiscard]] const std::string& GetId() const override { return id_; }
  [[nodiscard]] const std::string& GetName() const override { return id_; }
  [[nodiscard]] const std::string& GetPath() const override {
    type_ = kNone;
    return path_;
  }
  [[nodiscard]] ObjectType GetType() const override { return type_; }
  [[nodiscard]] edr::MatchResult Match(const edr::Event&) const override { return edr::MatchResult::Matched; }

  static constexpr auto kNone = static_cast<ObjectType>(9);

 private:
  const edr::EventTypes types_ = {EventType::Write};
  const std::string id_ = "id", path_ = "/etc";
  mutable ObjectType type_;
};

TEST_F(CreateRulesTest, RefusesATypeThatIsNone) {
  EXPECT_EQ(ErrorOf(Odd(Odd::kNone)), "CreateRules: Unsupported rule type for rule id id");
  EXPECT_EQ(ErrorOf(Odd(ObjectType::File)), "AddPathToRule: Cannot add path to rule id id as type is unsupported");
}

TEST_F(CreateRulesTest, RefusesPathsThatCannotBeWatched) {
  EXPECT_EQ(ErrorOf(FakeRule("id", ObjectType::File, "", {EventType::Write})),
            "AddPathToRule: Failed to add file  to rule id id");
  const std::string too_long = "/" + std::string(5000, 'd');
  EXPECT_EQ(ErrorOf(FakeRule("id", ObjectType::Directory, too_long, {EventType::Write})),
            "AddPathToRule: Failed to add directory " + too_long + " to rule id id");
}

TEST_F(CreateRulesTest, RefusesIdsThatAreNoKeys) {
  EXPECT_EQ(ErrorOf(FakeRule("", ObjectType::File, "/etc/passwd", {EventType::Write})),
            "CreateRules: Failed to add key for rule id : it is empty");
  EXPECT_EQ(ErrorOf(FakeRule("a!=b", ObjectType::File, "/etc/passwd", {EventType::Write})),
            "CreateRules: Failed to add key for rule id a!=b: it holds an operator");
  EXPECT_EQ(ErrorOf(FakeRule("ostrel_exit_rule_x", ObjectType::File, "/etc/passwd", {EventType::Write})),
            "CreateRules: Failed to add key for rule id ostrel_exit_rule_x: it is reserved");
  const std::string too_long(257, 'k');
  EXPECT_EQ(ErrorOf(FakeRule(too_long, ObjectType::File, "/etc/passwd", {EventType::Write})),
            "CreateRules: Failed to add key for rule id " + too_long + ": it is longer than 256 bytes");
  EXPECT_EQ(ErrorOf(FakeRule("a\001b", ObjectType::File, "/etc/passwd", {EventType::Write})),
            "CreateRules: Failed to add key for rule id a\001b: it holds the key separator");
}

TEST_F(CreateRulesTest, InstallsTheWholeIdEvenWhenItIsLongerThanAUuid) {
  const std::string id = "0f6d7a52-0b52-4f5e-9a3b-0a8a4a1f5c11-1";
  EXPECT_EQ(Create(*FakeRule::File(id, "/etc/passwd", {EventType::Write})).at(0).Key(), id);
}

}  // namespace
}  // namespace zagent::audit::internal

#include "src/audit/events/RuleRemovedEvent.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "tests/fakes/AuditRecords.h"

namespace zagent::audit::internal {
namespace {

using fakes::AuditRecords;

AuditRecords::Fields Removed(const std::string& key, const std::string& field, const std::string& path) {
  return {{"op", "remove_rule"}, {field, path}, {"key", "\"" + key + "\""}, {"list", "4"}, {"res", "1"}};
}

TEST(RuleRemovedEventTest, TellsWhichRulesWentWithTheirFolder) {
  AuditRecords records;
  records.Add(record_type::kConfigChange, Removed("a", "dir", "/srv/w"));
  records.Add(record_type::kConfigChange, Removed("b", "dir", "/srv/w"));
  const RuleRemovedEvent event(records);
  ASSERT_EQ(event.RemovedRules().size(), 2U);
  EXPECT_EQ(event.RemovedRules()[0].key, "a");
  EXPECT_EQ(event.RemovedRules()[1].key, "b");
  EXPECT_EQ(event.RemovedRules()[1].path, "/srv/w");
  EXPECT_FALSE(event.IsToldByCall());
}

TEST(RuleRemovedEventTest, IsTheRemovalOfTheFolderByNobodyKnown) {
  AuditRecords records;
  records.Add(record_type::kConfigChange, Removed("a", "dir", "/srv/w"));
  const std::unique_ptr<edr::Event> event = RuleRemovedEvent(records).Clone();
  EXPECT_EQ(event->GetType(), edr::EventType::Delete);
  EXPECT_EQ(event->GetAction(), "Delete");
  EXPECT_EQ(event->GetObjectType(), edr::ObjectType::Directory);
  EXPECT_EQ(event->GetFile()->GetPath(), "/srv/w");
  EXPECT_EQ(event->GetActorProcessId(), 0);
  EXPECT_EQ(event->GetImage(), nullptr);
  EXPECT_EQ(event->GetAuditKey(), "a");
  EXPECT_EQ(event->GetId(), 77U);
}

TEST(RuleRemovedEventTest, KnowsWhetherACallDidIt) {
  AuditRecords records;
  records.Add(record_type::kConfigChange, Removed("a", "dir", "/srv/w")).Syscall(84);
  EXPECT_TRUE(RuleRemovedEvent(records).IsToldByCall());
}

TEST(RuleRemovedEventTest, TellsOfTheFolderOfAWatchedFile) {
  AuditRecords records;
  records.Add(record_type::kConfigChange, Removed("a", "path", "/srv/w/f"));
  EXPECT_EQ(RuleRemovedEvent(records).GetObjectType(), edr::ObjectType::File);
}

TEST(RuleRemovedEventTest, IsNoneWhenSomebodyTookTheRuleAwayOrDidSomethingElse) {
  AuditRecords on_purpose;
  on_purpose.Add(record_type::kConfigChange, {{"op", "remove_rule"}, {"key", "\"a\""}, {"list", "4"}});
  EXPECT_THROW(RuleRemovedEvent{on_purpose}, edr::EventException);
  AuditRecords update;
  update.Add(record_type::kConfigChange, {{"op", "updated_rules"}, {"path", "/srv/f"}, {"key", "\"a\""}});
  EXPECT_THROW(RuleRemovedEvent{update}, edr::EventException);
}

}  // namespace
}  // namespace zagent::audit::internal

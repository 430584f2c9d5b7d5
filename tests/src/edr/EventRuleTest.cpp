#include "src/edr/EventRule.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/fakes/FakeRule.h"

namespace zagent::edr {
namespace {

using fakes::FakeRule;

TEST(EventRuleTest, WantsTheEventTypesOfItsOwnKind) {
  EXPECT_EQ(EventTypesOf(FakeRule("1", ObjectType::File, "/etc/passwd", {EventType::Write})),
            (EventTypes{EventType::Write}));
  EXPECT_EQ(EventTypesOf(FakeRule("2", ObjectType::Process, "/bin/sh", {EventType::ProcessStart})),
            (EventTypes{EventType::ProcessStart}));
  EXPECT_EQ(EventTypesOf(FakeRule("3", ObjectType::Network, "", {EventType::Connect})),
            (EventTypes{EventType::Connect}));
}

TEST(EventRuleTest, ADirectoryRuleWantsWhatHappensToItsFilesAndItsDirectories) {
  FakeRule rule("1", ObjectType::Directory, "/etc", {EventType::Write, EventType::Create});
  rule.directory_types = {EventType::Create, EventType::Delete};
  EXPECT_EQ(EventTypesOf(rule), (EventTypes{EventType::Write, EventType::Create, EventType::Delete}));
}

TEST(EventRuleTest, RefusesAKindThatIsNone) {
  try {
    EventTypesOf(FakeRule("odd", static_cast<ObjectType>(9), "", {}));
    ADD_FAILURE() << "no exception";
  } catch (const EventRuleException& error) {
    EXPECT_STREQ(error.what(), "Rule odd has an unknown type");
  }
}

TEST(EventRuleTest, HasNoSingleEventTypeWhateverItsKind) {
  const auto refusal = [](ObjectType type) -> std::string {
    try {
      static_cast<void>(FakeRule("1", type, "/", {EventType::Write}).GetEventType());
    } catch (const EventRuleException& error) {
      return error.what();
    }
    return "no exception";
  };
  EXPECT_EQ(refusal(ObjectType::File), "Function not defined for file rule");
  EXPECT_EQ(refusal(ObjectType::Directory), "Function not defined for file rule");
  EXPECT_EQ(refusal(ObjectType::Process), "Function not defined for neither process rule");
  EXPECT_EQ(refusal(ObjectType::Network), "Function not defined for network rule");
}

}  // namespace
}  // namespace zagent::edr

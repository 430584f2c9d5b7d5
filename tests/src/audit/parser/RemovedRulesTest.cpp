// What a Linux 6.1 writes when a watched folder goes, from the line to the event.
#include <gtest/gtest.h>

#include <string>

#include "src/audit/events/RuleRemovedEvent.h"
#include "src/audit/parser/EventFactory.h"
#include "src/audit/parser/RecordFeed.h"
#include "src/edr/process/ImageInfo.h"

namespace zagent::audit::internal {
namespace {

class RemovedRulesTest : public testing::Test {
 protected:
  Events Feed(const std::string& text) {
    feed_.Feed(reinterpret_cast<const unsigned char*>(text.data()), text.size());
    feed_.Flush();
    return feed_.TakeEvents();
  }

  IntakeCounters counters_;
  RecordFeed feed_{MakeEventFactory({}), counters_};
};

TEST_F(RemovedRulesTest, ARemovalIsToldByTheKernelAndByTheCall) {
  const Events events = Feed(
      "type=CONFIG_CHANGE msg=audit(1795288183.212:15): op=remove_rule dir=\"/srv/w\" key=\"reads\" list=4 res=1\n"
      "type=CONFIG_CHANGE msg=audit(1795288183.212:15): op=remove_rule dir=\"/srv/w\" key=\"changes\" list=4 res=1\n"
      "type=SYSCALL msg=audit(1795288183.212:15): arch=c000003e syscall=263 success=yes exit=0 a0=ffffff9c "
      "a1=5585df508380 a2=200 a3=7ff64a727f80 items=2 ppid=97 pid=107 auid=4294967295 uid=0 gid=0 euid=0 suid=0 "
      "fsuid=0 "
      "egid=0 sgid=0 fsgid=0 tty=(none) ses=4294967295 comm=\"rm\" exe=\"/usr/local/gnu/rm\" subj=unconfined "
      "key=(null)\n"
      "type=CWD msg=audit(1795288183.212:15): cwd=\"/root\"\n"
      "type=PATH msg=audit(1795288183.212:15): item=0 name=\"/srv/\" inode=110 dev=00:02 mode=040755 ouid=0 ogid=0 "
      "rdev=00:00 nametype=PARENT cap_fp=0 cap_fi=0 cap_fe=0 cap_fver=0 cap_frootid=0\n"
      "type=PATH msg=audit(1795288183.212:15): item=1 name=\"/srv/w\" inode=391 dev=00:02 mode=040755 ouid=0 ogid=0 "
      "rdev=00:00 nametype=DELETE cap_fp=0 cap_fi=0 cap_fe=0 cap_fver=0 cap_frootid=0\n"
      "type=PROCTITLE msg=audit(1795288183.212:15): "
      "proctitle=2F7573722F6C6F63616C2F676E752F726D002D72002F7372762F77\n");
  ASSERT_EQ(events.size(), 2U);
  const auto* told = dynamic_cast<const RuleRemovedEvent*>(events[0].get());
  ASSERT_NE(told, nullptr);
  EXPECT_TRUE(told->IsToldByCall());
  EXPECT_EQ(told->RemovedRules().size(), 2U);
  EXPECT_EQ(events[1]->GetType(), edr::EventType::Delete);
  EXPECT_EQ(events[1]->GetFile()->GetPath(), "/srv/w");
  EXPECT_EQ(events[1]->GetActorProcessId(), 107);
}

TEST_F(RemovedRulesTest, AnUnmountIsToldByTheKernelAlone) {
  const Events events = Feed(
      "type=CONFIG_CHANGE msg=audit(1795288184.912:54): op=remove_rule dir=\"/srv/w\" key=\"reads\" list=4 res=1\n"
      "type=CONFIG_CHANGE msg=audit(1795288184.912:55): op=remove_rule dir=\"/srv/w\" key=\"changes\" list=4 res=1\n");
  ASSERT_EQ(events.size(), 2U);
  EXPECT_FALSE(dynamic_cast<const RuleRemovedEvent&>(*events[0]).IsToldByCall());
}

TEST_F(RemovedRulesTest, OtherChangesOfTheConfigurationAreNoEventsAndNoLoss) {
  EXPECT_TRUE(Feed("type=CONFIG_CHANGE msg=audit(1795288182.976:9): auid=4294967295 ses=4294967295 subj=unconfined "
                   "op=add_rule key=\"reads\" list=4 res=1\n"
                   "type=CONFIG_CHANGE msg=audit(1795288182.976:10): auid=4294967295 ses=4294967295 subj=unconfined "
                   "op=remove_rule key=\"reads\" list=4 res=1\n")
                  .empty());
  EXPECT_EQ(counters_.Get(IntakeCounters::Reason::NotBuilt), 0U);
}

}  // namespace
}  // namespace zagent::audit::internal

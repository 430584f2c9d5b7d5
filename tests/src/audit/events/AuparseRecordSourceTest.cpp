#include "src/audit/events/AuparseRecordSource.h"

#include <auparse.h>
#include <gtest/gtest.h>

#include <functional>
#include <optional>

#include "tests/fakes/LogCapture.h"

namespace zagent::audit::internal {
namespace {

// One event as a 6.1 kernel writes it: a file whose name holds a blank and a quote is made by a program with a blank in
// its name.
constexpr const char* kEvent =
    "type=SYSCALL msg=audit(1795162410.936:126): arch=c000003e syscall=257 success=yes exit=5 a0=ffffff9c "
    "a1=55f176162287 a2=41 a3=1a4 items=2 ppid=97 pid=103 auid=4294967295 uid=0 gid=0 euid=0 suid=0 fsuid=0 egid=0 "
    "sgid=0 fsgid=0 tty=(none) ses=4294967295 comm=\"ops\" exe=2F62696E2F6120622E657865 subj=unconfined "
    "key=\"fimrule-1111\"\n"
    "type=OPENAT2 msg=audit(1795162410.936:126): oflag=0101 mode=0600 resolve=0x0\n"
    "type=CWD msg=audit(1795162410.936:126): cwd=2F7372762F772077\n"
    "type=PATH msg=audit(1795162410.936:126): item=0 name=\"/srv/w/\" inode=91 dev=00:02 mode=040755 ouid=0 ogid=0 "
    "rdev=00:00 nametype=PARENT cap_fp=0 cap_fi=0 cap_fe=0 cap_fver=0 cap_frootid=0\n"
    "type=PATH msg=audit(1795162410.936:126): item=1 name=2F7372762F772F6120622263 inode=137 dev=00:02 mode=0100644 "
    "ouid=0 ogid=0 rdev=00:00 nametype=CREATE cap_fp=0 cap_fi=0 cap_fe=0 cap_fver=0 cap_frootid=0\n"
    "type=PROCTITLE msg=audit(1795162410.936:126): proctitle=7368002D63007669\n"
    "type=EOE msg=audit(1795162410.936:126): \n";

class AuparseRecordSourceTest : public ::testing::Test {
 protected:
  AuparseRecordSourceTest() : state_(auparse_init(AUSOURCE_FEED, nullptr)) {
    auparse_set_escape_mode(state_, AUPARSE_ESC_RAW);
    auparse_add_callback(
        state_,
        [](auparse_state_t* state, auparse_cb_event_t type, void* self) {
          if (type == AUPARSE_CB_EVENT_READY) static_cast<AuparseRecordSourceTest*>(self)->on_event_(state);
        },
        this, nullptr);
  }
  ~AuparseRecordSourceTest() override { auparse_destroy(state_); }

  // Calls `on_event` with the cursor at the event.
  void Feed(const std::string& text, std::function<void(auparse_state_t*)> on_event) {
    int events = 0;
    on_event_ = [&](auparse_state_t* state) {
      ++events;
      on_event(state);
    };
    ASSERT_EQ(auparse_feed(state_, text.data(), text.size()), 0);
    ASSERT_EQ(auparse_flush_feed(state_), 0);
    ASSERT_EQ(events, 1);
  }
  static std::vector<Record> ReadAll(auparse_state_t* state) {
    AuparseRecordSource source(state);
    std::vector<Record> records;
    Record record;
    while (source.Next(record)) records.push_back(record);
    return records;
  }

  auparse_state_t* state_;
  std::function<void(auparse_state_t*)> on_event_;
};

TEST_F(AuparseRecordSourceTest, ReadsTheWantedRecordsInOrder) {
  Feed(kEvent, [](auparse_state_t* state) {
    std::vector<int> types;
    for (const Record& record : ReadAll(state)) types.push_back(record.type);
    EXPECT_EQ(types, (std::vector<int>{1300, 1307, 1302, 1302, 1327}));
  });
}

TEST_F(AuparseRecordSourceTest, DecodesNamesAndTitlesAndLeavesNumbersAsTheyAre) {
  Feed(kEvent, [](auparse_state_t* state) {
    const std::vector<Record> records = ReadAll(state);
    ASSERT_EQ(records.size(), 5U);
    EXPECT_EQ(records[0].fields.at("syscall"), "257");
    EXPECT_EQ(records[0].fields.at("a0"), "ffffff9c");
    EXPECT_EQ(records[0].fields.at("uid"), "0");
    EXPECT_EQ(records[0].fields.at("auid"), "4294967295");
    EXPECT_EQ(records[0].fields.at("exe"), "/bin/a b.exe");
    EXPECT_EQ(records[0].fields.at("key"), "\"fimrule-1111\"");
    EXPECT_EQ(records[1].fields.at("cwd"), "/srv/w w");
    EXPECT_EQ(records[2].fields.at("name"), "/srv/w/");
    EXPECT_EQ(records[2].fields.at("mode"), "040755");
    EXPECT_EQ(records[2].fields.at("nametype"), "PARENT");
    EXPECT_EQ(records[3].fields.at("name"), "/srv/w/a b\"c");
    EXPECT_EQ(records[3].fields.at("inode"), "137");
    EXPECT_EQ(records[4].fields.at("proctitle"), "sh -c vi");
  });
}

TEST_F(AuparseRecordSourceTest, KnowsTheSerialAndTheWholeSecond) {
  const fakes::LogCapture log;
  Feed(kEvent, [](auparse_state_t* state) {
    AuparseRecordSource source(state);
    Record record;
    ASSERT_TRUE(source.Next(record));
    EXPECT_EQ(source.Id(), 126U);
    EXPECT_EQ(source.Timestamp(), 1'795'162'410'000'000'000);
  });
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, "Parsing event with ID: 126 Timestamp: 1795162410")) << log.All();
}

TEST_F(AuparseRecordSourceTest, ReadsRecordsWhoseFieldsSomebodyHasWalkedBefore) {
  Feed(kEvent, [](auparse_state_t* state) {
    const std::size_t fresh = ReadAll(state).size();
    const std::vector<Record> again = ReadAll(state);
    ASSERT_EQ(again.size(), fresh);
    EXPECT_EQ(again[3].fields.at("nametype"), "CREATE");
    EXPECT_EQ(again[3].fields.size(), ReadAll(state)[3].fields.size());
  });
}

TEST_F(AuparseRecordSourceTest, SaysWhichRecordItCannotReach) {
  const auto error_of_next = [](AuparseRecordSource& source) -> std::string {
    try {
      Record record;
      while (source.Next(record)) {
      }
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return "nothing thrown";
  };
  std::optional<AuparseRecordSource> source;
  Feed(kEvent, [&](auparse_state_t* state) { source.emplace(state); });
  // The event that it counted is gone.
  EXPECT_EQ(error_of_next(*source), "Failed to parse first record");

  Feed(kEvent, [&](auparse_state_t* state) { source.emplace(state); });
  Feed("type=CONFIG_CHANGE msg=audit(1795162411.188:127): auid=4294967295 op=add_rule key=\"x\" list=4 res=1\n",
       [&](auparse_state_t*) { EXPECT_EQ(error_of_next(*source), "Failed to parse record number 2"); });
}

TEST_F(AuparseRecordSourceTest, HasNoRecordsInAnEventOfUnwantedTypes) {
  Feed("type=CONFIG_CHANGE msg=audit(1795162409.188:12): auid=4294967295 op=add_rule key=\"x\" list=4 res=1\n",
       [](auparse_state_t* state) {
         AuparseRecordSource source(state);
         Record record;
         EXPECT_FALSE(source.Next(record));
         EXPECT_EQ(source.Id(), 12U);
       });
}

TEST_F(AuparseRecordSourceTest, RefusesAMissingOrEmptyState) {
  const auto error_of = [](auparse_state_t* state) -> std::string {
    try {
      AuparseRecordSource source(state);
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return "nothing thrown";
  };
  EXPECT_EQ(error_of(nullptr), "auparse state is NULL");
  EXPECT_EQ(error_of(state_), "auparse state is invalid or has no records");
}

}  // namespace
}  // namespace zagent::audit::internal

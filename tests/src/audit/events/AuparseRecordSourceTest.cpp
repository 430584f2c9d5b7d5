#include "src/audit/events/AuparseRecordSource.h"

#include <auparse.h>
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "tests/fakes/AuditLog.h"

namespace zagent::audit::internal {
namespace {

using edr::RecordField;

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
  // What a source hands out, kept beyond its life: the texts of the fields that these tests look at.
  struct Kept {
    int type;
    std::map<RecordField, std::string> fields;
    std::vector<std::string> arguments;
  };
  static Kept Keep(const Record& record) {
    Kept kept{record.type, {}, {}};
    for (unsigned at = 0; at < static_cast<unsigned>(RecordField::Count); ++at) {
      const auto field = static_cast<RecordField>(at);
      if (record.fields.Has(field)) kept.fields[field] = record.fields.Find(field);
    }
    for (std::size_t at = 0; record.fields.Argument(at); ++at) kept.arguments.emplace_back(*record.fields.Argument(at));
    return kept;
  }
  static std::vector<Kept> ReadAll(auparse_state_t* state, RecordKinds wanted = kAll) {
    AuparseRecordSource source(state);
    source.Begin();
    return ReadRest(source, wanted);
  }
  static std::vector<Kept> ReadRest(AuparseRecordSource& source, RecordKinds wanted = kAll) {
    std::vector<Kept> records;
    while (const Record* record = source.Next(wanted)) records.push_back(Keep(*record));
    return records;
  }
  static std::vector<int> TypesOf(const std::vector<Kept>& records) {
    std::vector<int> types;
    for (const Kept& record : records) types.push_back(record.type);
    return types;
  }

  static constexpr RecordKinds kAll = 0xffff;

  auparse_state_t* state_;
  std::function<void(auparse_state_t*)> on_event_;
};

TEST_F(AuparseRecordSourceTest, ReadsTheWantedRecordsInOrder) {
  Feed(kEvent, [](auparse_state_t* state) {
    EXPECT_EQ(TypesOf(ReadAll(state)), (std::vector<int>{1300, 1337, 1307, 1302, 1302, 1327}));
    EXPECT_EQ(TypesOf(ReadAll(state, KindsOf(record_type::kPath, record_type::kCwd))),
              (std::vector<int>{1307, 1302, 1302}));
  });
}

TEST_F(AuparseRecordSourceTest, DecodesNamesAndTitlesAndLeavesNumbersAsTheyAre) {
  Feed(kEvent, [](auparse_state_t* state) {
    const std::vector<Kept> records = ReadAll(state);
    ASSERT_EQ(records.size(), 6U);
    const Kept& call = records[0];
    EXPECT_EQ(call.fields.at(RecordField::Syscall), "257");
    EXPECT_EQ(call.arguments, (std::vector<std::string>{"ffffff9c", "55f176162287", "41", "1a4"}));
    EXPECT_EQ(call.fields.at(RecordField::Uid), "0");
    EXPECT_EQ(call.fields.at(RecordField::Auid), "4294967295");
    EXPECT_EQ(call.fields.at(RecordField::Exe), "/bin/a b.exe");
    EXPECT_EQ(call.fields.at(RecordField::Key), "\"fimrule-1111\"");
    EXPECT_EQ(records[1].fields.at(RecordField::OFlag), "0101");
    EXPECT_EQ(records[2].fields.at(RecordField::Cwd), "/srv/w w");
    EXPECT_EQ(records[3].fields.at(RecordField::Name), "/srv/w/");
    EXPECT_EQ(records[3].fields.at(RecordField::Mode), "040755");
    EXPECT_EQ(records[3].fields.at(RecordField::NameType), "PARENT");
    EXPECT_EQ(records[4].fields.at(RecordField::Name), "/srv/w/a b\"c");
    EXPECT_EQ(records[4].fields.at(RecordField::Inode), "137");
    EXPECT_EQ(records[5].fields.at(RecordField::Proctitle), "sh -c vi");
  });
}

TEST_F(AuparseRecordSourceTest, ReadsWhichRuleTheKernelHasDropped) {
  Feed(
      "type=CONFIG_CHANGE msg=audit(1795162410.936:126): op=remove_rule dir=2F7372762F612062 key=\"r1\" list=4 "
      "res=1\n",
      [](auparse_state_t* state) {
        AuparseRecordSource source(state);
        source.Begin();
        const Record* record = source.Next(KindOf(record_type::kConfigChange));
        ASSERT_NE(record, nullptr);
        EXPECT_EQ(record->fields.Find(RecordField::Op), "remove_rule");
        EXPECT_EQ(record->fields.Find(RecordField::Dir), "/srv/a b");
        EXPECT_EQ(record->fields.Find(RecordField::Key), "\"r1\"");
        EXPECT_FALSE(record->fields.Has(RecordField::Path));
      });
}

TEST_F(AuparseRecordSourceTest, TellsANameThatTheKernelDoesNotKnowFromAFileOfThatName) {
  const std::string path = " inode=1 dev=00:02 mode=0100644 ouid=0 ogid=0 nametype=NORMAL\n";
  Feed("type=PATH msg=audit(1795162410.936:126): item=0 name=(null)" + path +
           "type=PATH msg=audit(1795162410.936:126): item=1 name=\"(null)\"" + path,
       [](auparse_state_t* state) {
         const std::vector<Kept> records = ReadAll(state);
         ASSERT_EQ(records.size(), 2U);
         EXPECT_EQ(records[0].fields.at(RecordField::Name), "");
         EXPECT_EQ(records[1].fields.at(RecordField::Name), "(null)");
       });
}

TEST_F(AuparseRecordSourceTest, TakesTheLastOfSeveralKeys) {
  Feed(fakes::Replaced(kEvent, "key=\"fimrule-1111\"", "key=\"first\" key=\"last\""),
       [](auparse_state_t* state) { EXPECT_EQ(ReadAll(state)[0].fields.at(RecordField::Key), "\"last\""); });
}

TEST_F(AuparseRecordSourceTest, DecodesTheArgumentsOfAProgram) {
  Feed("type=EXECVE msg=audit(1795162410.936:126): argc=3 a0=\"sh\" a1=6120622263 a2=\"\"\n",
       [](auparse_state_t* state) {
         const std::vector<Kept> records = ReadAll(state);
         ASSERT_EQ(records.size(), 1U);
         EXPECT_EQ(records[0].fields.at(RecordField::Argc), "3");
         EXPECT_EQ(records[0].arguments, (std::vector<std::string>{"sh", "a b\"c", ""}));
       });
}

TEST_F(AuparseRecordSourceTest, KnowsTheSerialAndTheWholeSecond) {
  Feed(kEvent, [](auparse_state_t* state) {
    AuparseRecordSource source(state);
    source.Begin();
    EXPECT_EQ(source.Id(), 126U);
    EXPECT_EQ(source.Timestamp(), 1'795'162'410'000'000'000);
  });
}

TEST_F(AuparseRecordSourceTest, ReadsRecordsWhoseFieldsSomebodyHasWalkedBefore) {
  Feed(kEvent, [](auparse_state_t* state) {
    const std::size_t fresh = ReadAll(state).size();
    const std::vector<Kept> again = ReadAll(state);
    ASSERT_EQ(again.size(), fresh);
    EXPECT_EQ(again[4].fields.at(RecordField::NameType), "CREATE");
    EXPECT_EQ(again[4].fields.size(), ReadAll(state)[4].fields.size());
  });
}

TEST_F(AuparseRecordSourceTest, ServesOneEventAfterAnother) {
  AuparseRecordSource source(state_);
  for (const char* serial : {":126", ":127"}) {
    std::string event = kEvent;
    for (std::size_t at = event.find(":126"); at != std::string::npos; at = event.find(":126", at + 1)) {
      event.replace(at, 4, serial);
    }
    Feed(event, [&](auparse_state_t*) {
      source.Begin();
      EXPECT_EQ(":" + std::to_string(source.Id()), serial);
      EXPECT_EQ(ReadRest(source).size(), 6U);
    });
  }
}

TEST_F(AuparseRecordSourceTest, SaysWhichRecordItCannotReach) {
  const auto error_of = [](const std::function<void()>& call) -> std::string {
    try {
      call();
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return "nothing thrown";
  };
  AuparseRecordSource source(state_);
  Feed(kEvent, [&](auparse_state_t*) { source.Begin(); });
  Feed("type=CONFIG_CHANGE msg=audit(1795162411.188:127): auid=4294967295 op=add_rule key=\"x\" list=4 res=1\n",
       [&](auparse_state_t*) {
         // The event that it counted is gone.
         EXPECT_EQ(error_of([&] {
                     while (source.Next(kAll) != nullptr) {
                     }
                   }),
                   "Failed to parse record number 2");
       });
}

TEST_F(AuparseRecordSourceTest, HasNoRecordsInAnEventOfUnwantedTypes) {
  Feed("type=MAC_POLICY_LOAD msg=audit(1795162409.188:12): auid=4294967295 ses=4294967295 lsm=selinux res=1\n",
       [](auparse_state_t* state) {
         AuparseRecordSource source(state);
         source.Begin();
         EXPECT_EQ(source.Next(kAll), nullptr);
         EXPECT_EQ(source.Id(), 12U);
       });
}

TEST_F(AuparseRecordSourceTest, RefusesAMissingOrEmptyState) {
  const auto error_of = [](auparse_state_t* state) -> std::string {
    try {
      AuparseRecordSource source(state);
      source.Begin();
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return "nothing thrown";
  };
  EXPECT_EQ(error_of(nullptr), "auparse state is NULL");
  EXPECT_EQ(error_of(state_), "auparse state is invalid or has no records");
}

// 2262 is the last year that nanoseconds count to.
TEST_F(AuparseRecordSourceTest, HasNoTimeOfAStampThatWasDamaged) {
  const auto time_of = [this](const std::string& seconds) {
    std::int64_t time = -1;
    Feed("type=SYSCALL msg=audit(" + seconds + ".936:126): arch=c000003e syscall=231\n", [&](auparse_state_t* state) {
      AuparseRecordSource source(state);
      source.Begin();
      time = source.Timestamp();
    });
    return time;
  };
  EXPECT_EQ(time_of("9223372036"), 9'223'372'036'000'000'000);
  EXPECT_EQ(time_of("9223372037"), 0);
}

}  // namespace
}  // namespace zagent::audit::internal

#include "src/audit/events/LineRecordSource.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "tests/fakes/Heap.h"
#include "tests/fakes/LogCapture.h"

namespace zagent::audit::internal {
namespace {

using edr::RecordField;
using testing::ElementsAre;

constexpr RecordKinds kAll = 0xffff;

// One event as a 6.1 kernel writes it: a file whose name holds a blank and a quote is made by a program with a blank in
// its name. The folder's PATH record is plain.
const std::vector<std::string> kEvent = {
    "type=SYSCALL msg=audit(1795162410.936:126): arch=c000003e syscall=257 success=yes exit=5 a0=ffffff9c "
    "a1=55f176162287 a2=41 a3=1a4 items=2 ppid=97 pid=103 auid=4294967295 uid=0 gid=0 euid=0 suid=0 fsuid=0 egid=0 "
    "sgid=0 fsgid=0 tty=(none) ses=4294967295 comm=\"ops\" exe=2F62696E2F6120622E657865 subj=unconfined "
    "key=\"fimrule-1111\"",
    "type=OPENAT2 msg=audit(1795162410.936:126): oflag=0101 mode=0600 resolve=0x0",
    "type=CWD msg=audit(1795162410.936:126): cwd=2F7372762F772077",
    "type=PATH msg=audit(1795162410.936:126): item=0 name=\"/srv/w/\" inode=91 dev=00:02 mode=040755 ouid=0 ogid=0 "
    "rdev=00:00 nametype=PARENT cap_fp=0 cap_fi=0 cap_fe=0 cap_fver=0 cap_frootid=0",
    "type=PATH msg=audit(1795162410.936:126): item=1 name=2F7372762F772F6120622263 inode=137 dev=00:02 mode=0100644 "
    "ouid=0 ogid=0 rdev=00:00 nametype=CREATE cap_fp=0 cap_fi=0 cap_fe=0 cap_fver=0 cap_frootid=0",
    "type=PROCTITLE msg=audit(1795162410.936:126): proctitle=7368002D63007669"};

class LineRecordSourceTest : public testing::Test {
 protected:
  void Begin(const std::vector<std::string>& event) {
    event_ = event;
    lines_.clear();
    for (const std::string& text : event_) lines_.push_back(ReadRecordLine(text).value());
    source_.Begin(lines_);
  }
  std::vector<int> TypesOfTheRest(RecordKinds wanted = kAll) {
    std::vector<int> types;
    while (const Record* record = source_.Next(wanted)) types.push_back(record->type);
    return types;
  }

  std::vector<std::string> event_;
  std::vector<RecordLine> lines_;
  LineRecordSource source_;
};

TEST_F(LineRecordSourceTest, ReadsTheWantedRecordsInOrder) {
  Begin(kEvent);
  EXPECT_THAT(TypesOfTheRest(), ElementsAre(1300, 1337, 1307, 1302, 1302, 1327));
  Begin(kEvent);
  EXPECT_THAT(TypesOfTheRest(KindsOf(record_type::kPath, record_type::kCwd)), ElementsAre(1307, 1302, 1302));
}

TEST_F(LineRecordSourceTest, TellsPlainRecordsAndThoseThatAuparseReads) {
  Begin(kEvent);
  const Record* call = source_.Next(kAll);
  EXPECT_EQ(call->fields.At(RecordField::Syscall), "257");
  EXPECT_EQ(call->fields.Argument(3), "1a4");
  EXPECT_EQ(call->fields.At(RecordField::Exe), "/bin/a b.exe");
  EXPECT_EQ(call->fields.At(RecordField::Key), "\"fimrule-1111\"");
  EXPECT_EQ(source_.Next(kAll)->fields.At(RecordField::OFlag), "0101");
  EXPECT_EQ(source_.Next(kAll)->fields.At(RecordField::Cwd), "/srv/w w");
  const Record* folder = source_.Next(kAll);
  EXPECT_EQ(folder->fields.At(RecordField::Name), "/srv/w/");
  EXPECT_EQ(folder->fields.At(RecordField::NameType), "PARENT");
  const Record* file = source_.Next(kAll);
  EXPECT_EQ(file->fields.At(RecordField::Name), "/srv/w/a b\"c");
  EXPECT_EQ(file->fields.At(RecordField::Inode), "137");
  EXPECT_EQ(source_.Next(kAll)->fields.At(RecordField::Proctitle), "sh -c vi");
  EXPECT_EQ(source_.Next(kAll), nullptr);
}

TEST_F(LineRecordSourceTest, ValuesOutliveTheRecordsBehindThem) {
  std::vector<std::string> event = kEvent;
  event[0] += " colour=\"light blue\"";  // auparse's
  event[3] += " word";
  event[4].insert(event[4].find("item=1"), "word ");
  Begin(event);
  const Record* call = source_.FindCall();
  EXPECT_EQ(TypesOfTheRest().size(), 6U);
  EXPECT_EQ(call->fields.At(RecordField::Exe), "/bin/a b.exe");
  EXPECT_EQ(call->fields.Argument(1), "55f176162287");
  EXPECT_EQ(call->fields.At(RecordField::Key), "\"fimrule-1111\"");
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST_F(LineRecordSourceTest, ValuesOfOneEventTakeNoMemoryInTheNext) {
  Begin(kEvent);
  TypesOfTheRest();
  const std::size_t before = fakes::HeapInUse();
  for (int event = 0; event < 1'000; ++event) {
    source_.Begin(lines_);
    while (source_.Next(kAll) != nullptr) continue;
  }
  EXPECT_LT(fakes::HeapInUse(), before + 8'192);
}
#endif

TEST_F(LineRecordSourceTest, DecodesTheArgumentsOfAProgram) {
  Begin({"type=EXECVE msg=audit(1795162410.936:126): argc=3 a0=\"sh\" a1=6120622263 a2=\"\""});
  const Record* program = source_.Next(kAll);
  EXPECT_EQ(program->fields.At(RecordField::Argc), "3");
  EXPECT_EQ(program->fields.Argument(0), "sh");
  EXPECT_EQ(program->fields.Argument(1), "a b\"c");
  EXPECT_EQ(program->fields.Argument(2), "");
  EXPECT_FALSE(program->fields.Argument(3));
}

// libauparse would write beyond the end of each.
TEST_F(LineRecordSourceTest, ACommandLineThatNoKernelWritesIsNotTold) {
  for (const char* fields :
       {"proctitle=(null)4141414141414141414141414141414141414141", "proctitle=41ZZZZZZZZZZZZZZZZZZZZZZZZZZZZ",
        "word proctitle=41ZZZZZZZZZZZZZZZZZZZZZZZZZZZZ", "proctitle=414"}) {
    Begin({std::string("type=PROCTITLE msg=audit(1795162410.936:126): ") + fields});
    EXPECT_EQ(source_.Next(kAll), nullptr) << fields;
  }
}

TEST_F(LineRecordSourceTest, FindsTheCallBehindARecordThatComesBeforeIt) {
  std::vector<std::string> event = kEvent;
  event.insert(event.begin(), "type=CONFIG_CHANGE msg=audit(1795162410.936:126): op=set audit_enabled=1 old=1 res=1");
  Begin(event);
  const Record* call = source_.FindCall();
  ASSERT_NE(call, nullptr);
  EXPECT_EQ(call->fields.At(RecordField::Syscall), "257");
  EXPECT_THAT(TypesOfTheRest(), ElementsAre(1300, 1305, 1337, 1307, 1302, 1302, 1327));
}

TEST_F(LineRecordSourceTest, ACallThatIsNotWantedIsNotHandedOut) {
  Begin(kEvent);
  ASSERT_NE(source_.FindCall(), nullptr);
  EXPECT_THAT(TypesOfTheRest(KindOf(record_type::kPath)), ElementsAre(1302, 1302));
}

TEST_F(LineRecordSourceTest, TheCallOfAnEventIsNotThatOfTheNext) {
  Begin(kEvent);
  ASSERT_NE(source_.FindCall(), nullptr);
  Begin({"type=ANOM_ABEND msg=audit(1795162410.936:127): auid=4294967295 uid=0 gid=0 pid=111 exe=\"/bin/x\" sig=11"});
  EXPECT_EQ(source_.FindCall(), nullptr);
  EXPECT_THAT(TypesOfTheRest(), ElementsAre(1701));
}

TEST_F(LineRecordSourceTest, ACallThatHasNoFieldToTellIsNotHandedOut) {
  Begin({"type=SYSCALL msg=audit(1795162410.936:126): per=0"});
  const Record* call = source_.FindCall();
  ASSERT_NE(call, nullptr);
  EXPECT_TRUE(call->fields.IsEmpty());
  EXPECT_EQ(source_.Next(kAll), nullptr);
}

TEST(AuparseRecordReader, LeavesNothingOfWhatTheRecordHeldBefore) {
  AuparseRecordReader reader;
  ValueStore values;
  Record record{record_type::kCwd, {}};
  record.fields.Set(RecordField::Name, "before");
  reader.Read("type=CWD msg=audit(1795162410.936:126): cwd=\"/srv/w\"", record, values);
  EXPECT_EQ(record.fields.At(RecordField::Cwd), "/srv/w");
  EXPECT_FALSE(record.fields.Has(RecordField::Name));
}

TEST_F(LineRecordSourceTest, TheCallGoesByTheNumberThatItIsGiven) {
  Begin(kEvent);
  const Record* call = source_.FindCall();
  source_.SetCallNumber(83);
  EXPECT_EQ(call->fields.At(RecordField::Syscall), "83");
  EXPECT_EQ(source_.Next(kAll)->fields.At(RecordField::Syscall), "83");
}

TEST_F(LineRecordSourceTest, KnowsTheSerialAndTheWholeSecond) {
  const fakes::LogCapture log;
  Begin(kEvent);
  EXPECT_EQ(source_.Id(), 126U);
  EXPECT_EQ(source_.Timestamp(), 1'795'162'410'000'000'000);
  ASSERT_NE(source_.Next(kAll), nullptr);
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, "Parsing event with ID: 126 Timestamp: 1795162410")) << log.All();
}

TEST_F(LineRecordSourceTest, HasNoTimeOfAStampThatWasDamaged) {
  Begin({"type=SYSCALL msg=audit(9223372036.936:126): arch=c000003e syscall=231"});
  EXPECT_EQ(source_.Timestamp(), 9'223'372'036'000'000'000);
  Begin({"type=SYSCALL msg=audit(9223372037.936:126): arch=c000003e syscall=231"});
  EXPECT_EQ(source_.Timestamp(), 0);
}

TEST_F(LineRecordSourceTest, PassesOverRecordsThatHaveNoFieldToTell) {
  Begin({"type=PATH msg=audit(1795162410.936:126): rdev=00:00",
         "type=PATH msg=audit(1795162410.936:126): ", "type=CWD msg=audit(1795162410.936:126): cwd=\"/\""});
  EXPECT_THAT(TypesOfTheRest(), ElementsAre(1307));
}

}  // namespace
}  // namespace zagent::audit::internal

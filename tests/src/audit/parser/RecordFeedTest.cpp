#include "src/audit/parser/RecordFeed.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "src/edr/process/ImageInfo.h"
#include "tests/fakes/AuditLog.h"
#include "tests/fakes/EventTrace.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/ScriptedEventFactory.h"

namespace zagent::audit::internal {
namespace {

using fakes::AuditLog;
using fakes::Replaced;
using testing::ElementsAre;
using testing::IsEmpty;

class RecordFeedTest : public testing::Test {
 protected:
  void Feed(const std::string& text) { feed_.Feed(reinterpret_cast<const unsigned char*>(text.data()), text.size()); }
  // Serials of what was completed.
  std::vector<unsigned> Taken() {
    std::vector<unsigned> serials;
    for (const auto& event : feed_.TakeEvents()) serials.push_back(event->GetId());
    return serials;
  }
  std::vector<unsigned> Flushed() {
    feed_.Flush();
    return Taken();
  }

  fakes::LogCapture lines_;
  AuditLog log_;
  fakes::ScriptedEventFactory factory_;
  IntakeCounters counters_;
  RecordFeed feed_{factory_.Get(), counters_};
};

TEST_F(RecordFeedTest, MakesATypedEventOfACompleteAuditEvent) {
  Feed(log_.Event(AuditLog::kMkdir));
  feed_.Flush();
  const Events events = feed_.TakeEvents();
  ASSERT_EQ(events.size(), 1U);
  EXPECT_EQ(events[0]->GetId(), AuditLog::kMkdir);
  EXPECT_EQ(events[0]->GetTimestamp(), 1'795'162'409'000'000'000);
  EXPECT_THAT(factory_.syscalls, ElementsAre(83));
  EXPECT_THAT(Taken(), IsEmpty()) << "taken once";
}

TEST_F(RecordFeedTest, DeliversACompleteEventAtOnce) {
  Feed(log_.Event(AuditLog::kMkdir));
  EXPECT_THAT(Taken(), ElementsAre(AuditLog::kMkdir));
  EXPECT_THAT(Flushed(), IsEmpty());
}

// Why the parser flushes: an incomplete event waits for more.
TEST_F(RecordFeedTest, HoldsBackWhatBeganBehindAnIncompleteEvent) {
  const std::string event = log_.Event(AuditLog::kMkdir);
  Feed(event.substr(0, event.find("type=PROCTITLE")) + log_.Event(AuditLog::kRmdir));
  EXPECT_THAT(Taken(), IsEmpty());
  EXPECT_THAT(Flushed(), ElementsAre(AuditLog::kMkdir, AuditLog::kRmdir));
}

TEST_F(RecordFeedTest, JoinsARecordThatIsSplitOverTwoReads) {
  const std::string event = log_.Event(AuditLog::kMkdir);
  for (const char byte : event) Feed(std::string(1, byte));
  EXPECT_THAT(Flushed(), ElementsAre(AuditLog::kMkdir));
  EXPECT_THAT(factory_.syscalls, ElementsAre(83));
}

TEST_F(RecordFeedTest, IgnoresTheCommandLineOfAnEventThatAFlushHasCut) {
  const std::vector<std::string> records = log_.Records(AuditLog::kMkdir);
  Feed(records[0] + records[1] + records[2] + records[3]);
  EXPECT_THAT(Flushed(), ElementsAre(AuditLog::kMkdir));
  Feed(records[4]);
  EXPECT_THAT(Flushed(), IsEmpty());
  EXPECT_TRUE(lines_.Has(Poco::Message::PRIO_TRACE, "Ignoring event with ID: 27 record type: 1327")) << lines_.All();
}

TEST_F(RecordFeedTest, BuildsNothingOfWhatIsNoCall) {
  const std::string event = log_.Event(AuditLog::kMkdir);
  for (const char* number : {"-1", "4294967296", "99999999999999999999", "mkdir", "83x"}) {
    Feed(Replaced(event, "syscall=83", std::string("syscall=") + number));
    EXPECT_THAT(Flushed(), IsEmpty()) << number;
  }
  EXPECT_THAT(factory_.syscalls, IsEmpty());
  EXPECT_TRUE(lines_.Has(Poco::Message::PRIO_TRACE, "Unsupported syscall in event: -1"));
  EXPECT_TRUE(lines_.Has(Poco::Message::PRIO_TRACE, "Unsupported syscall in event: 4294967296"));
}

TEST_F(RecordFeedTest, AsksWhetherACallMeansAnythingToTheFactory) {
  factory_.unknown = {317};
  for (const char* number : {"316", "317"}) {
    Feed(Replaced(log_.Event(AuditLog::kMkdir), "syscall=83", std::string("syscall=") + number));
    feed_.Flush();
  }
  EXPECT_THAT(factory_.syscalls, ElementsAre(316, 317));
  EXPECT_THAT(Taken(), ElementsAre(AuditLog::kMkdir));
  EXPECT_TRUE(lines_.Has(Poco::Message::PRIO_TRACE, "Unsupported syscall in event: 317"));
}

TEST_F(RecordFeedTest, SaysWhichCallMeansNothingToIt) {
  factory_.unknown = {83};
  Feed(log_.Event(AuditLog::kMkdir));
  EXPECT_THAT(Flushed(), IsEmpty());
  EXPECT_TRUE(lines_.Has(Poco::Message::PRIO_TRACE, "Unsupported syscall in event: 83"));
  EXPECT_EQ(counters_.Get(IntakeCounters::Reason::UnsupportedCall), 1U);
}

TEST_F(RecordFeedTest, DropsASyscallRecordWithoutItsNumber) {
  Feed(Replaced(log_.Event(AuditLog::kMkdir), "syscall=83 ", ""));
  EXPECT_THAT(Flushed(), IsEmpty());
  EXPECT_THAT(factory_.syscalls, IsEmpty());
}

TEST_F(RecordFeedTest, TakesTheCallOfA32BitProgramForTheOneItMeans) {
  // 39 is the mkdir of i386.
  const std::string event = Replaced(log_.Event(AuditLog::kMkdir), "arch=c000003e", "arch=40000003");
  Feed(Replaced(event, "syscall=83", "syscall=39"));
  EXPECT_THAT(Flushed(), ElementsAre(AuditLog::kMkdir));
  EXPECT_THAT(factory_.syscalls, ElementsAre(83));
}

TEST_F(RecordFeedTest, IgnoresCallsOfAnotherArchitecture) {
  Feed(Replaced(log_.Event(AuditLog::kMkdir), "arch=c000003e", "arch=c00000b7"));
  EXPECT_THAT(Flushed(), IsEmpty());
  EXPECT_THAT(factory_.syscalls, IsEmpty());
  EXPECT_TRUE(lines_.Has(Poco::Message::PRIO_TRACE, "Ignoring event with ID: 27 arch: c00000b7"));
  EXPECT_EQ(counters_.Get(IntakeCounters::Reason::UnsupportedCall), 1U);

  Feed(Replaced(log_.Event(AuditLog::kMkdir), "arch=c000003e ", ""));
  EXPECT_THAT(Flushed(), ElementsAre(AuditLog::kMkdir)) << "a record without the field is taken as it is";
}

TEST_F(RecordFeedTest, CountsWhatHasNoTrustedPath) {
  factory_.results = {BuildResult::Unplaced, BuildResult::Dropped};
  for (int i = 0; i < 2; ++i) {
    Feed(log_.Event(AuditLog::kMkdir));
    EXPECT_THAT(Flushed(), IsEmpty());
  }
  EXPECT_EQ(counters_.Get(IntakeCounters::Reason::Unplaced), 1U);
  EXPECT_EQ(counters_.Get(IntakeCounters::Reason::NotBuilt), 1U);
  EXPECT_EQ(counters_.Get(IntakeCounters::Reason::UnsupportedCall), 0U);
}

TEST_F(RecordFeedTest, PassesOverTheEndOfEventRecordsInSilence) {
  Feed("type=EOE msg=audit(1795162409.432:27): \n");
  EXPECT_THAT(Flushed(), IsEmpty());
  EXPECT_FALSE(lines_.Has("Ignoring event")) << lines_.All();
}

TEST_F(RecordFeedTest, AsksForAnAbnormalEndWhichIsNoCall) {
  factory_.builds_abends = true;
  Feed(log_.Event(AuditLog::kAbend));
  EXPECT_THAT(Flushed(), ElementsAre(AuditLog::kAbend));
  EXPECT_THAT(factory_.syscalls, IsEmpty());
}

TEST_F(RecordFeedTest, AsksForTheCallBesideAnAbnormalEndToo) {
  factory_.builds_abends = true;
  const std::string abend = fakes::Replaced(log_.Event(AuditLog::kAbend), ":176): ", ":27): ");
  const std::string stamp = log_.Event(AuditLog::kMkdir);
  const std::size_t begin = abend.find("audit(") + 6;
  const std::size_t own = stamp.find("audit(") + 6;
  Feed(fakes::Replaced(abend, abend.substr(begin, 14), stamp.substr(own, 14)) + stamp);
  EXPECT_THAT(Flushed(), ElementsAre(AuditLog::kMkdir, AuditLog::kMkdir));
  EXPECT_THAT(factory_.syscalls, ElementsAre(83));
}

TEST_F(RecordFeedTest, IgnoresEventsThatAreNeither) {
  Feed(log_.Event(AuditLog::kAbend));
  EXPECT_THAT(Flushed(), IsEmpty());
  EXPECT_TRUE(lines_.Has(Poco::Message::PRIO_TRACE, "Ignoring event with ID: 176 record type: 1701"));
}

TEST_F(RecordFeedTest, FindsTheCallBehindARecordThatComesBeforeIt) {
  Feed("type=CONFIG_CHANGE msg=audit(1795162409.432:27): op=remove_rule key=\"k\" list=4 res=1\n" +
       log_.Event(AuditLog::kMkdir));
  EXPECT_THAT(Flushed(), ElementsAre(AuditLog::kMkdir));
  EXPECT_THAT(factory_.syscalls, ElementsAre(83));
}

TEST_F(RecordFeedTest, AnEventThatCannotBeBuiltCostsNoOther) {
  factory_.interfere = [](int syscall) {
    if (syscall == 84) throw edr::EventException("Missing path for child");
    if (syscall == 82) throw 42;
  };
  Feed(log_.Event(AuditLog::kRmdir) + log_.Event(AuditLog::kOpenForWriting) + log_.Event(AuditLog::kRenameOver));
  EXPECT_THAT(Flushed(), ElementsAre(AuditLog::kOpenForWriting));
  EXPECT_TRUE(lines_.Has(Poco::Message::PRIO_DEBUG, "Dropping event: Missing path for child"));
  EXPECT_TRUE(lines_.Has(Poco::Message::PRIO_DEBUG, "Dropping event: unknown failure"));
  EXPECT_EQ(counters_.Get(IntakeCounters::Reason::NotBuilt), 2U);
}

TEST_F(RecordFeedTest, WritesEveryRecordOfAnEventToTheTrace) {
  const fakes::EventTrace trace;
  int records_left = 0;
  RecordFeed feed(
      [&](const EventSubject&, RecordSource& source, Events&) {
        constexpr RecordKinds kAll = 0xffff;
        while (source.Next(kAll) != nullptr) ++records_left;
        return BuildResult::Built;
      },
      counters_);
  const std::string event = log_.Event(AuditLog::kMkdir);
  feed.Feed(reinterpret_cast<const unsigned char*>(event.data()), event.size());
  feed.Flush();
  EXPECT_EQ(records_left, 5);
  EXPECT_EQ(trace.Count("Received complete event: "), 1);
  for (const std::string& record : log_.Records(AuditLog::kMkdir)) EXPECT_TRUE(trace.Has(record)) << trace.All();
}

TEST_F(RecordFeedTest, FindsTheNextEventBehindBytesThatAreNoRecords) {
  Feed(std::string("0\n\n\0\xff\xfe type=SYSCALL msg=audit(\ntype=SYSCALL msg=audit(1.2:3\n", 56));
  Feed("type=SYSCALL msg=audit(99999999999999999999.999:99999999999999999999): syscall=1\n");
  Feed(std::string(300'000, 'x') + "\n");
  Feed(log_.Event(AuditLog::kMkdir));
  feed_.Flush();
  EXPECT_EQ(Taken().back(), AuditLog::kMkdir);
}

// With the events of the real factory, which read their records.
class TypedFeedTest : public testing::Test {
 protected:
  Events Feed(const std::string& text) {
    feed_.Feed(reinterpret_cast<const unsigned char*>(text.data()), text.size());
    feed_.Flush();
    return feed_.TakeEvents();
  }

  fakes::LogCapture lines_;
  AuditLog log_;
  IntakeCounters counters_;
  RecordFeed feed_{MakeEventFactory({}), counters_};
};

TEST_F(TypedFeedTest, TheCallBesideAnAbnormalEndHasAllItsRecords) {
  const std::string abend = Replaced(log_.Event(AuditLog::kAbend), "1795162409.512:176", "1795162409.436:29");
  const Events events = Feed(abend + log_.Event(AuditLog::kRmdir));
  ASSERT_EQ(events.size(), 2U);
  EXPECT_EQ(events[0]->GetActorProcessId(), 111);
  EXPECT_EQ(events[1]->GetType(), edr::EventType::Delete);
  EXPECT_EQ(events[1]->GetFile()->GetPath(), "/srv/w/MARK-01-rel-create");
}

// When the kernel's queue is full, every process that works waits within the records of its event.
TEST_F(TypedFeedTest, AThousandProcessesMayStandWithinTheirEventsAtOnce) {
  constexpr int kProcesses = 1'500;
  std::string text;
  for (const std::string& record : log_.Records(AuditLog::kRmdir)) {
    for (int process = 0; process < kProcesses; ++process) {
      text += Replaced(record, ":29)", ":" + std::to_string(10'000 + process) + ")");
    }
  }
  EXPECT_THAT(Feed(text), testing::SizeIs(kProcesses));
  EXPECT_EQ(counters_.Get(IntakeCounters::Reason::NotBuilt), 0U);
  EXPECT_EQ(feed_.GetCutParts(), 0U);
}

// The kernel writes all arguments of a program down, in records of some thousand bytes each: up to six megabytes, and
// twice as much text.
class LongArgumentsTest : public RecordFeedTest {
 protected:
  static constexpr unsigned kLongArgument = 185;  // serial of a call with such a list
  static constexpr std::size_t kRecord = 7'400;

  // Records of the call with these arguments ("a0=..."), in the kernel's order.
  std::vector<std::string> RecordsOf(const std::vector<std::string>& arguments) const {
    std::vector<std::string> records;
    for (const std::string& record : log_.Records(kLongArgument)) {
      if (!record.starts_with("type=EXECVE")) records.push_back(record);
    }
    const std::string head = "type=EXECVE msg=audit(1795162409.532:185): ";
    std::string list = head + "argc=" + std::to_string(arguments.size());
    std::vector<std::string> lists;
    for (const std::string& argument : arguments) {
      if (list.size() + argument.size() > kRecord) lists.push_back(std::exchange(list, head) + "\n");
      list += " " + argument;
    }
    lists.push_back(list + "\n");
    records.insert(records.begin() + 1, lists.begin(), lists.end());
    return records;
  }
  // What was there to build an event of.
  struct Program {
    int paths = 0;
    std::string argument_count;
    std::vector<std::string> arguments;
  };
  std::vector<Program> ProgramsOf(const std::vector<std::string>& records) {
    std::vector<Program> programs;
    RecordFeed feed(
        [&programs](const EventSubject& subject, RecordSource& source, Events& /*events*/) {
          if (subject.record_type == record_type::kSyscall) programs.push_back(Read(source));
          return BuildResult::Built;
        },
        counters_);
    std::string text;
    for (const std::string& record : records) text += record;
    constexpr std::size_t kPiece = 65'536;
    for (std::size_t at = 0; at < text.size(); at += kPiece) {
      const std::string piece = text.substr(at, kPiece);
      feed.Feed(reinterpret_cast<const unsigned char*>(piece.data()), piece.size());
    }
    feed.Flush();
    return programs;
  }
  static Program Read(RecordSource& source) {
    Program program;
    while (const Record* record = source.Next(KindsOf(record_type::kExecve, record_type::kPath))) {
      if (record->type == record_type::kPath) ++program.paths;
      if (record->fields.Has(edr::RecordField::Argc)) {
        program.argument_count = record->fields.Find(edr::RecordField::Argc);
      }
      for (std::size_t at = 0; at < record->fields.ArgumentCount(); ++at) {
        if (const auto argument = record->fields.Argument(at)) program.arguments.emplace_back(*argument);
      }
    }
    return program;
  }
  static std::vector<std::string> ManyArguments() {
    std::vector<std::string> arguments{"a0=\"true\"", "a1=\"first\""};
    while (arguments.size() < 600'000) arguments.push_back("a" + std::to_string(arguments.size()) + "=01");
    return arguments;
  }
  std::uint64_t NotBuilt() { return counters_.Get(IntakeCounters::Reason::NotBuilt); }
};

TEST_F(LongArgumentsTest, AProgramThatIsCalledWithMegabytesOfThemIsBuilt) {
  const std::vector<Program> programs = ProgramsOf(RecordsOf(ManyArguments()));
  ASSERT_EQ(programs.size(), 1U);
  EXPECT_EQ(programs[0].paths, 2);
  EXPECT_EQ(programs[0].argument_count, "600000");
  ASSERT_EQ(programs[0].arguments.size(), edr::RecordFields::kMaxArguments);
  EXPECT_EQ(programs[0].arguments[0], "true");
  EXPECT_EQ(programs[0].arguments[1], "first");
  EXPECT_EQ(NotBuilt(), 0U);
}

TEST_F(LongArgumentsTest, SoAreManyAtTheSameTime) {
  constexpr std::size_t kPrograms = 40;
  constexpr std::size_t kRecords = 60;
  std::vector<std::string> records = RecordsOf(ManyArguments());
  records.erase(records.begin() + kRecords / 2, records.end() - kRecords / 2);
  std::vector<std::string> mixed;
  for (const std::string& record : records) {
    for (std::size_t program = 0; program < kPrograms; ++program) {
      mixed.push_back(Replaced(record, ":185)", ":" + std::to_string(1'000 + program) + ")"));
    }
  }
  const std::vector<Program> programs = ProgramsOf(mixed);
  EXPECT_EQ(programs.size(), kPrograms);
  for (const Program& program : programs) EXPECT_EQ(program.paths, 2);
  EXPECT_EQ(NotBuilt(), 0U);
}

TEST_F(LongArgumentsTest, SoAreSomeWithAsMuchAsCanBeRead) {
  constexpr std::size_t kPrograms = 6;
  std::vector<std::string> arguments;
  while (arguments.size() < edr::RecordFields::kMaxArguments) {
    arguments.push_back("a" + std::to_string(arguments.size()) + "=" + std::string(7'200, '4'));
  }
  std::vector<std::string> mixed;
  for (const std::string& record : RecordsOf(arguments)) {
    for (std::size_t program = 0; program < kPrograms; ++program) {
      mixed.push_back(Replaced(record, ":185)", ":" + std::to_string(1'000 + program) + ")"));
    }
  }
  const std::vector<Program> programs = ProgramsOf(mixed);
  EXPECT_EQ(programs.size(), kPrograms);
  for (const Program& program : programs) EXPECT_THAT(program.arguments, testing::Not(IsEmpty()));
  EXPECT_EQ(NotBuilt(), 0U);
}

TEST_F(LongArgumentsTest, OneBehindLongOnesIsKept) {
  std::vector<std::string> arguments{"a0=\"true\""};
  for (int longs = 1; longs <= 40; ++longs) {
    const std::string name = "a" + std::to_string(longs);
    arguments.push_back(name + "_len=131000");
    for (int part = 0; part < 36; ++part) {
      arguments.push_back(name + "[" + std::to_string(part) + "]=" + std::string(7'300, '4'));
    }
  }
  arguments.emplace_back("a41=\"last\"");
  const std::vector<Program> programs = ProgramsOf(RecordsOf(arguments));
  ASSERT_EQ(programs.size(), 1U);
  EXPECT_THAT(programs[0].arguments, ElementsAre("true", "last"));
  EXPECT_EQ(programs[0].paths, 2);
  EXPECT_EQ(NotBuilt(), 0U);
}

class CutFeedTest : public TypedFeedTest {
 protected:
  // The records of one event, [first, last).
  std::string Some(std::size_t first, std::size_t last) {
    std::string text;
    for (std::size_t at = first; at < last; ++at) text += records_[at];
    return text;
  }
  std::string Rest(std::size_t first) { return Some(first, records_.size()); }
  std::uint64_t NotBuilt() { return counters_.Get(IntakeCounters::Reason::NotBuilt); }

  std::vector<std::string> records_ = log_.Records(AuditLog::kRmdir);
};

TEST_F(CutFeedTest, WhatAFlushHasCutIsBuiltWhenItsOtherRecordsCome) {
  EXPECT_THAT(Feed(Some(0, 2)), IsEmpty());
  const Events events = Feed(Rest(2));
  ASSERT_EQ(events.size(), 1U);
  EXPECT_EQ(events[0]->GetId(), AuditLog::kRmdir);
  EXPECT_EQ(events[0]->GetFile()->GetPath(), "/srv/w/MARK-01-rel-create");
  EXPECT_EQ(NotBuilt(), 0U);
}

// Else a folder is gone before what was in it.
TEST_F(CutFeedTest, WhatAFlushHasCutComesBeforeTheEventsBehindIt) {
  EXPECT_THAT(Feed(Some(0, 2)), IsEmpty());
  const Events events = Feed(Rest(2) + log_.Event(AuditLog::kRenameOver));
  ASSERT_GE(events.size(), 2U);
  EXPECT_EQ(events[0]->GetId(), AuditLog::kRmdir);
  EXPECT_EQ(events[1]->GetId(), AuditLog::kRenameOver);
}

TEST_F(CutFeedTest, WhatIsCutTwiceIsBuiltWhenTheLastPartCame) {
  EXPECT_THAT(Feed(Some(0, 2)), IsEmpty());
  EXPECT_THAT(Feed(Some(2, 3)), IsEmpty());
  EXPECT_EQ(Feed(Rest(3)).size(), 1U);
  EXPECT_EQ(NotBuilt(), 0U);
}

TEST_F(CutFeedTest, RecordsThatTheKernelSendsBehindNewerEventsFindTheirCall) {
  const std::string newer = log_.Event(AuditLog::kRenameOver);
  EXPECT_THAT(Feed(Some(0, 2) + newer), testing::SizeIs(2));
  EXPECT_EQ(Feed(Rest(2) + Replaced(newer, ":61)", ":62)")).size(), 1U);
}

TEST_F(CutFeedTest, ACallThatTheKernelSendsBehindItsRecordsFindsThem) {
  EXPECT_THAT(Feed(Rest(2)), IsEmpty());
  const Events events = Feed(Some(0, 2));
  ASSERT_EQ(events.size(), 1U);
  EXPECT_EQ(events[0]->GetFile()->GetPath(), "/srv/w/MARK-01-rel-create");
}

TEST_F(CutFeedTest, WhatIsBuiltAlreadyIsNotBuiltAgainOfItsTail) {
  EXPECT_EQ(Feed(Some(0, 4)).size(), 1U);
  EXPECT_THAT(Feed(Rest(4)), IsEmpty());
  EXPECT_EQ(NotBuilt(), 0U);
}

TEST_F(CutFeedTest, HalfALineBehindTheLastPartIsLeftAlone) {
  EXPECT_THAT(Feed(Some(0, 2)), IsEmpty());
  const std::string next = log_.Event(AuditLog::kRenameOver);
  EXPECT_THAT(Feed(Rest(2) + next.substr(0, 100)), testing::SizeIs(1));
  EXPECT_THAT(Feed(next.substr(100)), testing::SizeIs(2)) << "the rename, and what it replaced";
}

TEST_F(CutFeedTest, ConnectAndBindWaitForTheirAddress) {
  for (const auto& [number, type] : {std::pair{"42", edr::EventType::Connect}, std::pair{"49", edr::EventType::Bind}}) {
    SCOPED_TRACE(number);
    const std::string stamp = " msg=audit(1795162409.500:9" + std::string(number) + "): ";
    const std::string call = "type=SYSCALL" + stamp + "arch=c000003e syscall=" + number +
                             " success=yes exit=0 a0=3 a1=0 a2=10 a3=0 items=0 ppid=1 pid=9 "
                             "auid=0 uid=0 gid=0 euid=0 exe=\"/bin/x\" key=\"k\"\n";
    const std::string address = "type=SOCKADDR" + stamp + "saddr=020000500A0000010000000000000000\n";
    const std::string title = "type=PROCTITLE" + stamp + "proctitle=\"x\"\n";
    EXPECT_THAT(Feed(call), IsEmpty());
    const Events events = Feed(address + title);
    ASSERT_EQ(events.size(), 1U) << lines_.All();
    EXPECT_EQ(events[0]->GetType(), type);
  }
  EXPECT_EQ(NotBuilt(), 0U);
}

// Two of one serial number: auparse takes records of other machines and of other milliseconds apart, however often.
TEST_F(CutFeedTest, PartsOfOtherMachinesAndMillisecondsAreNotTakenForOneEvent) {
  std::string text;
  for (int event = 0; event < 40; ++event) {
    const std::string number = std::to_string(100 + event);
    text += "node=a " + Replaced(Some(0, 1), ".436:29)", ".436:" + number + ")");
    text += "node=b " + Replaced(Some(3, 4), ".436:29)", ".436:" + number + ")");
    text += "node=a " + Replaced(Some(3, 4), ".436:29)", ".437:" + number + ")");
  }
  EXPECT_THAT(Feed(text), IsEmpty());
  EXPECT_THAT(Feed(""), IsEmpty());
}

TEST_F(CutFeedTest, TheRestOfAnotherMachinesEventIsNotTaken) {
  EXPECT_THAT(Feed("node=a " + records_[0]), IsEmpty());
  EXPECT_THAT(Feed("node=b " + records_[1] + "node=b " + records_[2] + "node=b " + records_[3]), IsEmpty());
}

TEST_F(CutFeedTest, AnEventOfANodeIsPutTogether) {
  const auto of_node = [](const std::string& records) {
    std::string text = "node=a ";
    for (const char byte : records) text += byte == '\n' ? std::string("\nnode=a ") : std::string(1, byte);
    return text.substr(0, text.size() - 7);
  };
  EXPECT_THAT(Feed(of_node(Some(0, 2))), IsEmpty());
  EXPECT_EQ(Feed(of_node(Rest(2))).size(), 1U);
}

TEST_F(CutFeedTest, PartsInTheWrongOrderAreOneEventAllTheSame) {
  EXPECT_THAT(Feed(Rest(3)), IsEmpty());
  EXPECT_THAT(Feed(records_[2]), IsEmpty());
  EXPECT_EQ(Feed(Some(0, 2)).size(), 1U);
}

TEST_F(CutFeedTest, WhatStillWaitsIsCountedWhenItIsGivenUp) {
  EXPECT_THAT(Feed(Some(0, 2)), IsEmpty());
  EXPECT_EQ(NotBuilt(), 0U);
  feed_.GiveUpCutEvents();
  EXPECT_EQ(NotBuilt(), 1U);
}

TEST_F(CutFeedTest, AnEventThatOthersOvertookByTwoSecondsWaitsForItsRest) {
  std::string newer = log_.Event(AuditLog::kRenameOver);
  for (std::size_t at = 0; (at = newer.find("1795162409.", at)) != std::string::npos; at += 11) {
    newer.replace(at, 11, "1795162419.");
  }
  const std::string text = Some(0, 2) + newer + Replaced(Some(4, 5), "1795162409.436:29)", "1795162420.436:99)");
  feed_.Feed(reinterpret_cast<const unsigned char*>(text.data()), text.size());
  EXPECT_THAT(Feed(Rest(2)), testing::SizeIs(3));
  EXPECT_EQ(NotBuilt(), 0U);
}

// Beside a newer one auparse gives out each record of an older event by itself.
TEST_F(CutFeedTest, WhatWasOvertakenIsPutTogetherWhileNewerEventsCome) {
  std::string newer = log_.Event(AuditLog::kRenameOver);
  for (std::size_t at = 0; (at = newer.find("1795162409.", at)) != std::string::npos; at += 11) {
    newer.replace(at, 11, "1795162419.");
  }
  std::vector<std::uint64_t> parts;
  for (const std::string& text : {Some(0, 2) + newer, Rest(2), Replaced(newer, ":61)", ":63)")}) {
    feed_.Feed(reinterpret_cast<const unsigned char*>(text.data()), text.size());
    parts.push_back(feed_.GetCutParts());
  }
  EXPECT_LE(parts[2], 5U) << "no part comes twice";
  bool is_told = false;
  for (const auto& event : feed_.TakeEvents()) is_told = is_told || event->GetId() == AuditLog::kRmdir;
  EXPECT_TRUE(is_told) << "without a flush";
}

TEST_F(CutFeedTest, RecordsOfAnotherTimeWithTheSameSerialAreOfAnotherEvent) {
  EXPECT_THAT(Feed(Some(0, 2)), IsEmpty());
  std::string rest = Rest(2);
  for (std::size_t at = 0; (at = rest.find("1795162409.", at)) != std::string::npos; ++at) rest[at + 9] = '8';
  EXPECT_THAT(Feed(rest), IsEmpty());
}

TEST_F(CutFeedTest, AnEventWithAnEndThatCannotBeBuiltIsCountedAtOnce) {
  EXPECT_THAT(Feed(records_.front() + records_.back()), IsEmpty());
  EXPECT_EQ(NotBuilt(), 1U);
  EXPECT_THAT(Feed(records_.front() + "type=EOE msg=audit(1795162409.436:29): \n"), IsEmpty());
  EXPECT_EQ(NotBuilt(), 2U);
}

// Every event of the log that has a SYSCALL record, and nothing else, arrives in the order of the log.
TEST_F(RecordFeedTest, TakesTheWholeLogOfARealKernel) {
  std::vector<unsigned> expected;
  std::set<unsigned> seen;
  std::istringstream all(log_.All());
  for (std::string line; std::getline(all, line);) {
    if (line.rfind("type=", 0) != 0) continue;  // the log has a remark of its maker
    const auto serial = static_cast<unsigned>(std::stoul(line.substr(line.find(':') + 1)));
    if (line.rfind("type=SYSCALL ", 0) != 0 || !seen.insert(serial).second) continue;
    expected.push_back(serial);
  }
  ASSERT_GT(expected.size(), 150U);
  Feed(log_.All());
  EXPECT_EQ(Flushed(), expected);
}

}  // namespace
}  // namespace zagent::audit::internal

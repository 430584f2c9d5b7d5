#include "src/audit/parser/EventAssembler.h"

#include <auparse.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/fakes/Heap.h"
#include "tests/fakes/TestData.h"

namespace zagent::audit::internal {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

// An event as it was told: its lines, each with its end.
using Told = std::string;

class EventAssemblerTest : public testing::Test {
 protected:
  std::vector<Told> Feed(const std::string& text) {
    assembler_.Feed(text);
    return Taken();
  }
  std::vector<Told> Flushed() {
    assembler_.Flush();
    return Taken();
  }
  std::vector<Told> Taken() { return std::exchange(told_, {}); }

  static std::string Line(const std::string& type, const std::string& stamp, const std::string& fields = "a=1") {
    return "type=" + type + " msg=audit(" + stamp + "): " + fields + "\n";
  }
  static std::string Call(const std::string& stamp) { return Line("SYSCALL", stamp, "syscall=2"); }
  static std::string Title(const std::string& stamp) { return Line("PROCTITLE", stamp, "proctitle=\"x\""); }
  static std::string End(const std::string& stamp) { return Line("EOE", stamp, ""); }
  static std::string Whole(const std::string& stamp) { return Call(stamp) + Title(stamp); }

  std::vector<Told> told_;
  EventAssembler assembler_{[this](std::span<const RecordLine> lines) {
    Told event;
    for (const RecordLine& line : lines) event.append(line.text).append("\n");
    told_.push_back(event);
  }};
};

TEST_F(EventAssemblerTest, AnEventIsToldWithItsCommandLine) {
  EXPECT_THAT(Feed(Call("1.001:1")), IsEmpty());
  EXPECT_THAT(Feed(Line("PATH", "1.001:1")), IsEmpty());
  EXPECT_THAT(Feed(Title("1.001:1")), ElementsAre(Call("1.001:1") + Line("PATH", "1.001:1") + Title("1.001:1")));
  EXPECT_THAT(Flushed(), IsEmpty());
}

TEST_F(EventAssemblerTest, AnEventWithoutACommandLineIsToldWithItsEnd) {
  EXPECT_THAT(Feed(Call("1.001:1") + End("1.001:1")), ElementsAre(Call("1.001:1") + End("1.001:1")));
}

TEST_F(EventAssemblerTest, TheEndOfAnEventThatWasToldIsNoEvent) {
  EXPECT_THAT(Feed(Whole("1.001:1") + End("1.001:1")), SizeIs(1));
  EXPECT_THAT(Flushed(), IsEmpty());
}

TEST_F(EventAssemblerTest, WhatComesBehindTheCommandLineIsToldByItself) {
  EXPECT_THAT(Feed(Whole("1.001:1") + Line("PATH", "1.001:1")), ElementsAre(Whole("1.001:1")));
  EXPECT_THAT(Flushed(), ElementsAre(Line("PATH", "1.001:1")));
}

TEST_F(EventAssemblerTest, RecordsOfSeveralProcessorsAreToldApart) {
  EXPECT_THAT(Feed(Call("1.001:1") + Call("1.001:2") + Title("1.001:1") + Title("1.001:2")),
              ElementsAre(Whole("1.001:1"), Whole("1.001:2")));
}

TEST_F(EventAssemblerTest, EventsAreToldInTheOrderInWhichTheyBegan) {
  EXPECT_THAT(Feed(Call("1.001:1") + Whole("1.001:2") + Whole("1.001:3")), IsEmpty());
  EXPECT_THAT(Feed(Title("1.001:1")), ElementsAre(Whole("1.001:1"), Whole("1.001:2"), Whole("1.001:3")));
}

TEST_F(EventAssemblerTest, StampsAreOneEventsOnlyWhenAllOfThemIsEqual) {
  EXPECT_THAT(Feed(Call("1.001:1") + Call("1.002:1") + Call("2.001:1") + Call("1.001:11")), IsEmpty());
  EXPECT_THAT(Flushed(), ElementsAre(Call("1.001:1"), Call("1.002:1"), Call("2.001:1"), Call("1.001:11")));
}

TEST_F(EventAssemblerTest, LongStampsThatEndAlikeAreOfTwoEvents) {
  EXPECT_THAT(Feed(Call("1795162409.432:27") + Call("1795162408.432:27") + Title("1795162409.432:27")),
              ElementsAre(Whole("1795162409.432:27")));
  EXPECT_THAT(Flushed(), ElementsAre(Call("1795162408.432:27")));
}

TEST_F(EventAssemblerTest, TheSameStampOfTwoMachinesIsTwoEvents) {
  const std::string one = "node=a " + Call("1.001:1");
  const std::string two = "node=b " + Call("1.001:1");
  const std::string end_of_one = "node=a " + Title("1.001:1");
  EXPECT_THAT(Feed(one + two + end_of_one), ElementsAre(one + end_of_one));
  EXPECT_THAT(Flushed(), ElementsAre(two));
}

TEST_F(EventAssemblerTest, ARecordThatStandsAloneIsTold) {
  for (const char* type : {"USER_LOGIN", "KERNEL", "ANOM_LOGIN_FAILURES", "DAEMON_START", "NO_SUCH_TYPE"}) {
    EXPECT_THAT(Feed(Line(type, "1.001:1")), ElementsAre(Line(type, "1.001:1"))) << type;
  }
  for (const char* type : {"PATH", "CONFIG_CHANGE", "AVC", "ANOM_ABEND"}) {
    EXPECT_THAT(Feed(Line(type, "1.001:1")), IsEmpty()) << type;
    EXPECT_THAT(Flushed(), ElementsAre(Line(type, "1.001:1"))) << type;
  }
}

TEST_F(EventAssemblerTest, OneThatComesWithinAnEventDoesNotEndIt) {
  const std::string event = Call("1.001:1") + Line("USER_LOGIN", "1.001:1");
  EXPECT_THAT(Feed(event), IsEmpty());
  EXPECT_THAT(Feed(Title("1.001:1")), ElementsAre(event + Title("1.001:1")));
}

TEST_F(EventAssemblerTest, AFlushTellsWhatIsThereAndTheRestIsToldByItself) {
  EXPECT_THAT(Feed(Call("1.001:1") + Whole("1.001:2")), IsEmpty());
  EXPECT_THAT(Flushed(), ElementsAre(Call("1.001:1"), Whole("1.001:2")));
  EXPECT_THAT(Feed(Title("1.001:1")), ElementsAre(Title("1.001:1")));
}

TEST_F(EventAssemblerTest, NothingIsWaitedForMoreThanTwoSecondsOfTheKernelsTime) {
  EXPECT_THAT(Feed(Call("10.999:1") + Whole("12.000:2")), IsEmpty());
  EXPECT_THAT(Feed(Whole("13.000:3")), ElementsAre(Call("10.999:1"), Whole("12.000:2"), Whole("13.000:3")));
}

TEST_F(EventAssemblerTest, AClockThatIsSetBackDoesNotEndTheWaiting) {
  EXPECT_THAT(Feed(Call("1000.001:1") + Whole("1.000:2")), IsEmpty());
  EXPECT_THAT(Feed(Title("1000.001:1")), SizeIs(2));
}

TEST_F(EventAssemblerTest, AStampThatIsDamagedMakesNoEvent) {
  EXPECT_THAT(Feed(Call("1.001") + Call("x") + Call("99999999999999999999.1:1") + Whole("1.001:1")),
              ElementsAre(Whole("1.001:1")));
  EXPECT_THAT(Flushed(), IsEmpty());
}

TEST_F(EventAssemblerTest, OfTooManyOpenEventsTheOldestIsToldAsItIs) {
  const auto stamp = [](std::size_t serial) { return "1.001:" + std::to_string(serial); };
  for (std::size_t serial = 1; serial <= EventAssembler::kMostOpen; ++serial) {
    EXPECT_THAT(Feed(Call(stamp(serial))), IsEmpty());
  }
  EXPECT_THAT(Feed(Call(stamp(EventAssembler::kMostOpen + 1))), ElementsAre(Call(stamp(1))));
  EXPECT_THAT(Flushed(), SizeIs(EventAssembler::kMostOpen));
}

TEST_F(EventAssemblerTest, AnEventIsNotWaitedForWhenTooManyBytesWaitBehindIt) {
  assembler_.Feed(Call("1.001:1"));
  std::size_t fed = Call("1.001:1").size();
  for (std::size_t serial = 2; told_.empty(); ++serial) {
    const std::string event = Whole("1.001:" + std::to_string(serial));
    fed += event.size();
    assembler_.Feed(event);
    ASSERT_LE(fed, EventAssembler::kMostBytes + 2 * event.size());
  }
  EXPECT_GT(fed, EventAssembler::kMostBytes);
  EXPECT_EQ(Taken().front(), Call("1.001:1"));
  EXPECT_THAT(Feed(Whole("1.001:1")), SizeIs(1)) << "nothing is held back any more";
}

TEST_F(EventAssemblerTest, ALineMayComeByteByByteAndOverAFlush) {
  for (const char byte : Call("1.001:1")) EXPECT_THAT(Feed(std::string(1, byte)), IsEmpty());
  const std::string title = Title("1.001:1");
  EXPECT_THAT(Feed(title.substr(0, 20)), IsEmpty());
  EXPECT_THAT(Flushed(), ElementsAre(Call("1.001:1")));
  EXPECT_THAT(Feed(title.substr(20)), ElementsAre(title));
}

TEST_F(EventAssemblerTest, CarriageReturnsAreLeftOut) {
  EXPECT_THAT(Feed("\r" + Call("1.001:1").insert(10, "\r") + "\r\n" + Title("1.001:1").insert(30, "\r\r")),
              ElementsAre(Whole("1.001:1")));
}

TEST_F(EventAssemblerTest, LinesThatAreNoRecordsArePassedOver) {
  EXPECT_THAT(Feed("\n\nx\n" + Call("1.001:1") + "----\ntype=PATH\n" + std::string("\0\0\n", 3) + Title("1.001:1")),
              ElementsAre(Whole("1.001:1")));
}

TEST_F(EventAssemblerTest, ALineThatIsTooLongIsPassedOverWholly) {
  const std::string record = Line("PATH", "1.001:1", "");
  const auto padded = [&record](std::size_t size) {  // with its end
    std::string line = record;
    return line.insert(line.size() - 1, size - line.size(), 'x');
  };
  const std::string longest = padded(EventAssembler::kLongestLine + 1);
  EXPECT_THAT(Feed(longest), IsEmpty());
  EXPECT_THAT(Flushed(), ElementsAre(longest));
  const std::string longer = padded(EventAssembler::kLongestLine + 2);
  EXPECT_THAT(Feed(longer), IsEmpty());
  EXPECT_THAT(Flushed(), IsEmpty());
  assembler_.Feed(longest.substr(0, EventAssembler::kLongestLine));
  EXPECT_THAT(Feed("\n"), IsEmpty());
  EXPECT_THAT(Flushed(), ElementsAre(longest)) << "in pieces, too";
  // What stands behind the piece that was too long is no line of its own.
  assembler_.Feed(longer.substr(0, EventAssembler::kLongestLine + 1));
  assembler_.Flush();
  EXPECT_THAT(Feed(Call("2.001:2") + Whole("1.001:3")), ElementsAre(Whole("1.001:3")));
}

TEST_F(EventAssemblerTest, WhatItThrowsCostsOneEvent) {
  int told = 0;
  EventAssembler assembler([&told](std::span<const RecordLine> /*lines*/) {
    if (++told == 1) throw std::runtime_error("no");
  });
  EXPECT_THROW(assembler.Feed(Whole("1.001:1") + Whole("1.001:2")), std::runtime_error);
  assembler.Feed(Whole("1.001:3"));
  EXPECT_EQ(told, 3);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST_F(EventAssemblerTest, TheHeapDoesNotGrowWithTheStream) {
  constexpr std::size_t kEvents = 50'000;
  std::size_t told = 0;
  const std::size_t before = fakes::HeapInUse();
  for (std::size_t serial = 1; serial <= kEvents; ++serial) {
    told += Feed(Whole("1.001:" + std::to_string(serial))).size();
  }
  EXPECT_EQ(told, kEvents);
  EXPECT_LT(fakes::HeapInUse() - before, 65'536U);
}

TEST_F(EventAssemblerTest, AFlushFreesWhatAStormHasTaken) {
  constexpr std::size_t kMiB = 1'048'576;
  constexpr std::size_t kKept = kMiB / 2;
  const std::size_t before = fakes::HeapInUse();
  std::size_t most = 0;
  assembler_.Feed(Call("1.001:1"));
  const std::string line = Line("PATH", "1.001:1");  // as many lines as can be, in one event
  for (std::size_t fed = 0; fed < 3 * kMiB; fed += line.size()) assembler_.Feed(line);
  for (std::size_t serial = 2; serial < EventAssembler::kMostOpen; ++serial) {
    assembler_.Feed(Call("1.001:" + std::to_string(serial)));
  }
  most = fakes::HeapInUse() - before;
  assembler_.Flush();
  ASSERT_EQ(told_.size(), EventAssembler::kMostOpen - 1);
  Taken();
  EXPECT_GT(most, 3 * kMiB);
  EXPECT_LT(fakes::HeapInUse() - before, kKept);
  EXPECT_THAT(Feed(Whole("1.001:1")), ElementsAre(Whole("1.001:1"))) << "and it goes on";
}

// Which is no storm, and comes ten times a second.
TEST_F(EventAssemblerTest, AFlushKeepsTheMemoryOfAnOrdinaryMoment) {
  std::string text;
  for (std::size_t serial = 1; text.size() < 65'536; ++serial) text += Whole("1.001:" + std::to_string(serial));
  Feed(text);
  Flushed();
  const std::size_t before = fakes::HeapInUse();
  Feed(text);
  EXPECT_LT(fakes::HeapInUse(), before + 32'768) << "nothing is asked for again";
}
#endif

TEST_F(EventAssemblerTest, HalfALineStaysOverAFlushThatFreesMemory) {
  Feed(Call("1.001:1"));
  for (std::size_t serial = 2; serial < 20'000; ++serial) assembler_.Feed(Whole("1.001:" + std::to_string(serial)));
  const std::string title = Title("1.001:1");
  assembler_.Feed(title.substr(0, 20));
  EXPECT_THAT(Flushed(), SizeIs(19'999));
  EXPECT_THAT(Feed(title.substr(20)), ElementsAre(title));
}

std::string ReadLog(const std::string& name) {
  std::ifstream in(fakes::TestData(name));
  return {std::istreambuf_iterator<char>(in), {}};
}

// What auparse makes of the same bytes, but for the ends of events, which it tells as events of their own.
class AuparseEvents {
 public:
  static std::vector<Told> Of(const std::string& log) {
    AuparseEvents events;
    auparse_state_t* const state = auparse_init(AUSOURCE_FEED, nullptr);
    auparse_set_escape_mode(state, AUPARSE_ESC_RAW);
    auparse_add_callback(
        state,
        [](auparse_state_t* event, auparse_cb_event_t kind, void* self) {
          if (kind == AUPARSE_CB_EVENT_READY) static_cast<AuparseEvents*>(self)->Note(event);
        },
        &events, nullptr);
    EXPECT_EQ(auparse_feed(state, log.data(), log.size()), 0);
    auparse_flush_feed(state);
    auparse_destroy(state);
    return events.told_;
  }

 private:
  void Note(auparse_state_t* state) {
    if (auparse_first_record(state) < 1) return;
    Told event;
    do event.append(auparse_get_record_text(state)).append("\n");
    while (auparse_next_record(state) > 0);
    if (!event.starts_with("type=EOE ")) told_.push_back(event);
  }

  std::vector<Told> told_;
};

std::vector<Told> Sorted(std::vector<Told> events) {
  std::sort(events.begin(), events.end());
  return events;
}

class RecordedLogTest : public EventAssemblerTest, public testing::WithParamInterface<const char*> {
 protected:
  std::vector<Told> AllOf(const std::string& log, std::size_t piece) {
    for (std::size_t at = 0; at < log.size(); at += piece) assembler_.Feed(log.substr(at, piece));
    return Flushed();
  }
};

// auparse puts those in order by their numbers that wait at a time; whoever takes the events does that here.
TEST_P(RecordedLogTest, MakesTheEventsThatAuparseMakes) {
  const std::string log = ReadLog(GetParam());
  const std::vector<Told> expected = Sorted(AuparseEvents::Of(log));
  ASSERT_GT(expected.size(), 20U);
  for (const std::size_t piece : {log.size(), std::size_t{65'536}, std::size_t{100}, std::size_t{7}}) {
    EXPECT_EQ(Sorted(AllOf(log, piece)), expected) << piece;
  }
}

// Records of other events between those of one, as several processors write them: each in its own order.
TEST_P(RecordedLogTest, MakesThemOfRecordsThatAreMixedUp) {
  const std::vector<Told> events = AuparseEvents::Of(ReadLog(GetParam()));
  std::mt19937 random(20261122);  // NOLINT(cert-msc32-c,cert-msc51-cpp): the same mixture in each run
  std::string mixed;
  std::vector<Told> expected;
  for (std::size_t at = 0; at + 4 <= events.size(); at += 4) {
    std::vector<std::string> rests;
    for (std::size_t one = at; one < at + 4; ++one) {
      // Those that are told apart by nothing but their order would be mixed with each other.
      if (events[one].find("type=PROCTITLE") != std::string::npos) rests.push_back(events[one]);
    }
    for (const std::string& event : rests) mixed += event.substr(0, event.find('\n') + 1);
    expected.insert(expected.end(), rests.begin(), rests.end());
    for (std::string& rest : rests) rest.erase(0, rest.find('\n') + 1);
    while (!rests.empty()) {
      std::string& rest = rests[random() % rests.size()];
      mixed += rest.substr(0, rest.find('\n') + 1);
      rest.erase(0, rest.find('\n') + 1);
      std::erase(rests, "");
    }
  }
  ASSERT_GT(expected.size(), 20U);
  EXPECT_EQ(AllOf(mixed, 1'000), expected);
}

INSTANTIATE_TEST_SUITE_P(Logs, RecordedLogTest,
                         testing::Values("audit-operations-6.1.log", "audit-processes-6.1.log", "audit-overlay-6.1.log",
                                         "audit-extended-6.1.log"),
                         [](const auto& log) {
                           std::string name = log.param;
                           name.resize(name.find("-6.1"));
                           std::replace(name.begin(), name.end(), '-', '_');
                           return name;
                         });

}  // namespace
}  // namespace zagent::audit::internal

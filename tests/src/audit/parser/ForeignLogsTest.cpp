// Audit records as other producers write them, or as they arrive damaged: what is sound comes out, nothing gets stuck.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "src/audit/parser/RecordFeed.h"
#include "tests/fakes/AuditLog.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TestData.h"

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>
#endif

namespace zagent::audit::internal {
namespace {

using fakes::Replaced;
using testing::ElementsAre;
using testing::IsEmpty;
using Lines = std::vector<std::string>;

// auparse never frees the fields of a record in which it found none: 1152 bytes a damaged line.
#ifdef __SANITIZE_ADDRESS__
using LeaksOfAuparse = __lsan::ScopedDisabler;
#else
struct LeaksOfAuparse {
  LeaksOfAuparse() {}  // NOLINT(modernize-use-equals-default): used by being there
};
#endif

std::string Text(const Lines& lines) {
  std::string text;
  for (const std::string& line : lines) text += line;
  return text;
}

std::string ForEach(const Lines& lines, const std::function<std::string(const std::string& line)>& change) {
  std::string text;
  for (const std::string& line : lines) text += change(line.substr(0, line.size() - 1));
  return text;
}

class ForeignLogsTest : public testing::Test {
 protected:
  ForeignLogsTest() : connect_(EventOf("216")), connect6_(EventOf("226")), exit_(EventOf("227")) {}

  // All records of one event of the log, in their order.
  static Lines EventOf(const std::string& serial) {
    std::ifstream in(fakes::TestData("audit-processes-6.1.log"));
    Lines lines;
    for (std::string line; std::getline(in, line);) {
      if (line.find(":" + serial + "): ") != std::string::npos) lines.push_back(line + "\n");
    }
    if (lines.size() < 3) throw std::runtime_error("no event " + serial);
    return lines;
  }

  void Feed(const std::string& text) {
    const LeaksOfAuparse expected;
    feed_.Feed(reinterpret_cast<const unsigned char*>(text.data()), text.size());
  }
  // "Connect 10.1.2.3 443 of process-actor, processes" and so on, once everything is in.
  Lines Taken() {
    feed_.Flush();
    Lines taken;
    for (const auto& event : feed_.TakeEvents()) {
      std::string line = event->GetAction();
      if (event->GetObjectType() == edr::ObjectType::Network) {
        line += " " + event->GetNetworkAddress() + " " + std::to_string(event->GetNetworkPort());
      }
      taken.push_back(line + " " + std::to_string(event->GetActorProcessId()) + " " + event->GetAuditKey());
    }
    return taken;
  }
  Lines TakenOf(const std::string& text) {
    Feed(text);
    return Taken();
  }

  static constexpr const char* kConnect = "Connect 10.1.2.3 443 475 processes";
  static constexpr const char* kConnect6 = "Connect 2001:db8::7 8443 478 processes";
  static constexpr const char* kExit = "Exit 478 processes";

  fakes::LogCapture log_;
  Lines connect_;   // SYSCALL, SOCKADDR, PROCTITLE, EOE
  Lines connect6_;  // likewise
  Lines exit_;      // SYSCALL, PROCTITLE, EOE
  IntakeCounters counters_;
  RecordFeed feed_{MakeEventFactory({}), counters_};
};

TEST_F(ForeignLogsTest, TheRecordsAsTheyAre) {
  EXPECT_THAT(TakenOf(Text(connect_) + Text(connect6_) + Text(exit_)), ElementsAre(kConnect, kConnect6, kExit));
}

TEST_F(ForeignLogsTest, EveryLineMayNameItsMachine) {
  const auto named = [](const std::string& line) { return "node=web-7.example.org " + line + "\n"; };
  EXPECT_THAT(TakenOf(ForEach(connect_, named) + ForEach(exit_, named)), ElementsAre(kConnect, kExit));
}

TEST_F(ForeignLogsTest, EnrichedLinesKeepTheirNumbers) {
  const auto enriched = [](const std::string& line) {
    if (line.starts_with("type=SYSCALL")) {
      return line +
             "\x1d"
             "ARCH=x86_64 SYSCALL=connect AUID=\"unset\" UID=\"nobody\" GID=\"root\" EUID=\"nobody\"\n";
    }
    if (line.starts_with("type=SOCKADDR")) {
      return line + "\x1dSADDR={ saddr_fam=inet laddr=10.1.2.3 lport=443 }\n";
    }
    return line + "\n";
  };
  Feed(ForEach(connect_, enriched) + ForEach(exit_, enriched));
  feed_.Flush();
  const Events events = feed_.TakeEvents();
  ASSERT_EQ(events.size(), 2U) << log_.All();
  EXPECT_EQ(events[0]->GetNetworkAddress(), "10.1.2.3");
  EXPECT_EQ(events[0]->GetNetworkPort(), 443U);
  EXPECT_EQ(events[0]->GetActorUserId(), 0U);
  EXPECT_EQ(events[0]->GetActorAuid(), 4294967295U);
  EXPECT_EQ(events[0]->GetAuditKey(), "processes");
  EXPECT_EQ(events[1]->GetActorUserId(), 0U);
}

TEST_F(ForeignLogsTest, RecordsOfUnknownTypesStandAnywhere) {
  const std::string unknown = Replaced(Replaced(connect_[1], "type=SOCKADDR", "type=UNKNOWN[1399]"), "saddr=", "x=");
  EXPECT_THAT(TakenOf(unknown + connect_[0] + unknown + connect_[1] + unknown + connect_[2] + connect_[3]),
              ElementsAre(kConnect));
  const std::string nameless = Replaced(unknown, "UNKNOWN[1399]", "A_TYPE_OF_NEXT_YEAR");
  EXPECT_THAT(TakenOf(nameless + Text(exit_)), ElementsAre(kExit));
}

TEST_F(ForeignLogsTest, KeysThatNobodyKnowsAreSteppedOver) {
  const std::string call = Replaced(Replaced(connect_[0], "arch=", "colour=blue ranks=\"1 2\" arch="),
                                    " key=", " =nothing word per=pers=per container=2F7372 key=");
  const std::string address = Replaced(connect_[1], "saddr=", "port=80 saddr=");
  EXPECT_THAT(TakenOf(call + address + connect_[2] + connect_[3]), ElementsAre(kConnect));
}

TEST_F(ForeignLogsTest, EventsMayBeInterleaved) {
  EXPECT_THAT(TakenOf(connect_[0] + exit_[0] + connect6_[0] + connect6_[1] + connect_[1] + exit_[1] + connect_[2] +
                      exit_[2] + connect_[3] + connect6_[2] + connect6_[3]),
              testing::UnorderedElementsAre(kConnect, kConnect6, kExit));
}

TEST_F(ForeignLogsTest, RecordsOfAnEventMayComeInAnyOrder) {
  EXPECT_THAT(TakenOf(connect_[2] + connect_[1] + connect_[0] + connect_[3]), ElementsAre(kConnect));
}

TEST_F(ForeignLogsTest, LaterEventsMayComeFirst) {
  EXPECT_THAT(TakenOf(Text(connect6_) + Text(connect_) + Text(exit_)),
              testing::UnorderedElementsAre(kConnect, kConnect6, kExit));
}

TEST_F(ForeignLogsTest, LinesMayEndAsOnOtherSystems) {
  const auto carriage = [](const std::string& line) { return line + "\r\n"; };
  EXPECT_THAT(TakenOf(ForEach(connect_, carriage) + ForEach(exit_, carriage)), ElementsAre(kConnect, kExit));
}

// The parser drops bytes when it is flooded, and goes on in the middle of a line.
TEST_F(ForeignLogsTest, LinesThatAreCutCostTheirOwnEventOnly) {
  const std::string whole = Text(connect_);
  const std::string next = Text(connect6_);
  for (std::size_t cut = 1; cut < whole.size(); ++cut) {
    Feed(whole.substr(cut));  // its beginning is lost
    Feed(next);
    const Lines taken = Taken();
    ASSERT_FALSE(taken.empty()) << cut;
    EXPECT_EQ(taken.back(), kConnect6) << cut;
    EXPECT_LE(taken.size(), 2U) << cut;
  }
  for (std::size_t cut = 1; cut < whole.size(); ++cut) {
    Feed(whole.substr(0, cut));  // its end is lost, and runs into the next line
    Feed(next);
    Feed(Text(exit_));
    const Lines taken = Taken();
    EXPECT_THAT(taken, testing::Contains(kExit)) << cut;
    EXPECT_LE(taken.size(), 3U) << cut;
  }
}

TEST_F(ForeignLogsTest, NulBytesCostTheirOwnLineOnly) {
  const std::string nul(1, '\0');
  EXPECT_THAT(TakenOf(nul + "\n" + Text(connect_) + nul + nul + "\n" + Text(exit_)), ElementsAre(kConnect, kExit));
  EXPECT_THAT(TakenOf(Replaced(Text(connect_), "success=", nul + "success=") + Text(exit_)), testing::Contains(kExit));
  EXPECT_THAT(TakenOf(std::string(100'000, '\0') + "\n" + Text(exit_)), ElementsAre(kExit));
}

TEST_F(ForeignLogsTest, AMebibyteWithoutALineBreakIsOneLine) {
  constexpr std::size_t kMebibyte = 1024UL * 1024UL;
  EXPECT_THAT(TakenOf(Text(connect_) + std::string(kMebibyte, 'x') + "\n" + Text(exit_)), ElementsAre(kConnect, kExit));
  // And as a field of a record: auparse cuts records at a length of its own.
  const std::string record = Replaced(connect_[2], "proctitle=", "proctitle=" + std::string(kMebibyte, '4'));
  EXPECT_THAT(TakenOf(connect_[0] + connect_[1] + record + connect_[3] + Text(exit_)), testing::Contains(kExit));
  const std::string fields = [] {
    std::string text;
    while (text.size() < kMebibyte) text += "k" + std::to_string(text.size()) + "=v ";
    return text;
  }();
  EXPECT_THAT(TakenOf(Replaced(Text(connect_), "a0=3 ", fields + "a0=3 ") + Text(exit_)), testing::Contains(kExit));
}

TEST_F(ForeignLogsTest, DamagedBytesCostTheirOwnEventsOnly) {
  std::mt19937 random(20261121);
  for (int round = 0; round < 2000; ++round) {
    std::string text = Text(connect_) + Text(connect6_);
    for (int damage = 0; damage < 5; ++damage) text[random() % text.size()] = static_cast<char>(random());
    const Lines taken = TakenOf(text + "\n" + Text(exit_));
    EXPECT_THAT(taken, testing::Contains(kExit)) << "round " << round;
    EXPECT_LE(taken.size(), 3U) << "round " << round;
    feed_.GiveUpCutEvents();  // the same events come in each round
  }
}

TEST_F(ForeignLogsTest, TextThatIsNoLogMakesNoEvents) {
  EXPECT_THAT(TakenOf("{\"type\": \"SYSCALL\"}\ntype=SYSCALL\ntype= msg=\nmsg=audit(1.2:3): type=SYSCALL\n----\n"
                      "time->Sat Nov 21 15:56:03 2026\ntype=SYSCALL msg=audit(): syscall=231\n\n\n"),
              IsEmpty());
  EXPECT_THAT(TakenOf(Text(exit_)), ElementsAre(kExit));
}

}  // namespace
}  // namespace zagent::audit::internal

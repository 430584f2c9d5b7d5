#include "common/src/tasks/BlackoutManager.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <functional>
#include <limits>
#include <string>

#include "tests/fakes/FakeClock.h"
#include "tests/fakes/LogCapture.h"

namespace zagent::common {
namespace {

using Poco::Message;
using Type = BlackoutManager::WindowType;

constexpr std::size_t kDigits = 168;
constexpr std::uint64_t kSlot = 900;
constexpr std::uint64_t kDay = 86'400;

// The machine's time zone while it lives.
class TimeZone {
 public:
  explicit TimeZone(const char* name) {
    const char* old = std::getenv("TZ");
    if (old != nullptr) old_ = old;
    setenv("TZ", name, 1);
    tzset();
  }
  TimeZone(const TimeZone&) = delete;
  TimeZone& operator=(const TimeZone&) = delete;
  ~TimeZone() {
    if (old_.empty()) {
      unsetenv("TZ");
    } else {
      setenv("TZ", old_.c_str(), 1);
    }
    tzset();
  }

 private:
  std::string old_;
};

const std::string kOpen(kDigits, 'F');
const std::string kClosed(kDigits, '0');

std::string Document(const std::string& network, const std::string& activity = kOpen, const std::string& id = "FIM") {
  return R"({"Blackout_Events":[{"@ID":")" + id + R"(","@NETWORK_BLACKOUT":")" + network +
         R"(","@ACTIVITY_BLACKOUT":")" + activity + R"("}]})";
}

// A schedule in which only the given slots are open.
std::string OnlyOpen(std::initializer_list<std::size_t> slots) {
  std::string text = kClosed;
  for (const std::size_t slot : slots) {
    const unsigned value =
        static_cast<unsigned>(std::stoi(std::string(1, text[slot / 4]), nullptr, 16)) | 8U >> (slot % 4);
    text[slot / 4] = "0123456789ABCDEF"[value];
  }
  return text;
}

class BlackoutManagerTest : public ::testing::Test {
 protected:
  // Sunday, 7 January 2024, 00:00 UTC.
  static constexpr std::int64_t kSunday = 1'704'585'600;

  // A moment of that week.
  static util::Clock::SystemTime At(std::int64_t second_of_week) {
    return util::Clock::SystemTime(std::chrono::seconds(kSunday + second_of_week));
  }
  [[nodiscard]] std::uint64_t Wait(const BlackoutManager& manager, std::int64_t second_of_week,
                                   Type type = Type::Network) const {
    return manager.GetSecondsToWindow("FIM", type, At(second_of_week));
  }
  void SetNow(std::int64_t second_of_week) { clock_.Advance(At(second_of_week) - clock_.Now()); }

  std::string ErrorOf(const std::string& json) {
    try {
      const BlackoutManager manager(json, clock_);
    } catch (const BlackoutManagerException& error) {
      return error.what();
    }
    return "";
  }

  const TimeZone zone_{"UTC"};
  const fakes::LogCapture log_;
  fakes::FakeClock clock_;
};

TEST_F(BlackoutManagerTest, AnOpenWeekDelaysNothing) {
  const BlackoutManager manager(Document(kOpen), clock_);
  for (std::int64_t second = 0; second < 604'800; second += 449) EXPECT_EQ(Wait(manager, second), 0U);
  SetNow(1234);
  EXPECT_FALSE(manager.IsNetworkBlackoutNow("FIM"));
  EXPECT_TRUE(
      log_.Has(Message::PRIO_INFORMATION, "]: Reduced Activity Period(RAP) Window settings populated successfully."));
  EXPECT_TRUE(log_.Has(Message::PRIO_INFORMATION,
                       "]: RAP Manager: New Blackout schedule added for FIM Network "
                       "schedule: " +
                           kOpen + " Activity schedule: " + kOpen))
      << log_.All();
}

TEST_F(BlackoutManagerTest, TheHighestBitOfTheFirstDigitIsTheFirstQuarterOfSunday) {
  std::string week = kClosed;
  week[0] = '8';
  const BlackoutManager manager(Document(week), clock_);
  EXPECT_EQ(Wait(manager, 0), 0U);
  EXPECT_EQ(Wait(manager, 899), 0U);
  EXPECT_EQ(Wait(manager, 900), 7 * kDay - 900);
  week[0] = '0';
  week[1] = '1';
  const BlackoutManager other(Document(week), clock_);
  EXPECT_EQ(Wait(other, 0), 7 * kSlot);
}

TEST_F(BlackoutManagerTest, WaitsForTheStartOfTheNextOpenSlot) {
  const BlackoutManager manager(Document(OnlyOpen({100, 300})), clock_);
  EXPECT_EQ(Wait(manager, 0), 100 * kSlot);
  EXPECT_EQ(Wait(manager, 100 * 900 - 1), 1U);
  EXPECT_EQ(Wait(manager, 100 * 900), 0U);
  EXPECT_EQ(Wait(manager, 101 * 900), 199 * kSlot);
  SetNow(99 * 900);
  EXPECT_TRUE(manager.IsNetworkBlackoutNow("FIM"));
  EXPECT_TRUE(log_.Has(Message::PRIO_DEBUG,
                       "]: Reduced Activity Period(RAP): Is Module FIM under reduced network "
                       "activity period now = 1"))
      << log_.All();
  EXPECT_TRUE(log_.Has(Message::PRIO_DEBUG, "FIM is currently in RAP mode. seconds to window: 900"));
  EXPECT_TRUE(log_.Has(Message::PRIO_TRACE, "]: RAP: Module FIM windowType = Network"));
  EXPECT_TRUE(log_.Has(Message::PRIO_TRACE, "]: Current time: ")) << log_.All();
  EXPECT_TRUE(log_.Has(Message::PRIO_TRACE, ", seconds to Event: 900"));
}

TEST_F(BlackoutManagerTest, TheLastSlotOfTheWeekWaitsForTheNextWeek) {
  const BlackoutManager manager(Document(OnlyOpen({2})), clock_);
  EXPECT_EQ(Wait(manager, 671 * 900 + 10), kSlot - 10 + 2 * kSlot);
  EXPECT_TRUE(log_.Has(Message::PRIO_TRACE, "]: Event will be scheduled after 1 weeks")) << log_.All();
}

TEST_F(BlackoutManagerTest, AWeekWithoutAnOpenSlotIsAskedAgainTomorrowAndSaidOnceADay) {
  const BlackoutManager manager(Document(kClosed), clock_);
  SetNow(5);
  // Asked for today and for tomorrow in turns, it is still said today.
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(Wait(manager, 5), kDay);
    EXPECT_EQ(Wait(manager, 5 + kDay), kDay);
  }
  EXPECT_EQ(log_.Count("RAP: Module FIM has no open Network slot in the whole week."), 1) << log_.All();
  SetNow(5 + kDay);
  EXPECT_EQ(Wait(manager, 5 + kDay), kDay);
  EXPECT_EQ(log_.Count("RAP: Module FIM has no open Network slot in the whole week."), 2);
}

TEST_F(BlackoutManagerTest, EachModuleAndTypeHasItsOwnWarning) {
  const BlackoutManager manager(
      R"({"Blackout_Events":[{"@ID":"FIM","@NETWORK_BLACKOUT":")" + kClosed + R"(","@ACTIVITY_BLACKOUT":")" + kClosed +
          R"("},{"@ID":"IOC","@NETWORK_BLACKOUT":")" + kClosed + R"(","@ACTIVITY_BLACKOUT":")" + kOpen + R"("}]})",
      clock_);
  for (int i = 0; i < 10; ++i) {
    for (const char* module : {"FIM", "IOC"}) {
      for (const Type type : {Type::Network, Type::Activity})
        EXPECT_EQ(manager.GetSecondsToWindow(module, type, clock_.Now()) != 0,
                  module[0] == 'F' || type == Type::Network);
    }
  }
  EXPECT_EQ(log_.Count("RAP: Module FIM has no open Network slot in the whole week."), 1) << log_.All();
  EXPECT_EQ(log_.Count("RAP: Module FIM has no open Activity slot in the whole week."), 1);
  EXPECT_EQ(log_.Count("RAP: Module IOC has no open Network slot in the whole week."), 1);
  EXPECT_EQ(log_.Count("has no open"), 3);
}

TEST_F(BlackoutManagerTest, TheTwoSchedulesOfAModuleAreItsOwn) {
  const BlackoutManager manager(Document(kClosed, kOpen), clock_);
  SetNow(0);
  EXPECT_TRUE(manager.IsNetworkBlackoutNow("FIM"));
  EXPECT_FALSE(manager.IsActivityBlackoutNow("FIM"));
  EXPECT_TRUE(log_.Has(Message::PRIO_DEBUG, "]: BlackoutManager: Is Module FIM ActivityBlackoutNow = 0"));
  const BlackoutManager other(Document(kOpen, OnlyOpen({4})), clock_);
  EXPECT_FALSE(other.IsNetworkBlackoutNow("FIM"));
  EXPECT_TRUE(other.IsActivityBlackoutNow("FIM"));
  EXPECT_EQ(Wait(other, 0, Type::Activity), 4 * kSlot);
}

TEST_F(BlackoutManagerTest, NoPeriodAppliesToAModuleWithoutAnEntry) {
  const BlackoutManager manager(Document(kClosed, kClosed), clock_);
  EXPECT_FALSE(manager.IsNetworkBlackoutNow("IOC"));
  EXPECT_FALSE(manager.IsActivityBlackoutNow("IOC"));
  EXPECT_EQ(manager.GetSecondsToWindow("IOC", Type::Network, At(0)), 0U);
  const BlackoutManager empty(R"({"Blackout_Events":[]})", clock_);
  EXPECT_FALSE(empty.IsNetworkBlackoutNow("FIM"));
}

TEST_F(BlackoutManagerTest, TheLaterOfTheIntervalsEndAndTheWindowWins) {
  const BlackoutManager manager(Document(OnlyOpen({0, 1, 2, 3, 40})), clock_);
  const auto seconds_to_event = [&](std::int64_t now, std::int64_t last, std::uint64_t interval) {
    SetNow(now);
    return manager.GetSecondsToEvent("FIM", Type::Network, util::ToNanoseconds(At(last)), interval);
  };
  EXPECT_EQ(seconds_to_event(100, 0, 300), 200U) << "the slot of the interval's end is open";
  EXPECT_EQ(seconds_to_event(1000, 0, 300), 0U) << "the interval is over";
  EXPECT_EQ(seconds_to_event(3500, 3400, 300), 40 * kSlot - 3500) << "the interval ends behind the open slots";
  EXPECT_EQ(seconds_to_event(5 * 900, 0, 300), 35 * kSlot) << "the window opens later";
  EXPECT_EQ(seconds_to_event(100, 5000, 300), 300U) << "a last run in the future tells nothing";
  EXPECT_TRUE(log_.Has(Message::PRIO_TRACE, "]: Last event time: " + std::to_string(kSunday) + ", current time: " +
                                                std::to_string(kSunday + 100) + ", intervalSeconds: 300, diff:100"))
      << log_.All();
  EXPECT_TRUE(log_.Has(Message::PRIO_TRACE, "]: GetSecondsToEvent calculatedTimeout: 200"));
}

TEST_F(BlackoutManagerTest, TheWeekIsThatOfTheClockOnTheWall) {
  const TimeZone zone("EST5");  // five hours behind
  const BlackoutManager manager(Document(OnlyOpen({0})), clock_);
  EXPECT_EQ(Wait(manager, 0), 5U * 3600);
  EXPECT_EQ(Wait(manager, 5 * 3600), 0U);
}

TEST_F(BlackoutManagerTest, AZoneThatIsChangedWhileItRunsIsFollowed) {
  const BlackoutManager manager(Document(OnlyOpen({0})), clock_);
  setenv("TZ", "HERE0", 1);
  EXPECT_EQ(Wait(manager, 0), 0U);
  setenv("TZ", "EAST-1", 1);
  EXPECT_EQ(Wait(manager, 0), 7 * kDay - 3600) << "it is one o'clock there";
  setenv("TZ", "HERE0", 1);
  EXPECT_EQ(Wait(manager, 0), 0U);
}

TEST_F(BlackoutManagerTest, SummerTimeMovesTheOpeningWithTheClockOnTheWall) {
  // The last Sunday of March 2024 has 23 hours: at two o'clock it is three.
  const TimeZone zone("CET-1CEST,M3.5.0/2,M10.5.0/3");
  const BlackoutManager manager(Document(OnlyOpen({24})), clock_);  // six o'clock
  const util::Clock::SystemTime midnight(std::chrono::seconds(1'711'839'600));
  EXPECT_EQ(manager.GetSecondsToWindow("FIM", Type::Network, midnight), 5U * 3600);
}

TEST_F(BlackoutManagerTest, TheHourThatComesTwiceOpensItsSlotsBothTimes) {
  // The last Sunday of October 2024 has 25 hours: at three o'clock it is two again.
  const TimeZone zone("CET-1CEST,M3.5.0/2,M10.5.0/3");
  const BlackoutManager manager(Document(OnlyOpen({9})), clock_);  // a quarter past two
  // Asked in summer before, the C library finds the first of the two.
  const util::Clock::SystemTime summer(std::chrono::seconds(1'720'000'000));
  EXPECT_GT(manager.GetSecondsToWindow("FIM", Type::Network, summer), 0U);
  const util::Clock::SystemTime ten_past_two_again(std::chrono::seconds(1'729'991'400));
  EXPECT_EQ(manager.GetSecondsToWindow("FIM", Type::Network, ten_past_two_again), 300U);
}

TEST_F(BlackoutManagerTest, AnIntervalIsAYearAtMost) {
  const BlackoutManager manager(Document(kOpen), clock_);
  EXPECT_EQ(manager.GetSecondsToEvent("FIM", Type::Network, util::ToNanoseconds(clock_.Now()),
                                      std::numeric_limits<std::uint64_t>::max()),
            366 * kDay);
}

TEST_F(BlackoutManagerTest, TheTableComesOutAsItWentIn) {
  const std::string week = OnlyOpen({0, 1, 7, 335, 671});
  const BlackoutManager manager(Document(week, kClosed), clock_);
  EXPECT_EQ(manager.ToJson(), Document(week, kClosed));
  EXPECT_TRUE(log_.Has(Message::PRIO_DEBUG, "]: RAP Manager: Create blackout json from BlackoutManager."));
  EXPECT_TRUE(log_.Has(Message::PRIO_TRACE, "]: RAP Manager: StringFromBitfield: nwScheduleString = " + week));
  EXPECT_TRUE(log_.Has(Message::PRIO_TRACE, "]: RAP Manager: StringFromBitfield: activityScheduleString = " + kClosed));
  EXPECT_TRUE(log_.Has(Message::PRIO_DEBUG, "]: RAP Manager: Successfully Converted BlackoutManager object ToJson"));
  std::string lower_case = kClosed;
  lower_case[5] = 'c';
  EXPECT_EQ(BlackoutManager(Document(lower_case), clock_).ToJson(), Document(OnlyOpen({20, 21})));
}

TEST_F(BlackoutManagerTest, ALaterEntryOfAModuleReplacesTheEarlierOne) {
  const BlackoutManager manager(
      R"({"Blackout_Events":[{"@ID":"FIM","@NETWORK_BLACKOUT":")" + kClosed + R"(","@ACTIVITY_BLACKOUT":")" + kClosed +
          R"("},{"@ID":"FIM","@NETWORK_BLACKOUT":")" + kOpen + R"(","@ACTIVITY_BLACKOUT":")" + kOpen + R"("}]})",
      clock_);
  EXPECT_EQ(manager.ToJson(), Document(kOpen));
  EXPECT_TRUE(log_.Has(Message::PRIO_INFORMATION, "]: RAP Manager: Updated Window for module FIM"));
}

TEST_F(BlackoutManagerTest, ADocumentOfTheOlderFormBecomesOneOfTheNew) {
  const std::string week = OnlyOpen({8});
  const BlackoutManager manager(R"({"Interval_Events":[{"@ID":"INTERVAL_EVENT_OTHER"},)"
                                R"({"@ID":"INTERVAL_EVENT_UPLOAD_CHANGELIST","@WeeklyScheduleWindows":")" +
                                    week + R"("}]})",
                                clock_);
  EXPECT_EQ(manager.ToJson(), Document(week, kOpen));
  for (const std::string& line :
       {std::string("RAP Manager: Blackout_Events tag missing. Updating Blackout Info from Interval_Events tag"),
        std::string("RAP Manager: Convert Old Config Blackout To New"),
        "RAP Manager: WeeklyScheduleWindow obtained from Config: " + week,
        "RAP Manager: Default WeeklyScheduleWindow for activity: " + kOpen}) {
    EXPECT_TRUE(log_.Has("]: " + line)) << line << "\n" << log_.All();
  }
}

TEST_F(BlackoutManagerTest, AnOlderDocumentWithoutAWindowIsOpen) {
  EXPECT_EQ(BlackoutManager(R"({"Interval_Events":[]})", clock_).ToJson(), Document(kOpen));
}

TEST_F(BlackoutManagerTest, SaysWhatIsWrongWithADocument) {
  const std::string malformed = "The Blackout Settings Json is malformed";
  EXPECT_EQ(ErrorOf("{"), malformed);
  EXPECT_EQ(ErrorOf("[]"), malformed);
  EXPECT_EQ(ErrorOf(R"({"Blackout_Events":{}})"), malformed);
  EXPECT_EQ(log_.Count("]: RAP Manager: Config: Invalid json"), 3) << log_.All();
  EXPECT_EQ(ErrorOf("{}"), malformed);
  EXPECT_EQ(ErrorOf(R"({"Interval_Events":7})"), malformed);
  EXPECT_EQ(log_.Count("]: RAP Manager: Json invalid. Error while Convert Old Config BlackoutManager To New"), 2);
  EXPECT_EQ(ErrorOf(R"({"Blackout_Events":[7]})"), malformed);
  EXPECT_EQ(ErrorOf(R"({"Blackout_Events":[{"@ID":"FIM","@NETWORK_BLACKOUT":")" + kOpen + R"("}]})"), malformed);
  EXPECT_EQ(log_.Count("]: RAP Manager: Blackout_Events JSON missing mandatory tags"), 2);
  EXPECT_EQ(ErrorOf(Document(kOpen.substr(1))), malformed);
  EXPECT_EQ(ErrorOf(Document("G" + kOpen.substr(1))), malformed);
  EXPECT_EQ(ErrorOf(Document(kOpen)), "");
}

}  // namespace
}  // namespace zagent::common

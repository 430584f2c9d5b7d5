#include "common/src/tasks/Scheduler.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "common/src/tasks/TaskSchedule.h"
#include "tests/fakes/FakeClock.h"
#include "tests/fakes/FakeSchedule.h"
#include "tests/fakes/Gate.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/NoMoreThreads.h"

namespace zagent::common {
namespace {

using fakes::Eventually;
using fakes::FakeClock;
using fakes::FakeSchedule;
using fakes::Gate;
using fakes::kTestPatience;
using std::chrono::hours;
using std::chrono::seconds;

class SchedulerTest : public ::testing::Test {
 protected:
  static constexpr seconds kDay{86'400};

  [[nodiscard]] std::int64_t In(seconds duration) const { return util::ToNanoseconds(clock_.Now() + duration); }

  // True once the timer thread sleeps until `duration` from now.
  [[nodiscard]] bool SleepsFor(seconds duration) const {
    return Eventually([&] { return clock_.EarliestDeadline() == clock_.Now() + duration; });
  }

  std::shared_ptr<FakeSchedule> Register(FakeSchedule::Work work = {}, std::int64_t next = FakeSchedule::kNever) {
    auto schedule = std::make_shared<FakeSchedule>(std::move(work));
    schedule->next = next;
    scheduler_.RegisterSchedule(schedule);
    return schedule;
  }

  static std::string ErrorOf(const std::function<void()>& call) {
    try {
      call();
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return "";
  }

  FakeClock clock_;
  Scheduler scheduler_{clock_};
};

TEST_F(SchedulerTest, StartsAScheduleWhenItsTimeHasCome) {
  const auto schedule = Register([](FakeSchedule& self) { self.next = FakeSchedule::kNever; }, In(seconds(30)));
  scheduler_.Start();
  ASSERT_TRUE(SleepsFor(seconds(30)));
  EXPECT_EQ(schedule->started, 0);
  clock_.Advance(seconds(29));
  ASSERT_TRUE(SleepsFor(seconds(1)));
  EXPECT_EQ(schedule->started, 0);
  clock_.Advance(seconds(1));
  EXPECT_TRUE(Eventually([&] { return schedule->ended == 1; }));
  EXPECT_TRUE(SleepsFor(kDay));
}

TEST_F(SchedulerTest, SleepsADayWithoutASchedule) {
  scheduler_.Start();
  ASSERT_TRUE(SleepsFor(kDay));
  clock_.Advance(kDay);
  EXPECT_TRUE(SleepsFor(kDay));
}

TEST_F(SchedulerTest, SleepsUntilTheEarliestOfAllSchedules) {
  const auto late = Register({}, In(hours(2)));
  const auto early = Register({}, In(hours(1)));
  const auto never = Register();
  scheduler_.Start();
  EXPECT_TRUE(SleepsFor(hours(1)));
}

TEST_F(SchedulerTest, StartsAllThatAreDueInTheOrderOfRegistration) {
  std::vector<int> order;  // starts happen on the timer thread alone
  std::vector<std::shared_ptr<FakeSchedule>> schedules;
  for (int i = 0; i < 3; ++i) {
    auto schedule = std::make_shared<FakeSchedule>([](FakeSchedule& self) { self.next = FakeSchedule::kNever; });
    schedule->next = In(seconds(0));
    schedule->start = [&order, i] { order.push_back(i); };
    schedules.push_back(schedule);
    scheduler_.RegisterSchedule(schedule);
  }
  scheduler_.Start();
  ASSERT_TRUE(SleepsFor(kDay));
  scheduler_.Stop();
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2}));
}

TEST_F(SchedulerTest, NoticesARegistrationWhileItSleeps) {
  scheduler_.Start();
  ASSERT_TRUE(SleepsFor(kDay));
  const auto schedule = Register({}, In(seconds(5)));
  EXPECT_TRUE(SleepsFor(seconds(5)));
  EXPECT_EQ(schedule->registered, 1);
}

TEST_F(SchedulerTest, RunNowStartsAScheduleWhoseTimeIsFarAway) {
  const auto schedule = Register();
  scheduler_.Start();
  ASSERT_TRUE(SleepsFor(kDay));
  schedule->RunNow();
  EXPECT_TRUE(Eventually([&] { return schedule->ended == 1; }));
}

TEST_F(SchedulerTest, RunNowDuringAWalkThatHasPassedTheScheduleIsNotLost) {
  const auto passed = Register();
  const auto later = Register();
  later->next_time = [&] {
    if (later->asked == 1) passed->RunNow();
    return FakeSchedule::kNever;
  };
  scheduler_.Start();
  EXPECT_TRUE(Eventually([&] { return passed->ended == 1; })) << "it waits for tomorrow";
}

TEST_F(SchedulerTest, RunNowBetweenTheEndOfTheWorkAndIdleIsNotLost) {
  const auto schedule = Register([&](FakeSchedule& self) {
    if (self.started != 1) return;
    // The work is over and the Scheduler has been woken; then more work comes while the run is not idle yet.
    self.Finish();
    const int asked = self.asked;
    self.RunNow();
    // The walk for that wake-up finds the schedule running and goes back to sleep.
    EXPECT_TRUE(Eventually([&] { return self.asked > asked; }));
    EXPECT_TRUE(SleepsFor(kDay));
  });
  scheduler_.Start();
  schedule->RunNow();
  EXPECT_TRUE(Eventually([&] { return schedule->ended == 2; })) << "the second run waits for tomorrow";
}

TEST_F(SchedulerTest, ARunningScheduleThatIsOverdueDoesNotKeepTheTimerThreadBusy) {
  Gate started;
  Gate release;
  const auto schedule = Register(
      [&](FakeSchedule& self) {
        started.Open();
        EXPECT_TRUE(release.Await());
        self.next = FakeSchedule::kNever;
      },
      In(-hours(1)));
  scheduler_.Start();
  ASSERT_TRUE(started.Await());
  // Other schedules come and go while it runs; after each walk the timer thread sleeps for a day.
  const auto other = Register();
  ASSERT_TRUE(SleepsFor(kDay));
  scheduler_.UnregisterSchedule(other);
  const int asked = schedule->asked;
  EXPECT_FALSE(fakes::Gate().Await(std::chrono::milliseconds(50)));
  EXPECT_LE(schedule->asked - asked, 2) << "the timer thread spins";
  release.Open();
  EXPECT_TRUE(Eventually([&] { return schedule->ended == 1; }));
  EXPECT_EQ(schedule->started, 1);
}

TEST_F(SchedulerTest, AScheduleThatIsAlwaysOverdueRunsAgainAsSoonAsItHasFinished) {
  const auto schedule = Register(
      [](FakeSchedule& self) {
        if (self.started == 3) self.next = FakeSchedule::kNever;
      },
      In(-hours(1)));
  scheduler_.Start();
  EXPECT_TRUE(Eventually([&] { return schedule->ended == 3; }));
  EXPECT_TRUE(SleepsFor(kDay));
}

TEST_F(SchedulerTest, RunNowDuringARunTakesEffectAfterIt) {
  Gate started;
  Gate release;
  const auto schedule = Register([&](FakeSchedule& self) {
    if (self.started != 1) return;
    started.Open();
    EXPECT_TRUE(release.Await());
  });
  scheduler_.Start();
  schedule->RunNow();
  ASSERT_TRUE(started.Await());
  schedule->RunNow();
  EXPECT_EQ(schedule->started, 1);
  release.Open();
  EXPECT_TRUE(Eventually([&] { return schedule->ended == 2; }));
}

TEST_F(SchedulerTest, AFailingStartIsLoggedAndTheOthersGoOn) {
  const fakes::LogCapture log;
  auto failing = std::make_shared<FakeSchedule>();
  std::atomic<int> attempts{0};
  failing->next = In(seconds(0));
  failing->start = [&] {
    ++attempts;
    throw std::runtime_error("no thread today");
  };
  scheduler_.RegisterSchedule(failing);
  const auto other = Register([](FakeSchedule& self) { self.next = FakeSchedule::kNever; }, In(seconds(0)));
  scheduler_.Start();
  EXPECT_TRUE(Eventually([&] { return other->ended == 1; }));
  // It is tried again, but not at once.
  ASSERT_TRUE(SleepsFor(seconds(10)));
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_ERROR, "Scheduler: Schedule exeution failed: no thread today")) << log.All();
  const int before = attempts;
  clock_.Advance(seconds(10));
  EXPECT_TRUE(Eventually([&] { return attempts > before; }));
  scheduler_.Stop();
  // The first walk, one for each of the two wake-ups of the other's end, and the retry.
  EXPECT_LE(attempts, 4);
}

TEST_F(SchedulerTest, AsksAScheduleOnceAWalk) {
  const auto schedule = Register({}, In(hours(1)));
  scheduler_.Start();
  ASSERT_TRUE(SleepsFor(hours(1)));
  EXPECT_EQ(schedule->asked, 1);
}

TEST_F(SchedulerTest, AClockThatIsSetBackHoldsNothingUp) {
  const auto schedule = Register({}, In(seconds(30)));
  schedule->on_step = [&](std::chrono::nanoseconds step) { schedule->next += step.count(); };
  scheduler_.Start();
  ASSERT_TRUE(SleepsFor(seconds(30)));
  clock_.Advance(-kDay);
  EXPECT_EQ(clock_.EarliestDeadline(), clock_.Now() + kDay + seconds(30));
  scheduler_.OnClockStep(-kDay);
  EXPECT_TRUE(SleepsFor(seconds(30)));
}

TEST_F(SchedulerTest, AClockThatIsSetForwardBringsNothingForward) {
  const auto schedule = Register({}, In(hours(30)));
  schedule->on_step = [&](std::chrono::nanoseconds step) { schedule->next += step.count(); };
  scheduler_.Start();
  ASSERT_TRUE(SleepsFor(kDay));
  clock_.Advance(kDay);
  ASSERT_TRUE(SleepsFor(hours(6)));
  scheduler_.OnClockStep(kDay);
  EXPECT_TRUE(SleepsFor(kDay));
  EXPECT_EQ(schedule->started, 0);
}

TEST_F(SchedulerTest, ARunningScheduleIsToldOfAStepWithoutTheSchedulersLock) {
  Gate started;
  Gate told;
  const auto schedule = Register(
      [&](FakeSchedule& self) {
        started.Open();
        EXPECT_TRUE(told.Await());
        self.next = FakeSchedule::kNever;
      },
      In(seconds(0)));
  const auto other = std::make_shared<FakeSchedule>();
  schedule->on_step = [&](std::chrono::nanoseconds step) {
    EXPECT_EQ(step, hours(-1));
    scheduler_.RegisterSchedule(other);
    told.Open();
  };
  scheduler_.Start();
  ASSERT_TRUE(started.Await());
  scheduler_.OnClockStep(hours(-1));
  EXPECT_TRUE(told.IsOpen());
  EXPECT_EQ(other->registered, 1);
  scheduler_.Stop();  // the run may still be on its way to the gate
}

TEST_F(SchedulerTest, ADestroyedScheduleDisappears) {
  auto gone = Register({}, In(seconds(1)));
  const auto stays = Register({}, In(hours(1)));
  scheduler_.Start();
  ASSERT_TRUE(SleepsFor(seconds(1)));
  gone.reset();
  clock_.Advance(seconds(1));
  EXPECT_TRUE(SleepsFor(hours(1) - seconds(1)));
  scheduler_.UnregisterSchedule(stays);
  EXPECT_EQ(stays->unregistered, 1);
}

TEST_F(SchedulerTest, UnregisterStepsOverADestroyedSchedule) {
  Register();
  const auto stays = Register();
  scheduler_.UnregisterSchedule(stays);
  EXPECT_EQ(stays->unregistered, 1);
}

TEST_F(SchedulerTest, ReleasesTheLastPointerToAScheduleWithoutItsLock) {
  // The walk may hold the last pointer. The schedule's destructor waits for its run, and this run needs the Scheduler.
  Gate walk_holds_it;
  Gate owner_let_go;
  auto other = std::make_shared<FakeSchedule>();
  auto schedule = std::make_shared<FakeSchedule>([&](FakeSchedule& self) {
    EXPECT_TRUE(Eventually([&] { return self.IsCancelling(); }));
    scheduler_.RegisterSchedule(other);
  });
  schedule->next = In(seconds(0));
  schedule->start = [&] {
    walk_holds_it.Open();
    EXPECT_TRUE(owner_let_go.Await());
  };
  scheduler_.RegisterSchedule(schedule);
  scheduler_.Start();
  ASSERT_TRUE(walk_holds_it.Await());
  schedule.reset();
  owner_let_go.Open();
  EXPECT_TRUE(Eventually([&] { return other->registered == 1; }));
}

TEST_F(SchedulerTest, UnregisterReturnsAfterTheEndOfTheRunAndNothingStartsItAgain) {
  Gate started;
  const auto schedule = Register(
      [&](FakeSchedule& self) {
        started.Open();
        EXPECT_TRUE(Eventually([&] { return self.IsCancelling(); }));
      },
      In(seconds(0)));
  scheduler_.Start();
  ASSERT_TRUE(started.Await());
  scheduler_.UnregisterSchedule(schedule);
  EXPECT_EQ(schedule->ended, 1);
  EXPECT_EQ(schedule->cancelled, 1);
  EXPECT_EQ(schedule->unregistered, 1);
  schedule->RunNow();
  EXPECT_TRUE(SleepsFor(kDay));
  EXPECT_EQ(schedule->started, 1);
}

TEST_F(SchedulerTest, ARunThatIsBeingCancelledMayCallTheScheduler) {
  Gate started;
  const auto other = std::make_shared<FakeSchedule>();
  const auto schedule = Register(
      [&](FakeSchedule& self) {
        started.Open();
        EXPECT_TRUE(Eventually([&] { return self.IsCancelling(); }));
        scheduler_.RegisterSchedule(other);
        scheduler_.UnregisterSchedule(other);
      },
      In(seconds(0)));
  scheduler_.Start();
  ASSERT_TRUE(started.Await());
  auto unregistered = std::async(std::launch::async, [&] { scheduler_.UnregisterSchedule(schedule); });
  ASSERT_EQ(unregistered.wait_for(kTestPatience), std::future_status::ready);
  EXPECT_EQ(other->unregistered, 1);
}

TEST_F(SchedulerTest, StopCancelsRunningSchedulesAndWaitsForThem) {
  Gate started;
  Gate told;
  Gate release;
  const auto schedule = Register(
      [&](FakeSchedule& self) {
        started.Open();
        EXPECT_TRUE(Eventually([&] { return self.IsCancelling(); }));
        told.Open();
        EXPECT_TRUE(release.Await());
      },
      In(seconds(0)));
  scheduler_.Start();
  EXPECT_TRUE(scheduler_.IsRunning());
  ASSERT_TRUE(started.Await());
  auto stopped = std::async(std::launch::async, [&] { scheduler_.Stop(); });
  ASSERT_TRUE(told.Await());
  EXPECT_EQ(stopped.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
  release.Open();
  ASSERT_EQ(stopped.wait_for(kTestPatience), std::future_status::ready);
  EXPECT_EQ(schedule->ended, 1);
  EXPECT_FALSE(scheduler_.IsRunning());
  EXPECT_EQ(schedule->unregistered, 0);
}

TEST_F(SchedulerTest, KeepsItsSchedulesFromStopToTheNextStart) {
  const auto schedule = Register();
  scheduler_.Start();
  scheduler_.Stop();
  schedule->RunNow();
  EXPECT_EQ(schedule->started, 0);
  scheduler_.Start();
  EXPECT_TRUE(Eventually([&] { return schedule->ended == 1; }));
}

TEST_F(SchedulerTest, RefusesASecondStart) {
  scheduler_.Start();
  EXPECT_EQ(ErrorOf([&] { scheduler_.Start(); }), "Start: Start cannot be called when the Scheduler is running");
  EXPECT_TRUE(scheduler_.IsRunning());
}

TEST_F(SchedulerTest, IsStoppedWhenNoThreadCouldBeMadeAndMayBeStartedAgain) {
  const auto schedule = Register();
  {
    const fakes::NoMoreThreads no_more_threads;
    EXPECT_THROW(scheduler_.Start(), std::system_error);
  }
  EXPECT_FALSE(scheduler_.IsRunning());
  scheduler_.Start();
  schedule->RunNow();
  EXPECT_TRUE(Eventually([&] { return schedule->ended == 1; }));
}

TEST_F(SchedulerTest, StopOfAStoppedSchedulerDoesNothing) {
  scheduler_.Stop();
  EXPECT_FALSE(scheduler_.IsRunning());
  scheduler_.Start();
  scheduler_.Stop();
  scheduler_.Stop();
  EXPECT_FALSE(scheduler_.IsRunning());
}

TEST_F(SchedulerTest, NamesTheMisuseOfARegistration) {
  const auto schedule = Register();
  EXPECT_EQ(ErrorOf([&] { scheduler_.RegisterSchedule(nullptr); }), "RegisterSchedule: 'schedule' cannot be null");
  EXPECT_EQ(ErrorOf([&] { scheduler_.RegisterSchedule(schedule); }), "RegisterSchedule: 'schedule' already exists");
  EXPECT_EQ(schedule->registered, 1);
  EXPECT_EQ(ErrorOf([&] { scheduler_.UnregisterSchedule(nullptr); }), "UnregisterSchedule: 'schedule' cannot be null");
  scheduler_.UnregisterSchedule(schedule);
  EXPECT_EQ(ErrorOf([&] { scheduler_.UnregisterSchedule(schedule); }),
            "UnregisterSchedule: 'schedule' is not registered");
}

TEST_F(SchedulerTest, KnowsAScheduleByItsOwnershipNotByThePointer) {
  const auto schedule = Register();
  // Another pointer into the same control block.
  const std::shared_ptr<Schedule> alias(schedule, schedule.get());
  EXPECT_EQ(ErrorOf([&] { scheduler_.RegisterSchedule(alias); }), "RegisterSchedule: 'schedule' already exists");
  scheduler_.UnregisterSchedule(alias);
  EXPECT_EQ(schedule->unregistered, 1);
}

TEST_F(SchedulerTest, RemoveAllDetachesEverySchedule) {
  const auto first = Register();
  const auto second = Register();
  scheduler_.RemoveAllSchedules();
  EXPECT_EQ(first->unregistered, 1);
  EXPECT_EQ(second->unregistered, 1);
  EXPECT_EQ(ErrorOf([&] { scheduler_.UnregisterSchedule(first); }), "UnregisterSchedule: 'schedule' is not registered");
}

TEST_F(SchedulerTest, ItsEndDetachesWhatIsLeftAndALateWakeUpIsHarmless) {
  const auto schedule = std::make_shared<FakeSchedule>();
  {
    Scheduler scheduler(clock_);
    scheduler.RegisterSchedule(schedule);
    scheduler.Start();
  }
  EXPECT_EQ(schedule->unregistered, 1);
  schedule->RunNow();
  EXPECT_EQ(schedule->started, 0);
}

TEST_F(SchedulerTest, LogsItsSteps) {
  const fakes::LogCapture log;
  const auto schedule = Register();
  scheduler_.Start();
  schedule->RunNow();
  scheduler_.Stop();
  scheduler_.RemoveAllSchedules();
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_INFORMATION, "]: Scheduler: Starting.")) << log.All();
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_INFORMATION, "]: Scheduler: Stopping."));
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_INFORMATION, "]: Scheduler: Removing all schedules."));
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_TRACE, "]: Scheduler: Schedule updated."));
}

// Threads and descriptors of this process.
std::size_t Held() {
  std::size_t count = 0;
  for (const char* folder : {"/proc/self/task", "/proc/self/fd"}) {
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(folder)) ++count;
  }
  return count;
}

TEST(SchedulerStormTest, AThousandStartsAndStopsLeaveNothingBehind) {
  Scheduler scheduler;
  const auto schedule = std::make_shared<FakeSchedule>();
  scheduler.RegisterSchedule(schedule);
  scheduler.Start();
  scheduler.Stop();
  const std::size_t before = Held();
  int served = 0;
  for (int i = 0; i < 1000; ++i) {
    scheduler.Start();
    schedule->RunNow();
    const auto fresh = std::make_shared<TaskSchedule>(10);
    scheduler.RegisterSchedule(fresh);
    served += fresh->Call(scheduler, [] { return 1; });
    if (i % 2 == 0) scheduler.UnregisterSchedule(fresh);
    scheduler.Stop();
  }
  EXPECT_EQ(served, 1000);
  EXPECT_GE(schedule->ended, 1);
  // A thread that was joined may still be on its way out of /proc.
  EXPECT_TRUE(Eventually([&] { return Held() <= before; })) << Held() << " instead of " << before;
}

TEST(SchedulerStormTest, NoRequestIsLostWhenManyThreadsAskAtOnce) {
  // On the clock of the machine: requests race with starts, ends and walks.
  constexpr int kThreads = 4;
  constexpr int kRequests = 200;
  Scheduler scheduler;
  std::atomic<int> asked_for{0};
  std::atomic<int> served{0};
  const auto schedule = std::make_shared<FakeSchedule>([&](FakeSchedule&) { served = asked_for.load(); });
  scheduler.RegisterSchedule(schedule);
  scheduler.Start();
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      for (int request = 0; request < kRequests; ++request) {
        const int mine = ++asked_for;
        schedule->RunNow();
        EXPECT_TRUE(Eventually([&] { return served >= mine; })) << "request " << mine << " was never served";
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  scheduler.UnregisterSchedule(schedule);
  EXPECT_EQ(served, kThreads * kRequests);
}

}  // namespace
}  // namespace zagent::common

#include "common/src/tasks/ThreadedClass.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <future>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>

#include "tests/fakes/FakeClock.h"
#include "tests/fakes/FakeProcess.h"
#include "tests/fakes/Gate.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/SleepingCall.h"

namespace zagent::common {
namespace {

using fakes::Eventually;
using fakes::Gate;
using fakes::kTestPatience;
using Poco::Message;
using std::chrono::milliseconds;
using std::chrono::seconds;

// A loop whose turns a test writes and counts.
class ScriptedLoop final : public ThreadedClass {
 public:
  ScriptedLoop(util::Clock& clock, const std::string& proc_root) : ThreadedClass("Loop", 20, 50, clock, proc_root) {}
  ~ScriptedLoop() override { Stop(); }
  using ThreadedClass::CpuPause;

  std::function<void(ScriptedLoop&)> turn;
  std::function<void()> on_start;
  std::atomic<int> turns{0};
  std::atomic<int> starts{0};
  std::atomic<int> stops{0};

 protected:
  void Execute() override {
    if (turn) turn(*this);
    ++turns;
  }
  void OnStart() override {
    ++starts;
    if (on_start) on_start();
  }
  void OnStop() override { ++stops; }
};

class ThreadedClassTest : public ::testing::Test {
 protected:
  [[nodiscard]] bool TurnsReach(int count) const {
    return Eventually([&] { return loop_.turns >= count; });
  }
  // True once the loop sleeps on the clock for `duration`.
  [[nodiscard]] bool SleepsFor(milliseconds duration) const {
    return Eventually([&] { return clock_.EarliestDeadline() == clock_.Now() + duration; });
  }
  // The process used so many percent of all processors within the next `duration`, which passes.
  void Use(float percent, seconds duration) {
    const auto seconds_used = percent / 100 * static_cast<float>(sysconf(_SC_NPROCESSORS_CONF) * duration.count());
    ticks_ += static_cast<std::uint64_t>(seconds_used * static_cast<float>(sysconf(_SC_CLK_TCK)) + 0.5F);
    process_.SetCpuTicks(ticks_);
    clock_.Advance(duration);
  }
  static std::string ErrorOf(const std::function<void()>& call) {
    try {
      call();
    } catch (const std::exception& error) {
      return error.what();
    }
    return "";
  }

  const fakes::LogCapture log_;
  const fakes::FakeProcess process_;
  fakes::FakeClock clock_;
  std::uint64_t ticks_ = 0;
  std::atomic<bool> wake_{false};
  ScriptedLoop loop_{clock_, process_.ProcRoot()};
};

TEST_F(ThreadedClassTest, TakesATurnOnAThreadOfItsOwnAndWaitsToBeWoken) {
  std::thread::id thread;
  loop_.turn = [&](ScriptedLoop&) { thread = std::this_thread::get_id(); };
  loop_.SetWait(0, [this] { return wake_.exchange(false); });
  EXPECT_TRUE(loop_.IsStopped());
  loop_.Start();
  EXPECT_FALSE(loop_.IsStopped());
  ASSERT_TRUE(TurnsReach(1));
  loop_.Notify();
  wake_ = true;
  loop_.Notify();
  ASSERT_TRUE(TurnsReach(2));
  loop_.Stop();
  EXPECT_EQ(loop_.turns, 2) << "a turn without a reason";
  EXPECT_NE(thread, std::this_thread::get_id());
  EXPECT_TRUE(loop_.IsStopped());
  EXPECT_EQ(loop_.GetName(), "Loop");
  EXPECT_EQ(loop_.GetResourceMonitor().GetCpuLimit(), 20U);
  EXPECT_EQ(loop_.GetResourceMonitor().GetMemoryLimit(), 50U);
  EXPECT_TRUE(log_.Has(Message::PRIO_INFORMATION, "]: Starting Loop ...")) << log_.All();
  EXPECT_TRUE(log_.Has(Message::PRIO_INFORMATION, "]: Stopping Loop ..."));
}

TEST_F(ThreadedClassTest, AWakeUpBetweenTheLookAtThePredicateAndTheSleepIsNotLost) {
  std::optional<fakes::SleepingCall<bool>> notify;
  loop_.SetWait(0, [&] {
    if (notify) return wake_.exchange(false);
    // Somebody has news right after this look, which finds none.
    notify.emplace([this] {
      wake_ = true;
      loop_.Notify();
      return true;
    });
    EXPECT_TRUE(notify->AwaitAsleep()) << "nobody sleeps yet whom it could wake";
    return false;
  });
  loop_.Start();
  EXPECT_TRUE(TurnsReach(2));
  loop_.Stop();
}

TEST_F(ThreadedClassTest, WithoutAPredicateItWaitsUntilItIsStopped) {
  loop_.Start();
  ASSERT_TRUE(TurnsReach(1));
  loop_.Notify();
  loop_.Stop();
  EXPECT_EQ(loop_.turns, 1);
}

TEST_F(ThreadedClassTest, ALimitedWaitEndsAtItsTimeWhateverThePredicateSays) {
  loop_.SetWait(100, [] { return false; });
  loop_.Start();
  ASSERT_TRUE(TurnsReach(1));
  ASSERT_TRUE(SleepsFor(milliseconds(100)));
  clock_.Advance(milliseconds(99));
  EXPECT_EQ(loop_.turns, 1);
  clock_.Advance(milliseconds(1));
  EXPECT_TRUE(TurnsReach(2));
}

TEST_F(ThreadedClassTest, ALimitedWaitEndsEarlyWhenThePredicateHolds) {
  loop_.SetWait(100, [this] { return wake_.exchange(false); });
  loop_.Start();
  ASSERT_TRUE(SleepsFor(milliseconds(100)));
  wake_ = true;
  loop_.Notify();
  EXPECT_TRUE(TurnsReach(2));
}

TEST_F(ThreadedClassTest, AWaitLongerThanAClockCanHoldIsALongOne) {
  loop_.SetWait(std::numeric_limits<std::uint64_t>::max(), nullptr);
  loop_.Start();
  ASSERT_TRUE(TurnsReach(1));
  clock_.AwaitWaiters(1);
  clock_.Advance(std::chrono::hours(24 * 300));
  for (int i = 0; i < 100; ++i) std::this_thread::yield();
  EXPECT_EQ(loop_.turns, 1);
}

TEST_F(ThreadedClassTest, ANewPredicateIsAskedAtOnce) {
  Gate asked;
  loop_.SetWait(0, [&] {
    asked.Open();
    return false;
  });
  loop_.Start();
  ASSERT_TRUE(asked.Await());
  loop_.SetWait(0, [this] { return loop_.turns == 1; });
  EXPECT_TRUE(TurnsReach(2)) << "it sleeps by the old one";
}

TEST_F(ThreadedClassTest, ThePredicateThatIsReplacedIsDestroyedWithoutALock) {
  // Its destruction calls the class.
  std::function<bool()> predicate = [kept = std::shared_ptr<void>(nullptr, [this](void*) { loop_.Notify(); })] {
    return kept != nullptr;
  };
  loop_.SetWait(0, std::move(predicate));
  auto replaced = std::async(std::launch::async, [&] { loop_.SetWait(0, nullptr); });
  EXPECT_EQ(replaced.wait_for(kTestPatience), std::future_status::ready);
}

TEST_F(ThreadedClassTest, ATurnThatFailsIsLoggedAndTheLoopGoesOn) {
  loop_.SetWait(100, nullptr);
  loop_.turn = [](ScriptedLoop& self) {
    if (self.turns++ == 0) throw std::runtime_error("bad turn");
  };
  loop_.Start();
  ASSERT_TRUE(SleepsFor(milliseconds(100)));
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR, "]: Uncaught exception in Loop : bad turn")) << log_.All();
  clock_.Advance(milliseconds(100));
  EXPECT_TRUE(TurnsReach(3));
}

TEST_F(ThreadedClassTest, CannotBeStartedTwiceButAgainAfterAStop) {
  loop_.Start();
  EXPECT_EQ(ErrorOf([&] { loop_.Start(); }), "Start called for already running Loop instance");
  EXPECT_EQ(loop_.starts, 1);
  loop_.Stop();
  const int turns = loop_.turns;
  loop_.Start();
  EXPECT_TRUE(TurnsReach(turns + 1));
  EXPECT_EQ(loop_.starts, 2);
}

TEST_F(ThreadedClassTest, StopOfWhatWasNeverStartedReturnsAtOnce) {
  loop_.Stop();
  EXPECT_EQ(loop_.stops, 0);
  EXPECT_EQ(log_.Count("Stopping"), 0);
}

TEST_F(ThreadedClassTest, IsStoppedWhenItsStartFails) {
  loop_.on_start = [] { throw std::runtime_error("not today"); };
  EXPECT_EQ(ErrorOf([&] { loop_.Start(); }), "not today");
  EXPECT_TRUE(loop_.IsStopped());
  loop_.on_start = nullptr;
  loop_.Start();
  EXPECT_TRUE(TurnsReach(1));
}

TEST_F(ThreadedClassTest, StopTellsWhatEndedTheThreadBeforeItsTime) {
  loop_.SetWait(0, []() -> bool { throw std::runtime_error("bad predicate"); });
  loop_.Start();
  ASSERT_TRUE(TurnsReach(1));
  loop_.Stop();
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR, "]: Uncaught exception when stopping Loop : bad predicate")) << log_.All();
  loop_.SetWait(0, nullptr);
  loop_.Start();
  EXPECT_TRUE(TurnsReach(2));
}

TEST_F(ThreadedClassTest, WhatEndsTheThreadIsSaidWhenItHappens) {
  loop_.SetWait(0, []() -> bool { throw std::runtime_error("bad predicate"); });
  loop_.Start();
  EXPECT_TRUE(Eventually([&] {
    return log_.Has(Message::PRIO_ERROR, "]: Uncaught exception ends Loop : bad predicate");
  })) << log_.All();
  EXPECT_FALSE(loop_.IsStopped()) << "nobody has stopped it";
}

TEST_F(ThreadedClassTest, StopThrowsNothingWhateverEndedTheThread) {
  loop_.SetWait(0, []() -> bool { throw 42; });  // NOLINT(hicpp-exception-baseclass)
  loop_.Start();
  ASSERT_TRUE(TurnsReach(1));
  EXPECT_NO_THROW(loop_.Stop());
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR, "]: Uncaught exception ends Loop : no std::exception")) << log_.All();
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR, "]: Uncaught exception when stopping Loop : no std::exception"));
  EXPECT_TRUE(loop_.IsStopped());
}

TEST_F(ThreadedClassTest, PausesAndSaysSoWhileTheProcessIsBusy) {
  loop_.SetWait(0, [this] { return wake_.exchange(false); });
  loop_.SetCpuCheck(ThreadedClass::CpuCheck::PauseWhileBusy, 1500);
  Use(40, seconds(2));
  wake_ = true;
  loop_.Start();
  ASSERT_TRUE(SleepsFor(milliseconds(1500)));
  EXPECT_TRUE(
      log_.Has(Message::PRIO_DEBUG, "]: Pausing Loopas cpu usage (40) is higher than configured threshold (20)"))
      << log_.All();
  EXPECT_EQ(loop_.turns, 1);
  Use(40, seconds(2));
  ASSERT_TRUE(Eventually([&] { return log_.Count("Pausing Loop") == 2; })) << "one pause is not enough";
  EXPECT_EQ(loop_.turns, 1);
  ASSERT_TRUE(SleepsFor(milliseconds(1500)));
  Use(20, seconds(2));
  EXPECT_TRUE(Eventually([&] { return clock_.EarliestDeadline() == util::Clock::SystemTime::max(); }))
      << "at exactly the limit nobody pauses";
  EXPECT_EQ(log_.Count("Pausing Loop"), 2);
}

TEST_F(ThreadedClassTest, OnePauseIsSilentAndTheTurnThatFollowsComes) {
  loop_.SetWait(0, [] { return true; });
  loop_.SetCpuCheck(ThreadedClass::CpuCheck::PauseOnce, 10);
  Use(40, seconds(2));
  loop_.Start();
  ASSERT_TRUE(SleepsFor(milliseconds(10)));
  const int turns = loop_.turns;
  clock_.Advance(milliseconds(10));
  EXPECT_TRUE(TurnsReach(turns + 1)) << "the process is as busy as before";
  EXPECT_EQ(log_.Count("Pausing"), 0);
}

TEST_F(ThreadedClassTest, APauseEndsWithAStopButNotWithAWakeUp) {
  for (const auto mode : {ThreadedClass::CpuCheck::PauseWhileBusy, ThreadedClass::CpuCheck::PauseOnce}) {
    loop_.turns = 0;
    loop_.SetWait(0, [] { return true; });
    loop_.SetCpuCheck(mode, 1'000'000);
    Use(40, seconds(2));
    loop_.Start();
    ASSERT_TRUE(SleepsFor(milliseconds(1'000'000)));
    loop_.Notify();
    EXPECT_EQ(loop_.turns, 1);
    auto stopped = std::async(std::launch::async, [&] { loop_.Stop(); });
    ASSERT_EQ(stopped.wait_for(kTestPatience), std::future_status::ready);
    EXPECT_EQ(loop_.turns, 1);
  }
}

TEST_F(ThreadedClassTest, ATurnMayPauseBetweenItsSteps) {
  loop_.SetCpuCheck(ThreadedClass::CpuCheck::PauseOnce, 10);
  Gate paused;
  loop_.turn = [&](ScriptedLoop& self) {
    self.CpuPause();
    paused.Open();
  };
  Use(40, seconds(2));
  loop_.Start();
  ASSERT_TRUE(SleepsFor(milliseconds(10)));
  EXPECT_FALSE(paused.IsOpen());
  clock_.Advance(milliseconds(10));
  EXPECT_TRUE(paused.Await());
}

TEST_F(ThreadedClassTest, AMonitorThatFailsEndsTheThread) {
  loop_.SetWait(0, [] { return true; });
  loop_.SetCpuCheck(ThreadedClass::CpuCheck::PauseOnce, 10);
  process_.BreakStat();
  clock_.Advance(seconds(2));
  loop_.Start();
  ASSERT_TRUE(TurnsReach(1));
  loop_.Stop();
  EXPECT_EQ(loop_.turns, 1);
  EXPECT_TRUE(
      log_.Has(Message::PRIO_ERROR, "Uncaught exception when stopping Loop : Failed to parse /proc/stat for CPU usage"))
      << log_.All();
}

TEST_F(ThreadedClassTest, AThousandStartsAndStopsEndAThousandThreads) {
  const auto threads = [] {
    std::size_t count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) ++count;
    return count;
  };
  loop_.SetWait(0, [] { return true; });
  const auto start_and_stop = [&] {
    const int turns = loop_.turns;
    loop_.Start();
    while (loop_.turns == turns) std::this_thread::yield();
    loop_.Stop();
  };
  start_and_stop();  // a sanitizer starts a thread of its own beside the first one
  const std::size_t before = threads();
  for (int i = 1; i < 1000; ++i) start_and_stop();
  EXPECT_EQ(loop_.starts, 1000);
  EXPECT_EQ(loop_.stops, 1000);
  // A thread that was joined may still be on its way out of /proc.
  EXPECT_TRUE(Eventually([&] { return threads() <= before; }));
}

}  // namespace
}  // namespace zagent::common

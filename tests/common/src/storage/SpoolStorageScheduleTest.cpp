#include "common/src/storage/SpoolStorageSchedule.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "common/src/storage/StorageResult.h"
#include "common/src/tasks/Scheduler.h"
#include "tests/fakes/FakeClock.h"
#include "tests/fakes/FakeSchedule.h"
#include "tests/fakes/Gate.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/SleepingCall.h"

namespace zagent::common::internal {
namespace {

using fakes::Eventually;
using fakes::Gate;
using Poco::Message;
using std::chrono::seconds;

class SpoolStorageScheduleTest : public ::testing::Test {
 protected:
  static constexpr seconds kDay{86'400};

  SpoolStorageScheduleTest() {
    scheduler_.RegisterSchedule(schedule_);
    scheduler_.Start();
  }
  ~SpoolStorageScheduleTest() override { scheduler_.Stop(); }

  // Runs a task to its end.
  void RunTask(const std::function<void()>& task) {
    Gate done;
    schedule_->AddTask([&] {
      task();
      done.Open();
    });
    ASSERT_TRUE(done.Await());
  }

  [[nodiscard]] std::int64_t In(seconds duration) const { return util::ToNanoseconds(clock_.Now() + duration); }

  const fakes::LogCapture log_;
  fakes::FakeClock clock_;
  std::atomic<int> syncs_{0};
  std::function<void()> on_sync_;  // set before the first task
  Scheduler scheduler_{clock_};
  const std::shared_ptr<SpoolStorageSchedule> schedule_ = std::make_shared<SpoolStorageSchedule>(
      [this] {
        ++syncs_;
        if (on_sync_) on_sync_();
      },
      clock_);
};

TEST_F(SpoolStorageScheduleTest, RefusesToDoNothing) {
  try {
    const SpoolStorageSchedule schedule(nullptr, clock_);
    FAIL() << "nothing was thrown";
  } catch (const std::invalid_argument& error) {
    EXPECT_STREQ(error.what(), "SpoolStorageSchedule: 'syncCallback' is invalid");
  }
  try {
    schedule_->AddTask(nullptr);
    FAIL() << "nothing was thrown";
  } catch (const StorageException& error) {
    EXPECT_STREQ(error.what(), "SpoolStorageSchedule::AddTask: task cannot be empty");
  }
}

TEST_F(SpoolStorageScheduleTest, RunsTasksInTheirOrderOnOneThreadOfItsOwn) {
  std::vector<int> order;
  std::vector<std::thread::id> threads;
  for (int i = 0; i < 100; ++i) {
    schedule_->AddTask([&, i] {
      EXPECT_TRUE(schedule_->IsOwnThread());
      order.push_back(i);
      threads.push_back(std::this_thread::get_id());
    });
  }
  RunTask([] {});
  ASSERT_EQ(order.size(), 100U);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(order[static_cast<std::size_t>(i)], i);
  EXPECT_EQ(threads.front(), threads.back());
  EXPECT_NE(threads.front(), std::this_thread::get_id());
  EXPECT_FALSE(schedule_->IsOwnThread());
}

TEST_F(SpoolStorageScheduleTest, AFailingTaskIsLoggedAndTheNextOneRuns) {
  schedule_->AddTask([] { throw std::runtime_error("broken task"); });
  RunTask([] {});
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR, "]: SpoolStorageSchedule: broken task")) << log_.All();
}

TEST_F(SpoolStorageScheduleTest, SyncsOnceADayWithoutBeingAsked) {
  EXPECT_EQ(schedule_->NextRunTime(), In(kDay));
  // No run is there yet: the Scheduler has to start it for the sync.
  ASSERT_TRUE(Eventually([&] { return clock_.EarliestDeadline() == clock_.Now() + kDay; }));
  clock_.Advance(kDay);
  ASSERT_TRUE(Eventually([&] { return syncs_ == 1 && schedule_->NextRunTime() == In(kDay); }));
  EXPECT_TRUE(log_.Has(Message::PRIO_DEBUG, "SpoolStorageSchedule: Syncing cache.")) << log_.All();
}

TEST_F(SpoolStorageScheduleTest, ATaskBringsTheSyncForward) {
  RunTask([&] { schedule_->ScheduleSync(60); });
  EXPECT_EQ(schedule_->NextRunTime(), In(seconds(60)));
  EXPECT_TRUE(log_.Has(Message::PRIO_DEBUG, "SpoolStorageSchedule: Cache sync scheduled after 60 seconds."))
      << log_.All();
  ASSERT_TRUE(Eventually([&] { return clock_.EarliestDeadline() == clock_.Now() + seconds(60); }));
  clock_.Advance(seconds(59));
  EXPECT_EQ(syncs_, 0);
  clock_.Advance(seconds(1));
  EXPECT_TRUE(Eventually([&] { return syncs_ == 1; }));
}

TEST_F(SpoolStorageScheduleTest, ATaskThatSetsTheSyncLeavesTheTimerThreadAlone) {
  RunTask([] {});
  const auto bystander = std::make_shared<fakes::FakeSchedule>();  // is asked once at each walk of the timer thread
  scheduler_.RegisterSchedule(bystander);
  ASSERT_TRUE(Eventually([&] { return bystander->asked != 0; }));
  const int walks = bystander->asked;
  for (std::uint64_t age = 1'000; age > 900; --age) RunTask([&] { schedule_->ScheduleSync(age); });
  scheduler_.Stop();
  EXPECT_LE(bystander->asked, walks + 2) << "the timer thread walks for nothing";
}

TEST_F(SpoolStorageScheduleTest, ASyncIsKeptWhenTheRunThatSetItEnds) {
  RunTask([&] { schedule_->ScheduleSync(60); });
  schedule_->Cancel();  // but the Scheduler still knows it
  ASSERT_FALSE(schedule_->IsRunning());
  ASSERT_TRUE(Eventually([&] { return clock_.EarliestDeadline() == clock_.Now() + seconds(60); }));
  clock_.Advance(seconds(60));
  EXPECT_TRUE(Eventually([&] { return syncs_ == 1; }));
}

TEST_F(SpoolStorageScheduleTest, ASyncThatIsBroughtForwardFromOutsideWakesTheRun) {
  RunTask([&] { schedule_->ScheduleSync(60); });
  ASSERT_TRUE(Eventually([&] { return clock_.EarliestDeadline() == clock_.Now() + seconds(60); }));
  schedule_->ScheduleSync(0);
  EXPECT_TRUE(Eventually([&] { return syncs_ == 1; }));
}

TEST_F(SpoolStorageScheduleTest, ASyncThatIsBroughtForwardFromOutsideWakesTheSchedulerWhereThereIsNoRun) {
  ASSERT_TRUE(Eventually([&] { return clock_.EarliestDeadline() == clock_.Now() + kDay; }));
  schedule_->ScheduleSync(60);
  ASSERT_TRUE(Eventually([&] { return clock_.EarliestDeadline() == clock_.Now() + seconds(60); }));
  clock_.Advance(seconds(60));
  EXPECT_TRUE(Eventually([&] { return syncs_ == 1; }));
}

TEST_F(SpoolStorageScheduleTest, ASyncThatFailsIsLoggedAndDoesNotComeBackAtOnce) {
  on_sync_ = [] { throw std::runtime_error("disk gone"); };
  RunTask([&] { schedule_->ScheduleSync(1); });
  ASSERT_TRUE(Eventually([&] { return clock_.EarliestDeadline() == clock_.Now() + seconds(1); }));
  clock_.Advance(seconds(1));
  ASSERT_TRUE(Eventually([&] { return log_.Has(Message::PRIO_ERROR, "]: SpoolStorageSchedule: disk gone"); }))
      << log_.All();
  RunTask([] {});
  EXPECT_EQ(syncs_, 1);
  EXPECT_EQ(schedule_->NextRunTime(), In(kDay));
}

TEST_F(SpoolStorageScheduleTest, TheSyncMayAskForAnEarlierTime) {
  on_sync_ = [this] { schedule_->ScheduleSync(60); };
  RunTask([&] { schedule_->ScheduleSync(1); });
  clock_.Advance(seconds(1));
  EXPECT_TRUE(Eventually([&] { return syncs_ == 1 && schedule_->NextRunTime() == In(seconds(60)); }));
}

TEST_F(SpoolStorageScheduleTest, ARunServesWhatWasQueuedBeforeItsCancelAndLeaves) {
  Gate started;
  std::atomic<int> served{0};
  std::atomic<bool> endless{true};
  // A task whose end queues the next one would keep a run going for ever.
  std::function<void()> again = [&] {
    ++served;
    if (endless) schedule_->AddTask(again);
  };
  schedule_->AddTask([&] {
    started.Open();
    EXPECT_TRUE(Eventually([&] { return schedule_->IsCancelling(); }));
  });
  schedule_->AddTask(again);
  schedule_->AddTask([&] { ++served; });
  ASSERT_TRUE(started.Await());
  scheduler_.UnregisterSchedule(schedule_);
  EXPECT_EQ(served, 2);
  endless = false;
  schedule_->AddTask([&] { ++served; });
  schedule_->Close();
  EXPECT_EQ(served, 4);
}

TEST_F(SpoolStorageScheduleTest, ACancelledRunLeavesWhatComesBehindItsCancelHoweverManyWereThereBefore) {
  Gate started;
  schedule_->AddTask([&] {
    started.Open();
    EXPECT_TRUE(Eventually([&] { return schedule_->IsCancelling(); }));
  });
  ASSERT_TRUE(started.Await());
  std::size_t served = 0;
  bool late_one_ran = false;
  schedule_->AddTask([&] {
    ++served;
    schedule_->AddTask([&] { late_one_ran = true; });
  });
  // More than the run takes at once: a few of them still wait when the late one comes.
  for (std::size_t i = 0; i < SpoolStorageSchedule::kBlock; ++i) schedule_->AddTask([&] { ++served; });
  scheduler_.UnregisterSchedule(schedule_);
  EXPECT_EQ(served, SpoolStorageSchedule::kBlock + 1);
  EXPECT_FALSE(late_one_ran);
  schedule_->Close();
  EXPECT_TRUE(late_one_ran);
}

TEST_F(SpoolStorageScheduleTest, ACallThatComesDuringTheLastRunIsServedByIt) {
  Gate started;
  Gate release;
  schedule_->AddTask([&] {
    started.Open();
    EXPECT_TRUE(release.Await());
  });
  ASSERT_TRUE(started.Await());
  fakes::SleepingCall<bool> stop([&] {
    scheduler_.Stop();
    return true;
  });
  EXPECT_TRUE(Eventually([&] { return schedule_->IsCancelling(); }));
  fakes::SleepingCall<bool> call([&] { return schedule_->Await(scheduler_, [] {}); });
  EXPECT_TRUE(call.AwaitAsleep()) << "it gives up though somebody will run it";
  release.Open();
  ASSERT_TRUE(call.AwaitEnd());
  EXPECT_TRUE(call.Get());
  EXPECT_TRUE(stop.AwaitEnd());
}

TEST_F(SpoolStorageScheduleTest, TasksThatACancelLeftAreServedByTheNextRun) {
  Gate started;
  Gate second;
  schedule_->AddTask([&] {
    started.Open();
    EXPECT_TRUE(Eventually([&] { return schedule_->IsCancelling(); }));
    // Comes after the cancel, while this run still seems to serve.
    schedule_->AddTask([&] { schedule_->AddTask([&] { second.Open(); }); });
  });
  ASSERT_TRUE(started.Await());
  schedule_->Cancel();  // but the Scheduler still knows it
  EXPECT_TRUE(second.Await()) << "the task waits for tomorrow";
}

TEST_F(SpoolStorageScheduleTest, CloseRunsWhatIsLeftOnTheCallersThread) {
  scheduler_.Stop();
  std::thread::id runner;
  schedule_->AddTask([&] { runner = std::this_thread::get_id(); });
  schedule_->AddTask([] { throw std::runtime_error("broken at the end"); });
  bool last = false;
  schedule_->AddTask([&] { last = schedule_->IsOwnThread(); });
  schedule_->Close();
  EXPECT_EQ(runner, std::this_thread::get_id());
  EXPECT_TRUE(last);
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR, "SpoolStorageSchedule: broken at the end"));
  EXPECT_EQ(schedule_->AddTask([] { FAIL() << "a closed queue took a task"; }), 0U);
}

TEST_F(SpoolStorageScheduleTest, ATaskMayBeTakenBackBeforeItStarts) {
  scheduler_.Stop();
  auto token = std::make_shared<int>(1);
  const std::uint64_t number = schedule_->AddTask([token] { FAIL() << "it was taken back"; });
  EXPECT_EQ(token.use_count(), 2);
  EXPECT_TRUE(schedule_->TakeBack(number));
  EXPECT_EQ(token.use_count(), 1) << "the task still lives";
  EXPECT_FALSE(schedule_->TakeBack(number));
  schedule_->Close();
}

TEST_F(SpoolStorageScheduleTest, WhatWaitsIsBoundedInBytes) {
  scheduler_.Stop();
  const auto nothing = [] {};
  const std::uint64_t first = schedule_->AddTask(nothing, 60, 100);
  EXPECT_NE(first, 0U);
  EXPECT_NE(schedule_->AddTask(nothing, 40, 100), 0U) << "exactly the limit fits";
  EXPECT_EQ(schedule_->AddTask(nothing, 1, 100), 0U);
  EXPECT_NE(schedule_->AddTask(nothing), 0U) << "without a limit";
  EXPECT_TRUE(schedule_->TakeBack(first));
  EXPECT_NE(schedule_->AddTask(nothing, 60, 100), 0U) << "what was taken back makes room";
  EXPECT_EQ(schedule_->AddTask(nothing, 1, 100), 0U);
}

TEST_F(SpoolStorageScheduleTest, WhatHasRunMakesRoom) {
  Gate started;
  Gate release;
  schedule_->AddTask(
      [&] {
        started.Open();
        EXPECT_TRUE(release.Await());
      },
      100, 100);
  ASSERT_TRUE(started.Await());
  EXPECT_NE(schedule_->AddTask([] {}, 100, 100), 0U) << "a task that runs does not wait any more";
  EXPECT_EQ(schedule_->AddTask([] {}, 100, 100), 0U);
  release.Open();
  RunTask([] {});
  EXPECT_NE(schedule_->AddTask([] {}, 100, 100), 0U);
}

TEST_F(SpoolStorageScheduleTest, RefusalsAreCountedIntoOneWarningAMinute) {
  Gate started;
  Gate release;
  schedule_->AddTask([&] {
    started.Open();
    EXPECT_TRUE(release.Await());
  });
  ASSERT_TRUE(started.Await());
  const auto refuse = [&](int times) {
    for (int i = 0; i < times; ++i) EXPECT_EQ(schedule_->AddTask([] {}, 101, 100), 0U);
  };
  refuse(5);
  EXPECT_EQ(log_.Count("SpoolStorage: Refused "), 1);
  EXPECT_TRUE(log_.Has(Message::PRIO_WARNING, "SpoolStorage: Refused 1 operations: the task queue is full."));
  clock_.Advance(seconds(60));
  refuse(1);
  EXPECT_TRUE(log_.Has(Message::PRIO_WARNING, "SpoolStorage: Refused 5 operations: the task queue is full."))
      << log_.All();
  // The last ones are told when their minute is over, though nothing more is refused.
  refuse(7);
  release.Open();
  ASSERT_TRUE(Eventually([&] { return clock_.EarliestDeadline() == clock_.Now() + seconds(60); }));
  clock_.Advance(seconds(60));
  EXPECT_TRUE(Eventually([&] { return log_.Has("SpoolStorage: Refused 7 operations"); })) << log_.All();
  EXPECT_EQ(log_.Count("SpoolStorage: Refused "), 3);
}

}  // namespace
}  // namespace zagent::common::internal

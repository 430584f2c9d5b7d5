#include "common/src/tasks/AsyncTask.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "tests/fakes/Gate.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/NoMoreThreads.h"

namespace zagent::common {
namespace {

using fakes::Eventually;
using fakes::Gate;
using fakes::kTestPatience;
using fakes::NoMoreThreads;

class ScriptedTask final : public AsyncTask {
 public:
  explicit ScriptedTask(std::function<void(ScriptedTask&)> work)
      : AsyncTask({[this] {
                     if (on_idle) on_idle();
                   },
                   [this] { ++cancelled; }}),
        work_(std::move(work)) {}
  ~ScriptedTask() override { Cancel(); }

  std::function<void()> on_idle;
  std::atomic<int> cancels{0};
  std::atomic<int> cancelled{0};
  std::atomic<int> ended{0};

 protected:
  void Execute() override {
    work_(*this);
    ++ended;
  }
  void OnCancel() override { ++cancels; }

 private:
  std::function<void(ScriptedTask&)> work_;
};

TEST(AsyncTaskTest, RunsOnAThreadOfItsOwnAndIsIdleAgainAfterwards) {
  std::thread::id runner;
  Gate release;
  ScriptedTask task([&](ScriptedTask& self) {
    runner = std::this_thread::get_id();
    EXPECT_TRUE(self.IsRunning());
    EXPECT_TRUE(release.Await());
  });
  EXPECT_FALSE(task.IsRunning());
  task.Start();
  EXPECT_TRUE(task.IsRunning());
  EXPECT_FALSE(task.IsCancelling());
  release.Open();
  ASSERT_TRUE(Eventually([&] { return !task.IsRunning(); }));
  EXPECT_NE(runner, std::this_thread::get_id());
}

TEST(AsyncTaskTest, ACancelWaitsForTheRunThatItCancelledAndNotForTheNext) {
  // Who comes first when a run has ended is a matter of chance.
  for (int i = 0; i < 30 && !::testing::Test::HasFailure(); ++i) {
    Gate release;
    std::atomic<bool> first{true};
    ScriptedTask task([&](ScriptedTask& self) {
      if (first.exchange(false)) {
        EXPECT_TRUE(Eventually([&] { return self.IsCancelling(); }));
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      } else {
        EXPECT_TRUE(release.Await());
      }
    });
    task.Start();
    auto next = std::async(std::launch::async, [&] { task.Start(); });
    auto cancel = std::async(std::launch::async, [&] { task.Cancel(); });
    EXPECT_EQ(cancel.wait_for(kTestPatience / 4), std::future_status::ready);
    release.Open();
  }
}

TEST(AsyncTaskTest, ASecondStartWaitsForTheRunUnderWay) {
  std::atomic<int> at_once{0};
  std::atomic<int> most{0};
  Gate started;
  Gate release;
  ScriptedTask task([&](ScriptedTask&) {
    most = std::max(most.load(), ++at_once);
    started.Open();
    EXPECT_TRUE(release.Await());
    --at_once;
  });
  task.Start();
  ASSERT_TRUE(started.Await());
  std::future<int> second = std::async(std::launch::async, [&] {
    task.Start();
    return task.ended.load();
  });
  EXPECT_EQ(second.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
  release.Open();
  ASSERT_EQ(second.wait_for(kTestPatience), std::future_status::ready);
  EXPECT_GE(second.get(), 1) << "the second run started before the first had ended";
  ASSERT_TRUE(Eventually([&] { return task.ended == 2; }));
  EXPECT_EQ(most, 1);
}

TEST(AsyncTaskTest, CancelTellsTheRunAndReturnsAfterItsEnd) {
  Gate told;
  Gate release;
  ScriptedTask task([&](ScriptedTask& self) {
    EXPECT_TRUE(Eventually([&] { return self.IsCancelling(); }));
    told.Open();
    EXPECT_TRUE(release.Await());
  });
  task.Start();
  std::future<int> cancelled = std::async(std::launch::async, [&] {
    task.Cancel();
    return task.ended.load();
  });
  ASSERT_TRUE(told.Await());
  EXPECT_EQ(cancelled.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
  release.Open();
  ASSERT_EQ(cancelled.wait_for(kTestPatience), std::future_status::ready);
  EXPECT_EQ(cancelled.get(), 1);
  EXPECT_EQ(task.cancels, 1);
  EXPECT_FALSE(task.IsRunning());
  EXPECT_FALSE(task.IsCancelling());
}

TEST(AsyncTaskTest, CancelWithoutARunDoesNothing) {
  ScriptedTask task([](ScriptedTask&) {});
  task.Cancel();
  EXPECT_EQ(task.cancels, 0);
  EXPECT_EQ(task.cancelled, 1) << "the hook hears of every cancel";
  task.Start();
  ASSERT_TRUE(Eventually([&] { return task.ended == 1; }));
}

TEST(AsyncTaskTest, EveryOneOfSeveralCancelsWaitsForTheEnd) {
  Gate started;
  Gate release;
  ScriptedTask task([&](ScriptedTask&) {
    started.Open();
    EXPECT_TRUE(release.Await());
  });
  task.Start();
  ASSERT_TRUE(started.Await());
  const auto cancel = [&] {
    task.Cancel();
    return task.ended.load();
  };
  std::future<int> first = std::async(std::launch::async, cancel);
  std::future<int> second = std::async(std::launch::async, cancel);
  EXPECT_EQ(first.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
  EXPECT_EQ(second.wait_for(std::chrono::milliseconds(0)), std::future_status::timeout);
  release.Open();
  ASSERT_EQ(first.wait_for(kTestPatience), std::future_status::ready);
  ASSERT_EQ(second.wait_for(kTestPatience), std::future_status::ready);
  EXPECT_EQ(first.get(), 1);
  EXPECT_EQ(second.get(), 1);
}

TEST(AsyncTaskTest, CancelReturnsOnlyAfterTheIdleHookHasReturned) {
  Gate in_idle;
  Gate release;
  ScriptedTask task([](ScriptedTask&) {});
  task.on_idle = [&] {
    in_idle.Open();
    EXPECT_TRUE(release.Await());
  };
  task.Start();
  ASSERT_TRUE(in_idle.Await());
  EXPECT_FALSE(task.IsRunning());
  std::future<void> cancelled = std::async(std::launch::async, [&] { task.Cancel(); });
  EXPECT_EQ(cancelled.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
  release.Open();
  EXPECT_EQ(cancelled.wait_for(kTestPatience), std::future_status::ready);
}

TEST(AsyncTaskTest, StartDoesNotWaitForAThreadThatNeedsItsCallersLock) {
  std::mutex callers_lock;
  Gate in_idle;
  ScriptedTask task([](ScriptedTask&) {});
  task.on_idle = [&] {
    in_idle.Open();
    const std::lock_guard lock(callers_lock);
  };
  std::future<void> second;
  {
    const std::lock_guard lock(callers_lock);
    task.Start();
    ASSERT_TRUE(in_idle.Await());
    second = std::async(std::launch::async, [&] { task.Start(); });
    EXPECT_EQ(second.wait_for(kTestPatience), std::future_status::ready) << "Start joined the finished thread";
  }
  second.get();
  EXPECT_TRUE(Eventually([&] { return task.ended == 2; }));
}

TEST(AsyncTaskTest, AnExceptionEndsThisRunOnlyAndIsLogged) {
  const fakes::LogCapture log;
  std::atomic<int> runs{0};
  ScriptedTask task([&](ScriptedTask&) {
    if (++runs == 1) throw std::runtime_error("no such luck");
  });
  task.Start();
  ASSERT_TRUE(Eventually([&] { return runs == 1 && !task.IsRunning(); }));
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_ERROR, "AsyncTask::OnExecute: no such luck")) << log.All();
  task.Start();
  EXPECT_TRUE(Eventually([&] { return task.ended == 1; }));
}

TEST(AsyncTaskTest, IsIdleWhenNoThreadCouldBeMade) {
  ScriptedTask task([](ScriptedTask&) {});
  task.Start();  // so that there is an old thread to keep
  ASSERT_TRUE(Eventually([&] { return task.ended == 1 && !task.IsRunning(); }));
  {
    const NoMoreThreads no_more_threads;
    EXPECT_THROW(task.Start(), std::system_error);
  }
  EXPECT_FALSE(task.IsRunning());
  task.Start();
  EXPECT_TRUE(Eventually([&] { return task.ended == 2; }));
}

}  // namespace
}  // namespace zagent::common

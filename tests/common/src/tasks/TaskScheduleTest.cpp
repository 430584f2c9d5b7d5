#include "common/src/tasks/TaskSchedule.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <future>
#include <limits>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "common/src/tasks/Answer.h"
#include "common/src/tasks/Scheduler.h"
#include "common/src/util/HeapTrim.h"
#include "tests/fakes/FakeClock.h"
#include "tests/fakes/FakeSchedule.h"
#include "tests/fakes/Gate.h"
#include "tests/fakes/Heap.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/NoMoreThreads.h"
#include "tests/fakes/SleepingCall.h"

namespace zagent::common {
namespace {

using fakes::Eventually;
using fakes::Gate;
using fakes::kTestPatience;
using fakes::SleepingCall;
using Poco::Message;
using std::chrono::seconds;

// Whose runs find no thread.
class UnstartableTasks final : public TaskSchedule {
 public:
  UnstartableTasks() : TaskSchedule(10) {}
  ~UnstartableTasks() override { Cancel(); }
  void Start() override { throw std::runtime_error("no thread"); }
};

// Whose log lines find no memory.
class TasksThatCannotLog final : public TaskSchedule {
 public:
  TasksThatCannotLog() : TaskSchedule(10) {}
  ~TasksThatCannotLog() override { Cancel(); }

 protected:
  void LogFailure(const std::exception&) override { throw std::runtime_error("no memory for the line"); }
};

// Whose run has to see a cancel before the queue is told of it.
class TasksThatAreToldLate final : public TaskSchedule {
 public:
  TasksThatAreToldLate() : TaskSchedule(10) {}
  ~TasksThatAreToldLate() override { Cancel(); }

 protected:
  void Execute() override {
    TaskSchedule::Execute();
    over_ = true;
  }
  void OnCancel() override {
    Recheck();
    EXPECT_TRUE(Eventually([this] { return over_.load(); })) << "the run stays";
    TaskSchedule::OnCancel();
  }

 private:
  std::atomic<bool> over_{false};
};

// A log that stops whoever writes a line.
class StopAtLine final : public Poco::Channel {
 public:
  explicit StopAtLine(std::string text) : text_(std::move(text)) {}
  void log(const Poco::Message& message) override {
    if (message.getText().find(text_) == std::string::npos) return;
    stopped.Open();
    EXPECT_TRUE(go_on.Await());
  }
  Gate stopped;
  Gate go_on;

 private:
  const std::string text_;
};

class TaskScheduleTest : public ::testing::Test {
 protected:
  static constexpr seconds kDay{86'400};
  static constexpr seconds kIdle{10};

  TaskScheduleTest() {
    scheduler_.RegisterSchedule(tasks_);
    scheduler_.Start();
  }
  ~TaskScheduleTest() override { scheduler_.Stop(); }

  // Occupies the thread of the tasks until the gate opens.
  std::shared_ptr<Gate> Block() {
    const auto started = std::make_shared<Gate>();
    const auto release = std::make_shared<Gate>();
    EXPECT_TRUE(tasks_->AddTask([started, release] {
      started->Open();
      EXPECT_TRUE(release->Await());
    }));
    EXPECT_TRUE(started->Await());
    return release;
  }
  std::thread::id ThreadOfNextTask() {
    return tasks_->Call(scheduler_, [] { return std::this_thread::get_id(); });
  }
  [[nodiscard]] bool SleepsFor(seconds duration) const {
    return Eventually([&] { return clock_.EarliestDeadline() == clock_.Now() + duration; });
  }
  template <typename Function>
  static bool IsReady(std::future<Function>& future) {
    return future.wait_for(kTestPatience) == std::future_status::ready;
  }

  const fakes::LogCapture log_;
  fakes::FakeClock clock_;
  Scheduler scheduler_{clock_};
  const std::shared_ptr<TaskSchedule> tasks_ = std::make_shared<TaskSchedule>(kIdle.count(), clock_);
};

TEST_F(TaskScheduleTest, ASleepBehindATrimOfTheHeapFreesWhatIsKeptForTheThread) {
  std::size_t before = 0;
  tasks_->Call(scheduler_, [&before] {
    fakes::LeaveKeptBlocks();
    std::thread(util::TrimHeap).join();
    before = fakes::HeapInUse();
    return true;
  });
  if (fakes::kKnowsItsHeap) {
    EXPECT_TRUE(fakes::HeapShrinksTo(before - fakes::kKeptBytes));
  }
}

TEST_F(TaskScheduleTest, OneThreadServesABurstInItsOrder) {
  std::vector<int> order;
  std::set<std::thread::id> threads;
  for (int i = 0; i < 100; ++i) {
    tasks_->AddTask([&, i] {
      order.push_back(i);
      threads.insert(std::this_thread::get_id());
    });
  }
  threads.insert(ThreadOfNextTask());
  ASSERT_EQ(order.size(), 100U);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(order[static_cast<std::size_t>(i)], i);
  EXPECT_EQ(threads.size(), 1U);
  EXPECT_EQ(threads.count(std::this_thread::get_id()), 0U);
}

TEST_F(TaskScheduleTest, ARunLingersForMoreAndThenDisappears) {
  EXPECT_FALSE(tasks_->IsRunning());
  const std::thread::id first = ThreadOfNextTask();
  ASSERT_TRUE(SleepsFor(kIdle));
  clock_.Advance(kIdle - seconds(1));
  EXPECT_EQ(ThreadOfNextTask(), first);
  ASSERT_TRUE(SleepsFor(kIdle)) << "each task begins the time anew";
  clock_.Advance(kIdle);
  ASSERT_TRUE(Eventually([&] { return !tasks_->IsRunning(); })) << "the thread stays for ever";
  EXPECT_TRUE(tasks_->AddTask([] {}));
  EXPECT_TRUE(SleepsFor(kIdle)) << "the next task starts no run";
}

TEST_F(TaskScheduleTest, ARunWithoutTasksStaysADayAtMost) {
  const auto tasks = std::make_shared<TaskSchedule>(std::numeric_limits<std::uint64_t>::max(), clock_);
  scheduler_.RegisterSchedule(tasks);
  const pid_t thread = tasks->Call(scheduler_, gettid);
  fakes::SleepWatch watch;
  ASSERT_TRUE(Eventually([&] { return watch.IsAsleep(thread); })) << "it does not stay";
  clock_.Advance(kDay);
  EXPECT_TRUE(Eventually([&] { return !tasks->IsRunning(); }));
  scheduler_.UnregisterSchedule(tasks);
}

TEST_F(TaskScheduleTest, ACallWakesARunThatSleeps) {
  const pid_t thread = tasks_->Call(scheduler_, gettid);
  fakes::SleepWatch watch;
  ASSERT_TRUE(SleepsFor(kIdle));
  ASSERT_TRUE(Eventually([&] { return watch.IsAsleep(thread); }));
  SleepingCall<pid_t> call([&] { return tasks_->Call(scheduler_, gettid); });
  const bool ended = call.AwaitEnd();
  scheduler_.Stop();
  ASSERT_TRUE(ended);
  EXPECT_EQ(call.Get(), thread);
}

TEST_F(TaskScheduleTest, AThreadThatRunsTheTasksNoMoreIsNotTheirOwn) {
  TaskSchedule tasks(0, clock_);
  std::atomic<int> told{0};
  std::atomic<bool> own{false};
  // Told on the thread of the run, at its end.
  tasks.SetOnFinished([&] {
    ++told;
    if (tasks.IsOwnThread()) own = true;
  });
  tasks.Start();
  EXPECT_TRUE(Eventually([&] { return told == 2; }));
  tasks.Cancel();
  EXPECT_FALSE(own);
}

TEST_F(TaskScheduleTest, NeverFallsDueByTheClock) {
  EXPECT_EQ(tasks_->NextRunTime(), util::ToNanoseconds(clock_.Now() + kDay));
  ASSERT_TRUE(SleepsFor(kDay));
  clock_.Advance(kDay);
  ASSERT_TRUE(SleepsFor(kDay));
  EXPECT_FALSE(tasks_->IsRunning());
}

TEST_F(TaskScheduleTest, ATaskThatFailsIsLoggedAndTheNextOneRuns) {
  tasks_->AddTask([] { throw std::runtime_error("broken task"); });
  EXPECT_TRUE(tasks_->AddTask(nullptr));
  ThreadOfNextTask();
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR, "]: Failed to execute background task: broken task")) << log_.All();
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR, "]: Failed to execute background task: bad_function_call"));
}

TEST_F(TaskScheduleTest, AfterACancelNothingIsTakenAndNothingRuns) {
  // With a run under way,
  ThreadOfNextTask();
  scheduler_.UnregisterSchedule(tasks_);
  EXPECT_FALSE(tasks_->AddTask([] { FAIL() << "it ran"; }));
  EXPECT_EQ(tasks_->Post([] { FAIL() << "it ran"; }), TaskSchedule::kRefused);
  // and without one.
  TaskSchedule idle(10, clock_);
  idle.Cancel();
  EXPECT_FALSE(idle.AddTask([] { FAIL() << "it ran"; }));
  idle.Close();
}

TEST_F(TaskScheduleTest, WhatWasQueuedBeforeACancelStillRuns) {
  const auto release = Block();
  std::atomic<int> served{0};
  for (int i = 0; i < 5; ++i) EXPECT_TRUE(tasks_->AddTask([&] { ++served; }));
  auto cancelled = std::async(std::launch::async, [&] { scheduler_.UnregisterSchedule(tasks_); });
  ASSERT_TRUE(Eventually([&] { return tasks_->IsCancelling(); }));
  release->Open();
  ASSERT_TRUE(IsReady(cancelled));
  EXPECT_EQ(served, 5);
}

TEST_F(TaskScheduleTest, ARunLeavesWhenItSeesTheCancelAndTakesNothingMore) {
  const auto tasks = std::make_shared<TasksThatAreToldLate>();
  scheduler_.RegisterSchedule(tasks);
  ASSERT_TRUE(tasks->Await(scheduler_, [] {}));
  tasks->Cancel();
  EXPECT_FALSE(tasks->AddTask([] {}));
  scheduler_.UnregisterSchedule(tasks);
}

TEST_F(TaskScheduleTest, ACancelDoesNotWaitForTheIdleTime) {
  ThreadOfNextTask();
  ASSERT_TRUE(SleepsFor(kIdle));
  auto cancelled = std::async(std::launch::async, [&] { scheduler_.UnregisterSchedule(tasks_); });
  EXPECT_TRUE(IsReady(cancelled));
}

TEST_F(TaskScheduleTest, CloseRunsWhatNeverStartedOnItsCallersThread) {
  scheduler_.Stop();
  const auto tasks = std::make_shared<TaskSchedule>(10, clock_);
  std::vector<std::thread::id> threads;
  bool own = false;
  EXPECT_TRUE(tasks->AddTask([&] { threads.push_back(std::this_thread::get_id()); }));
  EXPECT_TRUE(tasks->AddTask([&] { own = tasks->IsOwnThread(); }));
  tasks->Close();
  EXPECT_EQ(threads, (std::vector<std::thread::id>{std::this_thread::get_id()}));
  EXPECT_TRUE(own);
  EXPECT_FALSE(tasks->IsOwnThread()) << "it runs them no more";
  EXPECT_FALSE(tasks->AddTask([] {}));
}

TEST_F(TaskScheduleTest, CloseTellsOfRefusalsThatWereNotSaidYet) {
  const auto tasks = std::make_shared<TaskSchedule>(10, clock_);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(tasks->Post([] {}, 2, 1), TaskSchedule::kRefused);
  EXPECT_EQ(log_.Count("Refused "), 1);
  tasks->Close();
  EXPECT_EQ(log_.Count("Refused 2 operations"), 1) << log_.All();
}

TEST_F(TaskScheduleTest, ARefusedTaskIsDestroyedAtOnceAndItsAnswerGiven) {
  std::vector<std::string> answers;
  const auto post = [&](std::uint64_t bytes) {
    auto answer = std::make_shared<Answer<std::string>>([&](std::string text) { answers.push_back(std::move(text)); },
                                                        [] { return std::string("refused"); });
    return tasks_->Post([answer = std::move(answer)] { answer->Give("done"); }, bytes, 100);
  };
  const auto release = Block();
  EXPECT_NE(post(100), TaskSchedule::kRefused);
  EXPECT_EQ(post(1), TaskSchedule::kRefused);
  EXPECT_EQ(answers, (std::vector<std::string>{"refused"}));
  EXPECT_TRUE(log_.Has(Message::PRIO_WARNING, "]: TaskSchedule: Refused 1 operations: the task queue is full."));
  release->Open();
  ThreadOfNextTask();
  EXPECT_EQ(answers, (std::vector<std::string>{"refused", "done"}));
}

TEST_F(TaskScheduleTest, ATaskThatIsTakenBackIsAnsweredAndMakesRoom) {
  const auto release = Block();
  bool answered = false;
  auto answer = std::make_shared<Answer<bool>>([&](bool) { answered = true; }, [] { return false; });
  const std::uint64_t number = tasks_->Post([answer = std::move(answer)] { FAIL() << "it ran"; }, 100, 100);
  EXPECT_EQ(tasks_->GetWaitingBytes(), 100U);
  EXPECT_TRUE(tasks_->TakeBack(number));
  EXPECT_EQ(tasks_->GetWaitingBytes(), 0U);
  EXPECT_TRUE(answered);
  EXPECT_FALSE(tasks_->TakeBack(number));
  EXPECT_NE(tasks_->Post([] {}, 100, 100), TaskSchedule::kRefused);
  release->Open();
}

TEST_F(TaskScheduleTest, TasksAreTakenBackFromAnywhereInALongQueueAndTheOthersKeepTheirOrder) {
  constexpr int kBlock = TaskSchedule::kBlock;
  constexpr int kTasks = 3 * kBlock + 1;
  const auto release = Block();
  std::vector<int> order;
  std::vector<int> expected;
  std::vector<std::uint64_t> numbers;
  for (int i = 0; i < kTasks; ++i) {
    numbers.push_back(tasks_->Post([&order, i] { order.push_back(i); }, 1));
  }
  for (int i = 0; i < kTasks; ++i) {
    // One block as a whole, the ends of the others, and the last one, which stands alone.
    if (i / kBlock == 1 || i % kBlock == 0 || i % kBlock == kBlock - 1) {
      EXPECT_TRUE(tasks_->TakeBack(numbers[static_cast<std::size_t>(i)]));
    } else {
      expected.push_back(i);
    }
  }
  EXPECT_FALSE(tasks_->TakeBack(numbers.front()));
  EXPECT_FALSE(tasks_->TakeBack(numbers.back() + 1));
  EXPECT_EQ(tasks_->GetWaitingBytes(), expected.size());
  tasks_->AddTask([&] { order.push_back(kTasks); });
  expected.push_back(kTasks);
  release->Open();
  ThreadOfNextTask();
  EXPECT_EQ(order, expected);
  EXPECT_EQ(tasks_->GetWaitingBytes(), 0U);
}

TEST_F(TaskScheduleTest, EachTaskMakesRoomWhenItStartsThoughManyAreTakenTogether) {
  const auto release = Block();
  std::vector<std::uint64_t> waiting;
  for (int i = 0; i < 3; ++i) tasks_->Post([&] { waiting.push_back(tasks_->GetWaitingBytes()); }, 100);
  release->Open();
  ThreadOfNextTask();
  EXPECT_EQ(waiting, (std::vector<std::uint64_t>{200, 100, 0}));
}

TEST_F(TaskScheduleTest, EachTaskIsDestroyedBeforeTheNextOneStartsThoughManyAreTakenTogether) {
  const auto release = Block();
  std::vector<std::string> order;
  for (const char* name : {"first", "second"}) {
    std::shared_ptr<void> end(nullptr, [&order](void*) { order.emplace_back("destroyed"); });
    tasks_->AddTask([&order, name, end = std::move(end)] { order.emplace_back(name); });
  }
  release->Open();
  ThreadOfNextTask();
  EXPECT_EQ(order, (std::vector<std::string>{"first", "destroyed", "second", "destroyed"}));
}

TEST_F(TaskScheduleTest, ARunThatWasWokenForATaskThatIsTakenBackIsWokenForTheNext) {
  for (int i = 0; i < 30; ++i) {
    ThreadOfNextTask();
    ASSERT_TRUE(SleepsFor(kIdle));
    tasks_->TakeBack(tasks_->Post([] {}));
    Gate ran;
    EXPECT_TRUE(tasks_->AddTask([&] { ran.Open(); }));
    ASSERT_TRUE(ran.Await());
  }
}

TEST_F(TaskScheduleTest, ATaskThatIsRefusedMayPostAnotherAsItGoes) {
  const auto release = Block();
  std::vector<std::uint64_t> numbers;
  const auto post_again = [&] {
    return std::shared_ptr<void>(nullptr, [&](void*) { numbers.push_back(tasks_->Post([] {}, 1, 100)); });
  };
  EXPECT_EQ(tasks_->Post([end = post_again()] {}, 101, 100), TaskSchedule::kRefused);
  ASSERT_EQ(numbers.size(), 1U);
  EXPECT_NE(numbers[0], TaskSchedule::kRefused);
  Task kept = [end = post_again()] {};
  EXPECT_EQ(tasks_->Post(std::move(kept), 101, 100), TaskSchedule::kRefused);
  EXPECT_EQ(numbers.size(), 2U) << "it outlives its refusal";
  release->Open();
}

TEST_F(TaskScheduleTest, ATaskThatIsRefusedForGoodMayPostAnotherAsItGoes) {
  scheduler_.UnregisterSchedule(tasks_);
  bool refused = false;
  std::shared_ptr<void> end(nullptr, [&](void*) { refused = !tasks_->AddTask([] {}); });
  Task task = [end = std::move(end)] {};
  EXPECT_EQ(tasks_->Post(std::move(task)), TaskSchedule::kRefused);
  EXPECT_TRUE(refused);
}

TEST_F(TaskScheduleTest, ACallBringsBackAValueOrWhatTheWorkThrew) {
  EXPECT_EQ(tasks_->Call(scheduler_, [] { return 42; }), 42);
  bool done = false;
  tasks_->Call(scheduler_, [&] { done = true; });
  EXPECT_TRUE(done);
  try {
    tasks_->Call(scheduler_, []() -> int { throw std::invalid_argument("bad statement"); });
    FAIL() << "nothing was thrown";
  } catch (const std::invalid_argument& error) {
    EXPECT_STREQ(error.what(), "bad statement");
  }
  EXPECT_EQ(log_.Count("Failed to execute background task"), 0) << "the caller has heard of it";
}

TEST_F(TaskScheduleTest, ACallOnTheThreadOfTheTasksRunsAtOnce) {
  std::vector<std::string> order;
  const auto release = Block();
  tasks_->AddTask([&] {
    order.emplace_back("begin");
    EXPECT_EQ(tasks_->Call(scheduler_,
                           [&] {
                             order.emplace_back("inner");
                             return 7;
                           }),
              7);
    EXPECT_THROW(tasks_->Call(scheduler_, []() -> int { throw std::runtime_error("inner"); }), std::runtime_error);
    order.emplace_back("end");
  });
  tasks_->AddTask([&] { order.emplace_back("next"); });
  release->Open();
  ThreadOfNextTask();
  EXPECT_EQ(order, (std::vector<std::string>{"begin", "inner", "end", "next"}));
}

TEST_F(TaskScheduleTest, ACallFailsAtOnceWhenNothingRunsTheTasks) {
  scheduler_.Stop();
  try {
    tasks_->Call(scheduler_, [] { FAIL() << "it ran"; });
    FAIL() << "nothing was thrown";
  } catch (const TaskNotRunException& error) {
    EXPECT_STREQ(error.what(), "Nothing runs the tasks.");
  }
  // The Scheduler runs, but does not know this one.
  Scheduler other(clock_);
  other.Start();
  const auto stray = std::make_shared<TaskSchedule>(10, clock_);
  EXPECT_FALSE(stray->Await(other, [] { FAIL() << "it ran"; }));
}

TEST_F(TaskScheduleTest, ACallThatNoRunServesEndsWithTheScheduler) {
  const auto tasks = std::make_shared<UnstartableTasks>();
  scheduler_.RegisterSchedule(tasks);
  SleepingCall<bool> call([&] { return tasks->Await(scheduler_, [] { ADD_FAILURE() << "it ran"; }); });
  ASSERT_TRUE(call.AwaitAsleep());
  scheduler_.Stop();
  ASSERT_TRUE(call.AwaitEnd()) << "it waits for a Scheduler that is gone";
  EXPECT_FALSE(call.Get());
}

TEST_F(TaskScheduleTest, ACallThatNoRunServesEndsWhenTheScheduleIsUnregistered) {
  const auto tasks = std::make_shared<UnstartableTasks>();
  scheduler_.RegisterSchedule(tasks);
  SleepingCall<bool> call([&] { return tasks->Await(scheduler_, [] { ADD_FAILURE() << "it ran"; }); });
  ASSERT_TRUE(call.AwaitAsleep());
  scheduler_.UnregisterSchedule(tasks);
  const bool ended = call.AwaitEnd();
  scheduler_.Stop();  // lets it go in any case
  ASSERT_TRUE(ended) << "it waits for a Scheduler that has forgotten its schedule";
  EXPECT_FALSE(call.Get());
}

TEST_F(TaskScheduleTest, ACallThatWaitsBehindATaskIsServedThoughTheScheduleIsUnregistered) {
  const auto release = Block();
  SleepingCall<bool> call([&] { return tasks_->Await(scheduler_, [] {}); });
  ASSERT_TRUE(call.AwaitAsleep());
  auto unregistered = std::async(std::launch::async, [&] { scheduler_.UnregisterSchedule(tasks_); });
  ASSERT_TRUE(Eventually([&] { return tasks_->IsCancelling(); }));
  release->Open();
  ASSERT_TRUE(IsReady(unregistered));
  ASSERT_TRUE(call.AwaitEnd());
  EXPECT_TRUE(call.Get());
}

TEST_F(TaskScheduleTest, ATaskWhoseRunFoundNoThreadRunsAtTheNextTry) {
  Gate ran;
  {
    const fakes::NoMoreThreads no_more_threads;
    EXPECT_TRUE(tasks_->AddTask([&] { ran.Open(); }));
    ASSERT_TRUE(Eventually([&] { return log_.Has("Scheduler: Schedule exeution failed: "); }));
    ASSERT_TRUE(SleepsFor(seconds(10)));
  }
  // It may have been seen asleep in front of the failure, and sleeps from then on behind it.
  const auto ran_by_now = [&] {
    clock_.Advance(seconds(10));
    return ran.IsOpen();
  };
  EXPECT_TRUE(Eventually(ran_by_now)) << "nobody remembers that there is a task";
}

TEST_F(TaskScheduleTest, AFailureThatLeavesTheRunLeavesNoDeadQueue) {
  const auto tasks = std::make_shared<TasksThatCannotLog>();
  scheduler_.RegisterSchedule(tasks);
  const std::shared_ptr<Gate> release = Block();  // another schedule: the timer thread is free
  tasks->AddTask([] { throw std::runtime_error("broken task"); });
  ASSERT_TRUE(Eventually([&] { return log_.Has("AsyncTask::OnExecute: no memory for the line"); })) << log_.All();
  SleepingCall<bool> call([&] { return tasks->Await(scheduler_, [] {}); });
  const bool ended = call.AwaitEnd();
  release->Open();
  scheduler_.Stop();
  ASSERT_TRUE(ended) << "a run is believed to be there";
  EXPECT_TRUE(call.Get());
  EXPECT_FALSE(tasks->IsOwnThread());
}

TEST_F(TaskScheduleTest, WhatWaitsBehindAFailureThatLeavesTheRunIsServed) {
  const auto tasks = std::make_shared<TasksThatCannotLog>();
  std::vector<int> order;
  Gate ran;
  tasks->Post([] { throw std::runtime_error("broken task"); }, 1);
  tasks->Post([&] { order.push_back(1); }, 10);
  for (int i = 2; i < 50; ++i) tasks->Post([&, i] { order.push_back(i); }, 100);
  tasks->AddTask([&] { ran.Open(); });
  scheduler_.RegisterSchedule(tasks);
  ASSERT_TRUE(ran.Await());
  ASSERT_EQ(order.size(), 49U);
  for (int i = 1; i < 50; ++i) EXPECT_EQ(order[static_cast<std::size_t>(i - 1)], i);
  EXPECT_EQ(tasks->GetWaitingBytes(), 0U);
}

TEST_F(TaskScheduleTest, TheWarningAboutRefusalsHoldsNobodyUp) {
  Poco::AutoPtr<StopAtLine> slow(new StopAtLine("Refused 1 operations"));
  Poco::Logger& logger = Poco::Logger::get("edr");
  const Poco::Channel::Ptr log = logger.getChannel();
  const auto release = Block();
  logger.setChannel(slow);
  auto refused = std::async(std::launch::async, [&] { return tasks_->Post([] {}, 2, 1); });
  EXPECT_TRUE(slow->stopped.Await());
  auto accepted = std::async(std::launch::async, [&] { return tasks_->Post([] {}); });
  EXPECT_TRUE(IsReady(accepted)) << "it waits for the log";
  slow->go_on.Open();
  EXPECT_EQ(refused.get(), TaskSchedule::kRefused);
  logger.setChannel(log);
  release->Open();
}

TEST_F(TaskScheduleTest, AClockThatIsSetBackDoesNotKeepAnIdleThread) {
  ThreadOfNextTask();
  ASSERT_TRUE(SleepsFor(kIdle));
  clock_.Advance(-kDay);
  scheduler_.OnClockStep(-kDay);
  ASSERT_TRUE(SleepsFor(kIdle));
  clock_.Advance(kIdle);
  EXPECT_TRUE(Eventually([&] { return !tasks_->IsRunning(); }));
}

TEST_F(TaskScheduleTest, AClockThatIsSetBackDoesNotSilenceTheWarning) {
  const auto release = Block();
  const auto refuse = [&] { EXPECT_EQ(tasks_->Post([] {}, 2, 1), TaskSchedule::kRefused); };
  refuse();
  clock_.Advance(-kDay);
  scheduler_.OnClockStep(-kDay);
  refuse();
  EXPECT_EQ(log_.Count("Refused 1 operations"), 1);
  clock_.Advance(seconds(60));
  refuse();
  EXPECT_EQ(log_.Count("Refused 2 operations"), 1) << log_.All();
  release->Open();
}

TEST_F(TaskScheduleTest, AStepThatIsToldLateDoesNotSilenceTheWarning) {
  const auto release = Block();
  const auto refuse = [&] { EXPECT_EQ(tasks_->Post([] {}, 2, 1), TaskSchedule::kRefused); };
  clock_.Advance(kDay);
  refuse();  // said by the new time, before the step is told
  scheduler_.OnClockStep(kDay);
  refuse();
  refuse();
  EXPECT_EQ(log_.Count("Refused 1 operations"), 1);
  clock_.Advance(seconds(60));
  refuse();
  EXPECT_EQ(log_.Count("Refused 3 operations"), 1) << log_.All();
  release->Open();
}

TEST_F(TaskScheduleTest, AnAnswerIsGivenOnce) {
  int given = 0;
  {
    Answer<int> answer([&](int value) { given = 10 * given + value; }, [] { return 2; });
    answer.Give(1);
    answer.Give(3);
  }
  EXPECT_EQ(given, 1);
  {
    const Answer<int> forgotten([&](int value) { given = value; }, [] { return 2; });
  }
  EXPECT_EQ(given, 2);
  {
    const Answer<int> nobody(nullptr, [] { return 2; });
  }
  {
    const Answer<int> failing([](int) { throw std::runtime_error("bad callback"); }, [] { return 2; });
  }
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR, "Failed to execute background task: bad callback"));
}

TEST(TaskScheduleStormTest, TwoHundredThousandTasksOfFourThreadsAreServedInTimeByAScheduleThatIsLeftAlone) {
  // On the clock of the machine.
  constexpr int kThreads = 4;
  constexpr int kEach = 50'000;
  Scheduler scheduler;
  const auto tasks = std::make_shared<TaskSchedule>(60);
  const auto bystander = std::make_shared<fakes::FakeSchedule>();  // is asked once at each walk of the timer thread
  scheduler.RegisterSchedule(tasks);
  scheduler.RegisterSchedule(bystander);
  scheduler.Start();
  // From its first task on, one run serves them all: the Scheduler has nothing more to do than to end its last walk.
  ASSERT_TRUE(tasks->Await(scheduler, [] {}));
  const int walks = bystander->asked;
  std::atomic<std::uint64_t> served{0};
  std::atomic<std::int64_t> longest{0};
  std::vector<std::thread> producers;
  for (int thread = 0; thread < kThreads; ++thread) {
    producers.emplace_back([&] {
      for (int i = 0; i < kEach; ++i) {
        const auto posted = std::chrono::steady_clock::now();
        ASSERT_TRUE(tasks->AddTask([&, posted] {
          const std::int64_t waited = (std::chrono::steady_clock::now() - posted).count();
          if (waited > longest) longest = waited;
          ++served;
        }));
      }
    });
  }
  for (std::thread& producer : producers) producer.join();
  ASSERT_TRUE(tasks->Await(scheduler, [] {}));
  EXPECT_EQ(served, std::uint64_t{kThreads} * kEach);
  EXPECT_LT(std::chrono::nanoseconds(longest), seconds(1));
  scheduler.Stop();
  EXPECT_LE(bystander->asked, walks + 2) << "the timer thread walks for nothing";
}

TEST(TaskScheduleStormTest, ABatchOfTasksEndsTheNap) {
  constexpr int kRounds = 50;
  constexpr std::size_t kTasks = 2 * TaskSchedule::kBatch;  // the first of them may come before the nap
  Scheduler scheduler;
  const auto tasks = std::make_shared<TaskSchedule>(60);
  scheduler.RegisterSchedule(tasks);
  scheduler.Start();
  int early = 0;
  for (int round = 0; round < kRounds; ++round) {
    const auto before_nap = tasks->Call(scheduler, std::chrono::steady_clock::now);
    for (std::size_t i = 1; i < kTasks; ++i) ASSERT_TRUE(tasks->AddTask([] {}));
    std::promise<std::chrono::steady_clock::time_point> served;
    ASSERT_TRUE(tasks->AddTask([&] { served.set_value(std::chrono::steady_clock::now()); }));
    if (served.get_future().get() - before_nap < TaskSchedule::kNap) ++early;
  }
  // A machine that is busy with something else may stop any of them.
  EXPECT_GE(early, kRounds / 5);
  scheduler.Stop();
}

// How often the calling thread has gone to sleep so far.
long Sleeps() {
  rusage usage{};
  getrusage(RUSAGE_THREAD, &usage);
  return usage.ru_nvcsw;
}

TEST(TaskScheduleStormTest, TasksThatComeOneByOneDoNotWakeTheRunEach) {
  constexpr int kTasks = 2'000;
  constexpr std::chrono::microseconds kPace{20};
  Scheduler scheduler;
  const auto tasks = std::make_shared<TaskSchedule>(60);
  scheduler.RegisterSchedule(tasks);
  scheduler.Start();
  const long before = tasks->Call(scheduler, Sleeps);
  int served = 0;
  for (int i = 0; i < kTasks; ++i) {
    const auto next = std::chrono::steady_clock::now() + kPace;
    ASSERT_TRUE(tasks->AddTask([&served] { ++served; }));
    while (std::chrono::steady_clock::now() < next) std::this_thread::yield();
  }
  const long after = tasks->Call(scheduler, Sleeps);
  EXPECT_EQ(served, kTasks);
  EXPECT_LT(after - before, kTasks / 4);
  scheduler.Stop();
}

// Naps until somebody wakes it. A task that fails leaves the run.
class TasksThatNapLong final : public TaskSchedule {
 public:
  TasksThatNapLong()
      : TaskSchedule({"TasksThatNapLong", std::nullopt, false, std::chrono::hours(1)}, util::Clock::Real()) {}
  ~TasksThatNapLong() override { Cancel(); }

 protected:
  void LogFailure(const std::exception&) override { throw std::runtime_error("no memory for the line"); }
};

// True when nothing runs though there was time for it.
bool StaysUnchanged(const std::atomic<bool>& ran) {
  for (int i = 0; i < 100; ++i) std::this_thread::yield();
  return !ran;
}

TEST(TaskScheduleNapTest, AQueueThatHasPassedHalfOfItsBoundEndsTheNap) {
  Scheduler scheduler;
  const auto tasks = std::make_shared<TasksThatNapLong>();
  scheduler.RegisterSchedule(tasks);
  scheduler.Start();
  const pid_t thread = tasks->Call(scheduler, gettid);
  fakes::SleepWatch watch;
  ASSERT_TRUE(Eventually([&] { return watch.IsAsleep(thread); }));
  std::atomic<bool> ran{false};
  ASSERT_TRUE(tasks->Post([&] { ran = true; }, 50, 100));
  EXPECT_TRUE(StaysUnchanged(ran)) << "half of it is no reason";
  Gate done;
  ASSERT_TRUE(tasks->Post([&] { done.Open(); }, 1, 100));
  EXPECT_TRUE(done.Await());
  EXPECT_TRUE(ran);
  scheduler.Stop();
}

TEST(TaskScheduleNapTest, ATaskThatWasTakenBackIsNoPartOfTheBatchThatEndsTheNap) {
  Scheduler scheduler;
  const auto tasks = std::make_shared<TasksThatNapLong>();
  scheduler.RegisterSchedule(tasks);
  scheduler.Start();
  const pid_t thread = tasks->Call(scheduler, gettid);
  fakes::SleepWatch watch;
  ASSERT_TRUE(Eventually([&] { return watch.IsAsleep(thread); }));
  std::atomic<bool> ran{false};
  std::uint64_t last = 0;
  for (std::size_t i = 1; i < TaskSchedule::kBatch; ++i) last = tasks->Post([&] { ran = true; });
  ASSERT_TRUE(tasks->TakeBack(last));
  ASSERT_TRUE(tasks->AddTask([&] { ran = true; }));
  EXPECT_TRUE(StaysUnchanged(ran)) << "there is one too few";
  Gate done;
  ASSERT_TRUE(tasks->AddTask([&] { done.Open(); }));
  EXPECT_TRUE(done.Await());
  scheduler.Stop();
}

TEST(TaskScheduleNapTest, WhatAFailureLeftBehindIsCountedAsBefore) {
  Scheduler scheduler;
  const auto tasks = std::make_shared<TasksThatNapLong>();
  std::promise<pid_t> thread;
  ASSERT_TRUE(tasks->AddTask([] { throw std::runtime_error("broken task"); }));
  ASSERT_TRUE(tasks->AddTask([&] { thread.set_value(gettid()); }));
  scheduler.RegisterSchedule(tasks);
  scheduler.Start();
  fakes::SleepWatch watch;
  const pid_t runner = thread.get_future().get();
  ASSERT_TRUE(Eventually([&] { return watch.IsAsleep(runner); }));
  std::atomic<bool> ran{false};
  ASSERT_TRUE(tasks->AddTask([&] { ran = true; }));
  EXPECT_TRUE(StaysUnchanged(ran)) << "one task ends the nap";
  EXPECT_TRUE(tasks->Await(scheduler, [] {}));
  EXPECT_TRUE(ran);
  scheduler.Stop();
}

}  // namespace
}  // namespace zagent::common

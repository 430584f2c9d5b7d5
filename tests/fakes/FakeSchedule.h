#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <limits>
#include <utility>

#include "common/src/tasks/Schedule.h"

namespace zagent::fakes {

// A schedule whose time and work a test sets, and which counts what the Scheduler does with it.
class FakeSchedule final : public common::Schedule {
 public:
  static constexpr std::int64_t kNever = std::numeric_limits<std::int64_t>::max();

  using Work = std::function<void(FakeSchedule&)>;
  explicit FakeSchedule(Work run_work = {}) : work(std::move(run_work)) {}
  ~FakeSchedule() override { Cancel(); }

  [[nodiscard]] std::int64_t NextRunTime() override {
    ++asked;
    return next_time ? next_time() : next.load();
  }
  void Start() override {
    if (start) start();
    common::Schedule::Start();
  }
  void OnClockStep(std::chrono::nanoseconds step) override {
    if (on_step) on_step(step);
  }
  void OnRegistered() override { ++registered; }
  void OnUnregistered() override { ++unregistered; }

  // What the end of a concrete schedule's Execute does.
  void Finish() { common::Schedule::Execute(); }

  Work work;
  std::function<void()> start;  // called before each start
  std::function<void(std::chrono::nanoseconds)> on_step;
  std::function<std::int64_t()> next_time;  // instead of `next`
  std::atomic<std::int64_t> next{kNever};
  std::atomic<int> asked{0};
  std::atomic<int> started{0};
  std::atomic<int> ended{0};
  std::atomic<int> cancelled{0};
  std::atomic<int> registered{0};
  std::atomic<int> unregistered{0};

 protected:
  void Execute() override {
    ++started;
    if (work) work(*this);
    ++ended;
    Finish();
  }
  void OnCancel() override { ++cancelled; }
};

}  // namespace zagent::fakes

#pragma once

#include <unistd.h>

#include <atomic>
#include <fstream>
#include <functional>
#include <future>
#include <string>
#include <utility>

#include "tests/fakes/Gate.h"

namespace zagent::fakes {

// Looks at a thread of this process as the kernel tells of it.
class SleepWatch {
 public:
  // Whether the thread is found asleep, as at the look before, without having been awake in between.
  [[nodiscard]] bool IsAsleep(pid_t thread) {
    const std::string now = Status(thread);
    const bool asleep = now.find("State:\tS") != std::string::npos && now == before_;
    before_ = now;
    return asleep;
  }

 private:
  // The lines that tell whether it runs and how often it has gone to sleep.
  static std::string Status(pid_t thread) {
    std::ifstream status("/proc/self/task/" + std::to_string(thread) + "/status");
    std::string lines;
    for (std::string line; std::getline(status, line);) {
      if (line.rfind("State:", 0) == 0 || line.find("ctxt_switches:") != std::string::npos) lines += line + "\n";
    }
    return lines;
  }

  std::string before_;
};

// A call on a thread of its own, of which a test can know that it waits: the kernel says so.
//
//   SleepingCall<bool> call([&] { return tasks->Await(scheduler, [] {}); });
//   ASSERT_TRUE(call.AwaitAsleep());
//
// The call's end is waited for when this goes.
template <typename Value>
class SleepingCall {
 public:
  explicit SleepingCall(std::function<Value()> call)
      : value_(std::async(std::launch::async, [this, call = std::move(call)] {
          thread_ = gettid();
          return call();
        })) {}

  // Until the thread is found asleep at two looks without having been awake in between. False when it ended instead.
  [[nodiscard]] bool AwaitAsleep() {
    SleepWatch watch;
    return Eventually([&] { return IsReady() || watch.IsAsleep(thread_); }) && !IsReady();
  }
  [[nodiscard]] bool IsReady() const { return value_.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }
  [[nodiscard]] bool AwaitEnd() const { return value_.wait_for(kTestPatience) == std::future_status::ready; }
  Value Get() { return value_.get(); }

 private:
  std::atomic<pid_t> thread_{0};
  std::future<Value> value_;
};

}  // namespace zagent::fakes

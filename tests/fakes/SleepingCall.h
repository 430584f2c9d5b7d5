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
    std::string before;
    return Eventually([&] {
             if (IsReady()) return true;
             const std::string now = Status();
             const bool asleep = now.find("State:\tS") != std::string::npos && now == before;
             before = now;
             return asleep;
           }) &&
           !IsReady();
  }
  [[nodiscard]] bool IsReady() const { return value_.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }
  [[nodiscard]] bool AwaitEnd() const { return value_.wait_for(kTestPatience) == std::future_status::ready; }
  Value Get() { return value_.get(); }

 private:
  // The lines that tell whether it runs and how often it has gone to sleep.
  [[nodiscard]] std::string Status() const {
    std::ifstream status("/proc/self/task/" + std::to_string(thread_) + "/status");
    std::string lines;
    for (std::string line; std::getline(status, line);) {
      if (line.rfind("State:", 0) == 0 || line.find("ctxt_switches:") != std::string::npos) lines += line + "\n";
    }
    return lines;
  }

  std::atomic<pid_t> thread_{0};
  std::future<Value> value_;
};

}  // namespace zagent::fakes

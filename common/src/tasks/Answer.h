#pragma once

#include <exception>
#include <functional>
#include <utility>

#include "common/src/util/Log.h"

namespace zagent::common {

// Calls a callback exactly once: with the value that a task gives, or with a fallback when the task that should have
// found one is gone (refused, taken back, ended with an exception). An empty callback is never called.
//
// Its task alone owns it, or a task that fails at once would be answered on the thread that still posts it:
//
//   auto answer = std::make_shared<Answer<bool>>(std::move(callback), [] { return false; });
//   tasks->AddTask([this, answer = std::move(answer)] { answer->Give(Clear()); });
template <typename Value>
class Answer {
 public:
  Answer(std::function<void(Value)> callback, std::function<Value()> fallback)
      : callback_(std::move(callback)), fallback_(std::move(fallback)) {}
  Answer(const Answer&) = delete;
  Answer& operator=(const Answer&) = delete;
  ~Answer() {
    if (!callback_) return;
    try {
      Give(fallback_());
    } catch (const std::exception& error) {
      ZLOG_ERROR("Failed to execute background task: " << error.what());
    }
  }

  void Give(Value value) {
    const auto callback = std::exchange(callback_, nullptr);
    if (callback) callback(std::move(value));
  }

 private:
  std::function<void(Value)> callback_;
  std::function<Value()> fallback_;
};

}  // namespace zagent::common

#pragma once

#include <atomic>
#include <thread>

#include "common/src/util/UniqueFd.h"

namespace zagent::common {

// A descriptor that becomes readable when somebody calls Notify, to wake a thread that waits for descriptors.
class WakeUp {
 public:
  // Throws HttpException when the kernel gives no descriptor.
  WakeUp();

  [[nodiscard]] int GetFd() const { return fd_.Get(); }
  // The calling thread is the one that sleeps here from now on, until the next call.
  void Claim() { sleeper_ = std::this_thread::get_id(); }
  // True on the thread that has claimed this: it must not wait for its own work.
  [[nodiscard]] bool IsClaimedByThisThread() const { return sleeper_ == std::this_thread::get_id(); }

  // From any thread. Several notifications before the next Drain are one.
  void Notify();
  void Drain();
  // Blocks until Notify, at most `timeout_ms`; -1 waits for ever. Does not drain.
  void Wait(int timeout_ms);

 private:
  util::UniqueFd fd_;
  std::atomic<std::thread::id> sleeper_{};
};

}  // namespace zagent::common

#pragma once

#include "common/src/util/UniqueFd.h"

namespace zagent::common {

// A descriptor that becomes readable when somebody calls Notify, to wake a thread that waits for descriptors.
class WakeUp {
 public:
  // Throws HttpException when the kernel gives no descriptor.
  WakeUp();

  [[nodiscard]] int GetFd() const { return fd_.Get(); }
  // From any thread. Several notifications before the next Drain are one.
  void Notify();
  void Drain();
  // Blocks until Notify, at most `timeout_ms`; -1 waits for ever. Does not drain.
  void Wait(int timeout_ms);

 private:
  util::UniqueFd fd_;
};

}  // namespace zagent::common

#include "common/src/tasks/RememberedTime.h"

#include <algorithm>

namespace zagent::common {

void RememberedTime::Set(std::chrono::nanoseconds ahead) {
  // The clock is read under the lock: a time that was taken before a step is never stored after its Move.
  const std::lock_guard lock(mutex_);
  ahead_ = ahead.count();
  time_ = util::ToNanoseconds(clock_.Now()) + ahead_;
}

void RememberedTime::Move(std::chrono::nanoseconds step) {
  const std::int64_t now = util::ToNanoseconds(clock_.Now());
  const std::lock_guard lock(mutex_);
  if (time_) time_ = std::min(*time_ + step.count(), now + ahead_);
}

std::optional<std::int64_t> RememberedTime::Get() const {
  const std::lock_guard lock(mutex_);
  return time_;
}

}  // namespace zagent::common

#include "src/audit/engine/MissingPathSchedule.h"

#include <algorithm>
#include <utility>

namespace zagent::audit {
namespace {

constexpr std::int64_t kSecond = 1'000'000'000;
constexpr std::int64_t kDay = 86'400 * kSecond;

}  // namespace

MissingPathSchedule::MissingPathSchedule(std::function<bool()> is_looking, std::function<void()> look,
                                         common::util::Clock& clock)
    : is_looking_(std::move(is_looking)),
      look_(std::move(look)),
      clock_(clock),
      last_run_(common::util::ToNanoseconds(clock.Now())) {}

MissingPathSchedule::~MissingPathSchedule() {
  Cancel();
}

std::int64_t MissingPathSchedule::NextRunTime() {
  const std::int64_t now = common::util::ToNanoseconds(clock_.Now());
  return is_looking_() ? std::max(now, last_run_ + kSecond) : now + kDay;
}

void MissingPathSchedule::OnClockStep(std::chrono::nanoseconds step) {
  last_run_ = std::min(last_run_ + step.count(), common::util::ToNanoseconds(clock_.Now()));
}

void MissingPathSchedule::Execute() {
  look_();
  last_run_ = common::util::ToNanoseconds(clock_.Now());
  Schedule::Execute();
}

}  // namespace zagent::audit

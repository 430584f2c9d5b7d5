#include "common/src/util/Clock.h"

#include <algorithm>
#include <array>
#include <ctime>

namespace zagent::common::util {
namespace {

class RealClock final : public Clock {
 public:
  [[nodiscard]] SystemTime Now() const override { return std::chrono::system_clock::now(); }
  [[nodiscard]] SteadyTime SteadyNow() const override { return std::chrono::steady_clock::now(); }
  bool WaitUntil(std::condition_variable& condition, std::unique_lock<std::mutex>& lock, SystemTime deadline,
                 const std::function<bool()>& predicate) override {
    return condition.wait_until(lock, deadline, predicate);
  }
};

}  // namespace

bool Clock::WaitOnEitherClock(std::condition_variable& condition, std::unique_lock<std::mutex>& lock,
                              std::chrono::nanoseconds duration, const std::function<bool()>& predicate) {
  using std::chrono::nanoseconds;
  constexpr nanoseconds kBetweenLooks = std::chrono::seconds(1);
  const SystemTime wall_end = Now() + std::chrono::duration_cast<SystemTime::duration>(duration);
  const SteadyTime steady_end = SteadyNow() + std::chrono::duration_cast<SteadyTime::duration>(duration);
  for (;;) {
    const nanoseconds left = std::min<nanoseconds>(wall_end - Now(), steady_end - SteadyNow());
    if (left <= nanoseconds::zero()) return predicate();
    if (WaitFor(condition, lock, std::min(left, kBetweenLooks), predicate)) return true;
  }
}

Clock& Clock::Real() {
  static RealClock clock;
  return clock;
}

std::string FormatUtc(std::int64_t nanoseconds_since_epoch) {
  const std::time_t seconds = static_cast<std::time_t>(nanoseconds_since_epoch / 1'000'000'000);
  std::tm parts{};
  if (gmtime_r(&seconds, &parts) == nullptr) return "";
  std::array<char, 40> text{};
  const std::size_t length = std::strftime(text.data(), text.size(), "%FT%TZ", &parts);
  return std::string(text.data(), length);
}

}  // namespace zagent::common::util

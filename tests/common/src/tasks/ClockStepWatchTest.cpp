#include "common/src/tasks/ClockStepWatch.h"

#include <gtest/gtest.h>

namespace zagent::common {
namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;

// Two clocks that a test moves one by one.
class TwoClocks final : public util::Clock {
 public:
  nanoseconds system = hours(24 * 365 * 50);
  nanoseconds steady = hours(1);

  void Pass(nanoseconds duration) {
    system += duration;
    steady += duration;
  }

  [[nodiscard]] SystemTime Now() const override { return SystemTime(system); }
  [[nodiscard]] SteadyTime SteadyNow() const override { return SteadyTime(steady); }
  bool WaitUntil(std::condition_variable&, std::unique_lock<std::mutex>&, SystemTime,
                 const std::function<bool()>& predicate) override {
    return predicate();
  }
};

class ClockStepWatchTest : public ::testing::Test {
 protected:
  TwoClocks clock_;
  ClockStepWatch watch_{clock_};
};

TEST_F(ClockStepWatchTest, TimeThatPassesIsNoStep) {
  for (const nanoseconds passed : {nanoseconds(0), nanoseconds(seconds(1)), nanoseconds(hours(30))}) {
    clock_.Pass(passed);
    EXPECT_EQ(watch_.Check(), std::nullopt);
  }
}

TEST_F(ClockStepWatchTest, TellsAStepEitherWayOnce) {
  for (const nanoseconds step : {nanoseconds(hours(24)), nanoseconds(hours(-24)), nanoseconds(milliseconds(5001))}) {
    clock_.Pass(seconds(1));
    clock_.system += step;
    EXPECT_EQ(watch_.Check(), step);
    EXPECT_EQ(watch_.Check(), std::nullopt) << "told twice";
  }
}

TEST_F(ClockStepWatchTest, ASlewIsNoStepHoweverLongItLasts) {
  for (int i = 0; i < 100; ++i) {
    clock_.Pass(seconds(1));
    clock_.system += seconds(5);
    EXPECT_EQ(watch_.Check(), std::nullopt);
  }
  clock_.system -= seconds(500);
  EXPECT_EQ(watch_.Check(), seconds(-500));
}

}  // namespace
}  // namespace zagent::common

#include "src/audit/events/IntakeCounters.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <thread>
#include <vector>

namespace zagent::audit {
namespace {

using Reason = IntakeCounters::Reason;

TEST(IntakeCountersTest, CountsEachReasonByItself) {
  IntakeCounters counters;
  counters.Add(Reason::BytesAtBound, 70'000);
  counters.Add(Reason::NotBuilt);
  counters.Add(Reason::NotBuilt);
  EXPECT_EQ(counters.Get(Reason::BytesAtBound), 70'000U);
  EXPECT_EQ(counters.Get(Reason::NotBuilt), 2U);
  EXPECT_EQ(counters.Get(Reason::LeftAtStop), 0U);
  EXPECT_EQ(counters.Take(), (IntakeCounters::Snapshot{70'000, 0, 2, 0, 0, 0, 0, 0}));
}

TEST(IntakeCountersTest, LosesNoCountOfAnyThread) {
  IntakeCounters counters;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int n = 0; n < 10'000; ++n) counters.Add(Reason::UnsupportedCall);
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(counters.Get(Reason::UnsupportedCall), 40'000U);
}

TEST(IntakeCountersTest, TellsOnlyWhatWasCounted) {
  IntakeCounters counters;
  EXPECT_EQ(IntakeCounters::Describe(counters.Take()), "");
  counters.Add(Reason::FileReplaced);
  counters.Add(Reason::NotBuilt, 3);
  EXPECT_EQ(IntakeCounters::Describe(counters.Take()),
            "events that could not be built: 3, events of replaced files: 1");
}

TEST(IntakeCountersTest, HasANameForEveryReason) {
  std::set<std::string> names;
  for (std::size_t i = 0; i < IntakeCounters::kReasonCount; ++i) {
    names.insert(IntakeCounters::NameOf(static_cast<Reason>(i)));
  }
  EXPECT_EQ(names.size(), IntakeCounters::kReasonCount);
  EXPECT_EQ(names.count("unknown"), 0U);
}

}  // namespace
}  // namespace zagent::audit

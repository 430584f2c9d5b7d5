#include "tests/fakes/VirtualOrder.h"

#include <gtest/gtest.h>

#include "common/src/tasks/Schedule.h"
#include "common/src/tasks/ThreadedClass.h"

namespace zagent::common {
namespace {

using fakes::VirtualSlot;

// Opens what only derived classes may name.
class OpenTask : public AsyncTask {
 public:
  using AsyncTask::Execute;
  using AsyncTask::OnCancel;
};
class OpenThread : public ThreadedClass {
 public:
  using ThreadedClass::Execute;
  using ThreadedClass::OnStart;
  using ThreadedClass::OnStop;
};

TEST(VirtualOrderTest, AsyncTaskHasItsWorkFirstAndItsStartBehindTheDestructors) {
  EXPECT_EQ(VirtualSlot(&OpenTask::Execute), 0U);
  EXPECT_EQ(VirtualSlot(&OpenTask::OnCancel), 1U);
  EXPECT_EQ(VirtualSlot(&AsyncTask::Start), 4U);
}

TEST(VirtualOrderTest, ScheduleAddsItsThreeRightBehindThem) {
  EXPECT_EQ(VirtualSlot(&Schedule::Start), 4U);
  EXPECT_EQ(VirtualSlot(&Schedule::OnRegistered), 5U);
  EXPECT_EQ(VirtualSlot(&Schedule::OnUnregistered), 6U);
  EXPECT_EQ(VirtualSlot(&Schedule::NextRunTime), 7U);
}

TEST(VirtualOrderTest, ThreadedClassHasItsTurnThenStartAndStop) {
  EXPECT_EQ(VirtualSlot(&OpenThread::Execute), 0U);
  EXPECT_EQ(VirtualSlot(&OpenThread::OnStart), 1U);
  EXPECT_EQ(VirtualSlot(&OpenThread::OnStop), 2U);
}

}  // namespace
}  // namespace zagent::common

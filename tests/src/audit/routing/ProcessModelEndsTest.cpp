#include <chrono>
#include <filesystem>
#include <optional>

#include "tests/src/audit/routing/ProcessModelFixture.h"

namespace zagent::audit::internal {
namespace {

using namespace std::chrono_literals;
using edr::EventType;
using Pids = std::vector<std::int32_t>;

// Who has gone, and whose pid came again.
class ProcessModelEndsTest : public ProcessModelFixture {};

TEST_F(ProcessModelEndsTest, AProcessThatVanishedIsReportedWithinThirtyMinutes) {
  Run(1, 0);
  Run(42, 1);
  Handle(Write(42));
  lines_.clear();
  proc_.End(42);
  clock_.Advance(1799s);
  model_.Clean(*this);
  EXPECT_TRUE(lines_.empty());
  clock_.Advance(1s);
  model_.Clean(*this);
  ASSERT_EQ(lines_, (Lines{"flush 42", "Exit 42"}));
  EXPECT_EQ(passed_.back()->GetType(), EventType::ProcessExit);
  EXPECT_EQ(passed_.back()->GetImage()->GetPath(), program_);
  EXPECT_FALSE(model_.Tree().Contains(42));
  EXPECT_TRUE(model_.Tree().Contains(1));
}

TEST_F(ProcessModelEndsTest, AProcessWhosePidCameAgainIsReportedToo) {
  proc_.Start(42, {.ppid = 0, .image = program_, .start = 100});
  Handle(Exec(42, 0));
  auto another_program = Exec(42, 0);
  another_program->timestamp = TimeOf(kNow + 60);
  Handle(std::move(another_program));
  clock_.Advance(1800s);
  model_.Clean(*this);
  EXPECT_TRUE(model_.Tree().Contains(42)) << "long-lived, whatever the times of its programs";

  proc_.Start(42, {.ppid = 0, .image = program_, .start = 102});
  clock_.Advance(1800s);
  model_.Clean(*this);
  EXPECT_EQ(lines_.back(), "Exit 42");
  EXPECT_FALSE(model_.Tree().Contains(42));
}

TEST_F(ProcessModelEndsTest, AStartByAnotherProcessOfThePidEndsTheOneBefore) {
  Handle(Exec(1, 0));
  proc_.Start(42, {.ppid = 1, .image = program_, .start = 100});
  Handle(Exec(42, 1));
  Handle(Exec(50, 42));
  lines_.clear();
  proc_.Start(42, {.ppid = 1, .image = program_, .start = 100.5});
  auto another = Exec(42, 1);
  another->timestamp = TimeOf(kNow + 60);
  Handle(std::move(another));
  EXPECT_EQ(lines_, (Lines{"flush 42", "Exit 42", "Execve 42"}));
  EXPECT_EQ(Ancestors(50), (Pids{50, 1})) << "the child of the dead is init's";
  EXPECT_EQ(model_.Tree().Get(42).GetCreationTime(), TimeOf(kNow + 60));
  EXPECT_EQ(model_.Tree().Get(42).GetStartSinceBoot(), 100'500'000'000);
}

TEST_F(ProcessModelEndsTest, WhatProcfsSaysOfANewProcessGoesOnWithItsStart) {
  Handle(Exec(1, 0));
  proc_.Start(42, {.ppid = 1, .image = program_, .start = 100});
  Handle(Exec(42, 1));
  ASSERT_TRUE(passed_.back()->GetActorStart());
  EXPECT_EQ(passed_.back()->GetActorStart()->since_boot, 100'000'000'000);
  Handle(Exec(42, 1));
  EXPECT_FALSE(passed_.back()->GetActorStart()) << "it runs another program, and nobody has asked";
  Handle(Exec(50, 1));
  ASSERT_TRUE(passed_.back()->GetActorStart());
  EXPECT_EQ(passed_.back()->GetActorStart()->since_boot, std::nullopt) << "it has ended";
}

TEST_F(ProcessModelEndsTest, AForkOnAPidThatCameAgainEndsTheOneBefore) {
  Handle(Exec(1, 0));
  Handle(Exec(7, 1));
  proc_.Start(42, {.ppid = 1, .image = program_, .start = 100});
  Handle(Exec(42, 1));
  lines_.clear();
  proc_.Start(42, {.ppid = 7, .image = program_, .start = 200});
  Handle(CloneOf(42, 7));
  EXPECT_EQ(lines_, (Lines{"flush 42", "Exit 42"}));
  EXPECT_FALSE(model_.Tree().Contains(42));
  proc_.End(42);  // and the new one is gone before it is heard of
  Handle(Exec(50, 42));
  EXPECT_EQ(Ancestors(50), (Pids{50, 42, 7, 1})) << "known by its clone, not as the one before";
}

TEST_F(ProcessModelEndsTest, ACloneThatIsHeardOfAfterTheStartOfItsChildEndsNobody) {
  Handle(Exec(7, 0));
  proc_.Start(42, {.ppid = 7, .image = program_, .start = 100});
  Handle(Exec(42, 7));
  lines_.clear();
  Handle(CloneOf(42, 7));
  EXPECT_TRUE(lines_.empty());
  EXPECT_TRUE(model_.Tree().Contains(42));
}

TEST_F(ProcessModelEndsTest, AnEndOfTheOneBeforeThatFailsDoesNotStopTheStart) {
  proc_.Start(42, {.ppid = 0, .image = program_, .start = 100});
  Handle(Exec(42, 0));
  proc_.Start(42, {.ppid = 0, .image = program_, .start = 200});
  lines_.clear();
  refused_ = {42};
  EXPECT_THROW(Handle(Exec(42, 0)), std::logic_error) << "of the start itself";
  EXPECT_EQ(lines_, (Lines{"flush 42", "Exit 42", "Execve 42"}));
  EXPECT_TRUE(model_.Tree().Contains(42));
}

TEST_F(ProcessModelEndsTest, WhoHasThePidLongAfterAStartSaysNothingOfIt) {
  proc_.Start(42, {.ppid = 0, .image = program_, .start = 100});
  Handle(Exec(42, 0));
  proc_.Start(42, {.ppid = 0, .image = program_, .start = kNow + 100});
  Handle(Exec(42, 0));
  proc_.End(42);
  Handle(Exec(42, 0));
  EXPECT_EQ(lines_, (Lines{"Execve 42", "Execve 42", "Execve 42"}));
}

TEST_F(ProcessModelEndsTest, WhoeverHasTakenThePidBeforeTheStartWasReadIsNotTheProcess) {
  proc_.Start(42, {.ppid = 0, .image = program_, .start = kNow + 30});
  Handle(Exec(42, 0));
  EXPECT_EQ(model_.Tree().Get(42).GetStartSinceBoot(), std::nullopt);
  clock_.Advance(1800s);
  model_.Clean(*this);
  EXPECT_EQ(lines_, (Lines{"Execve 42", "flush 42", "Exit 42"}));
}

TEST_F(ProcessModelEndsTest, AMachineThatTellsNoBootTimeLosesNoProcess) {
  proc_.Start(42, {.ppid = 0, .image = program_});
  std::filesystem::remove(proc_.Root() + "/stat");
  Handle(Exec(42, 0));
  EXPECT_EQ(lines_, (Lines{"Execve 42"}));
  clock_.Advance(1800s);
  model_.Clean(*this);
  EXPECT_TRUE(model_.Tree().Contains(42));
}

TEST_F(ProcessModelEndsTest, ABootTimeThatMovesIsNoticedWithinASecond) {
  proc_.Start(42, {.ppid = 0, .image = program_, .start = kNow + 10});
  Handle(Exec(42, 0));
  EXPECT_EQ(model_.Tree().Get(42).GetStartSinceBoot(), std::nullopt);
  proc_.SetBootTime(fakes::FakeProcFs::kBootTime - 20);  // somebody has set the clock
  proc_.Start(43, {.ppid = 0, .image = program_, .start = kNow + 10});
  clock_.Advance(1s);
  Handle(Exec(43, 0));
  EXPECT_NE(model_.Tree().Get(43).GetStartSinceBoot(), std::nullopt);
}

TEST_F(ProcessModelEndsTest, OneEndThatFailsDoesNotKeepTheOthersFromTheirs) {
  Handle(Exec(10, 0));
  Handle(Exec(20, 0));
  refused_ = {10, 20};
  clock_.Advance(1800s);
  model_.Clean(*this);
  EXPECT_EQ(model_.Tree().GetSize(), 0U);
  EXPECT_EQ(log_.Count("Failed to process exit event: a component fails"), 2);
}

TEST_F(ProcessModelEndsTest, LostEventsMakeTheClonesDoubtfulNotTheTree) {
  Handle(Exec(1, 0));
  Handle(CloneOf(42, 1));
  model_.Invalidate();
  Handle(Exec(50, 42));
  EXPECT_EQ(lines_, (Lines{"Execve 1", "Execve 50"}));
  EXPECT_TRUE(model_.Tree().Contains(1));

  Handle(CloneOf(43, 1));
  Handle(Exec(51, 43));
  EXPECT_EQ(lines_.back(), "Execve 51");
  EXPECT_TRUE(model_.Tree().Contains(43)) << "once";
}

}  // namespace
}  // namespace zagent::audit::internal

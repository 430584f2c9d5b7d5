#include "src/audit/routing/ProcessModel.h"

#include "tests/src/audit/routing/ProcessModelFixture.h"

namespace zagent::audit::internal {
namespace {

using edr::EventType;
using Pids = std::vector<std::int32_t>;
using Reason = IntakeCounters::Reason;

class ProcessModelTest : public ProcessModelFixture {};

// What starts and ends.

TEST_F(ProcessModelTest, EntersAStartAndLetsItGoOn) {
  Run(1, 0);
  Handle(Exec(42, 1));
  EXPECT_EQ(lines_, (Lines{"Execve 1", "Execve 42"}));
  EXPECT_EQ(Ancestors(42), (Pids{42, 1}));
}

TEST_F(ProcessModelTest, AForkAloneReachesNobody) {
  Run(7, 1);
  Handle(CloneOf(42, 7));
  EXPECT_TRUE(lines_.empty());
  EXPECT_EQ(model_.Tree().GetSize(), 0U);
}

TEST_F(ProcessModelTest, AnotherProgramDoesNotCutAFamilyApart) {
  Handle(Exec(1, 0));
  Handle(Exec(10, 1));
  Handle(Exec(20, 10));
  Handle(Exec(30, 20));
  auto again = Exec(20, 10);
  again->timestamp = TimeOf(kNow + 50);
  Handle(std::move(again));
  EXPECT_EQ(Ancestors(30), (Pids{30, 20, 10, 1}));
  EXPECT_EQ(model_.Tree().Get(1).GetChildren(), (std::unordered_set<std::int32_t>{10}));
  EXPECT_EQ(model_.Tree().Get(20).GetCreationTime(), TimeOf(kNow)) << "the process is as old as it was";
}

TEST_F(ProcessModelTest, AnEndFlushesWhatRestsThenGoesOnThenTheProcessIsForgotten) {
  Handle(Exec(1, 0));
  Handle(Exec(10, 1));
  Handle(Exec(20, 10));
  lines_.clear();
  Handle(Exit(10));
  EXPECT_EQ(lines_, (Lines{"flush 10", "Exit 10"}));
  EXPECT_TRUE(was_known_at_flush_);
  EXPECT_FALSE(model_.Tree().Contains(10));
  EXPECT_EQ(Ancestors(20), (Pids{20, 1})) << "an orphan is init's";
}

TEST_F(ProcessModelTest, AProcessIsForgottenEvenIfNobodyCanTakeItsEnd) {
  Handle(Exec(10, 1));
  refused_ = {10};
  EXPECT_THROW(Handle(Exit(10)), std::logic_error);
  EXPECT_FALSE(model_.Tree().Contains(10));
}

TEST_F(ProcessModelTest, AnAbnormalEndIsAnEnd) {
  Handle(Exec(10, 1));
  auto abend = ProcessEvent(EventType::AbnormalEnd, "Abort", 10, -1);
  abend->image.reset();
  Handle(std::move(abend));
  EXPECT_EQ(lines_.back(), "Abort 10");
  EXPECT_FALSE(model_.Tree().Contains(10));
}

TEST_F(ProcessModelTest, TheEndOfAProcessThatNobodyKnowsIsIgnored) {
  Run(10, 1);
  Handle(Exit(10));
  Handle(Exit(0));
  Handle(ProcessEvent(EventType::AbnormalEnd, "Abort", -7, -1));
  EXPECT_TRUE(lines_.empty());
  EXPECT_EQ(passed_over_, (Pids{10, 0, -7}));
  EXPECT_EQ(model_.Tree().GetSize(), 0U);
}

TEST_F(ProcessModelTest, TheEndTakesTheCloneAlong) {
  Handle(Exec(42, 1));
  Handle(CloneOf(42, 7));
  Handle(Exit(42));
  lines_.clear();
  auto exec = Exec(50, 42);
  Handle(std::move(exec));
  EXPECT_EQ(lines_, (Lines{"Execve 50"}));
}

TEST_F(ProcessModelTest, AStartWithoutAnIdEntersNothing) {
  Handle(Exec(0, -1));
  EXPECT_EQ(lines_, (Lines{"Execve 0"}));
  EXPECT_EQ(model_.Tree().GetSize(), 0U);
}

TEST_F(ProcessModelTest, AnActorWithoutAnIdIsNotLookedFor) {
  Handle(Write(0));
  Handle(Write(-3));
  EXPECT_EQ(lines_, (Lines{"Write 0", "Write -3"}));
  EXPECT_FALSE(log_.Has("Not found Actor PID"));
}

// Who was there before.

TEST_F(ProcessModelTest, AProcessThatWasThereBeforeStartsBeforeItsFirstEvent) {
  proc_.Start(42, {.ppid = 0, .image = program_, .arguments = {"vi", "x"}, .cwd = "/srv", .uid = 7, .start = 100});
  auto write = Write(42);
  write->auid = 1000;
  Handle(std::move(write));
  ASSERT_EQ(lines_, (Lines{"Execve 42", "Write 42"}));
  const edr::Event& start = *passed_[0];
  EXPECT_EQ(start.GetType(), EventType::ProcessStart);
  EXPECT_EQ(start.GetId(), 0U);
  EXPECT_EQ(start.GetTimestamp(), TimeOf(100));
  EXPECT_EQ(start.GetActorProcessArguments(), (Lines{"vi", "x"}));
  EXPECT_EQ(start.GetActorAuid(), 1000U);
  EXPECT_EQ(start.GetActorUserId(), 7U);
  EXPECT_EQ(start.GetImage()->GetPath(), program_);
  EXPECT_EQ(model_.Tree().Get(42).GetCwd(), "/srv");
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_TRACE, "Not found Actor PID: 42 in process tree, creating actor process"));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_TRACE, "Creating actor process from ProcFS: 42"));

  Handle(Write(42));
  EXPECT_EQ(lines_, (Lines{"Execve 42", "Write 42", "Write 42"})) << "once";
}

TEST_F(ProcessModelTest, EveryMissingAncestorStartsFromTheTopDown) {
  Run(1, 0);
  Run(10, 1);
  Run(20, 10);
  Run(30, 20);
  Handle(Write(30));
  EXPECT_EQ(lines_, (Lines{"Execve 1", "Execve 10", "Execve 20", "Execve 30", "Write 30"}));
  EXPECT_EQ(Ancestors(30), (Pids{30, 20, 10, 1}));
}

TEST_F(ProcessModelTest, AStartNeedsItsParentOnly) {
  Run(7, 0);
  Run(42, 7);
  Handle(Exec(42, 7));
  EXPECT_EQ(lines_, (Lines{"Execve 7", "Execve 42"}));
}

TEST_F(ProcessModelTest, AParentBelongsToItsOwnLogin) {
  proc_.Start(1, {.ppid = 0, .image = program_, .login_uid = "4294967295"});
  proc_.Start(10, {.ppid = 1, .image = program_});
  auto write = Write(10);
  write->auid = 1000;
  Handle(std::move(write));
  EXPECT_EQ(model_.Tree().Get(10).GetAuid(), 1000U);
  EXPECT_EQ(model_.Tree().Get(1).GetAuid(), 4294967295U);
  EXPECT_FALSE(passed_[0]->IsElevated()) << "init is nobody's";

  proc_.Start(20, {.ppid = 0, .image = program_});
  auto exec = Exec(30, 20);
  exec->auid = 33;
  Handle(std::move(exec));
  EXPECT_EQ(model_.Tree().Get(20).GetAuid(), 33U) << "where the kernel does not tell, the child's";
}

TEST_F(ProcessModelTest, AnEventOfAThreadIsGivenToItsProcess) {
  proc_.Start(42, {.ppid = 0, .image = program_});
  proc_.Start(43, {.ppid = 0, .image = program_, .tgid = 42});
  Handle(Write(43));
  EXPECT_EQ(lines_, (Lines{"Execve 42", "Write 42"}));
  EXPECT_FALSE(model_.Tree().Contains(43));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_TRACE, "Detected that Event has thread id 43 instead of process id 42"));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_TRACE, "Updating Event with process id 42"));

  Handle(Write(43));
  EXPECT_EQ(lines_.size(), 3U) << "the process does not start twice";
  EXPECT_EQ(lines_.back(), "Write 42");
}

TEST_F(ProcessModelTest, ProcfsCountsOnlyForWhoWasThereWhenItHappened) {
  proc_.Start(42, {.ppid = 9, .image = folder_.Write("later", "x"), .start = kNow + 1.5});
  Handle(Write(42, 0));
  ASSERT_EQ(lines_, (Lines{"Execve 42", "Write 42"}));
  EXPECT_EQ(model_.Tree().Get(42).GetImage()->GetPath(), program_) << "the event's own word";

  proc_.Start(43, {.ppid = 0, .image = folder_.Write("same", "x"), .start = kNow + 0.9});
  Handle(Write(43, 0));
  EXPECT_EQ(model_.Tree().Get(43).GetImage()->GetPath(), folder_ / "same") << "an event's time is cut to a second";
}

TEST_F(ProcessModelTest, WhoHasEndedAndWaitsForHisParentIsKnownByTheEvent) {
  proc_.Start(42, {.ppid = 0, .image = "", .arguments = {}});
  Handle(Write(42, 0));
  EXPECT_EQ(model_.Tree().Get(42).GetImage()->GetPath(), program_);
}

TEST_F(ProcessModelTest, WhoIsGoneIsKnownByTheEvent) {
  Run(7, 0);
  auto write = Write(42, 7);
  write->uid = 5;
  write->euid = 6;
  Handle(std::move(write));
  EXPECT_EQ(lines_, (Lines{"Execve 7", "Execve 42", "Write 42"}));
  EXPECT_EQ(model_.Tree().Get(42).GetUserId(), 5U);
  EXPECT_EQ(model_.Tree().Get(42).GetEuid(), 6U);
  EXPECT_EQ(passed_[1]->GetTimestamp(), TimeOf(kNow));
  EXPECT_EQ(Ancestors(42), (Pids{42, 7}));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_TRACE, "Creating process from Event data: 42"));
}

TEST_F(ProcessModelTest, AForkThatActsIsFoundInProcfsWhileItLives) {
  Run(7, 0);
  Handle(CloneOf(42, 7));
  proc_.Start(42, {.ppid = 7, .image = program_, .arguments = {"sh", "-x"}});
  Handle(Write(42, 7));
  EXPECT_EQ(lines_, (Lines{"Execve 7", "Execve 42", "Write 42"}));
  EXPECT_EQ(model_.Tree().Get(42).GetArguments(), (Lines{"sh", "-x"}));
  EXPECT_FALSE(log_.Has("Creating process from Clone Cache"));
}

TEST_F(ProcessModelTest, WhoIsGoneWithHisProgramIsKnownByHisClone) {
  Run(7, 0);
  auto clone = CloneOf(42, 7);
  clone->timestamp = TimeOf(kNow - 5);
  Handle(std::move(clone));
  auto write = Write(42, 7);
  write->image = common::ImageInfo("/nowhere/program");
  Handle(std::move(write));
  EXPECT_EQ(lines_, (Lines{"Execve 7", "Execve 42", "Write 42"}));
  EXPECT_EQ(passed_[1]->GetTimestamp(), TimeOf(kNow - 5));
  EXPECT_EQ(model_.Tree().Get(42).GetImage()->GetPath(), program_);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_TRACE, "Creating process from Clone Cache: 42"));
}

TEST_F(ProcessModelTest, AParentThatIsGoneIsKnownByItsClone) {
  Run(7, 0);
  Handle(CloneOf(20, 7));
  Handle(Exec(30, 20));
  EXPECT_EQ(lines_, (Lines{"Execve 7", "Execve 20", "Execve 30"}));
  EXPECT_EQ(Ancestors(30), (Pids{30, 20, 7}));
  EXPECT_FALSE(log_.Has("Creating process from Event data")) << "an event knows its actor, not the actor's parent";
}

TEST_F(ProcessModelTest, AnEventWhoseActorNobodyKnowsGoesOn) {
  auto write = Write(42, 7);
  write->image = common::ImageInfo("/nowhere/program");
  Handle(std::move(write));
  EXPECT_EQ(lines_, (Lines{"Write 42"}));
  EXPECT_EQ(model_.Tree().GetSize(), 0U);
  EXPECT_TRUE(log_.Has("Process with pid 42 does not exist in Clone Cache"));
}

TEST_F(ProcessModelTest, AStartThatFailsDoesNotStopTheEvent) {
  Run(7, 0);
  Run(42, 7);
  refused_ = {7};
  Handle(Write(42));
  EXPECT_EQ(lines_, (Lines{"Execve 7", "Execve 42", "Write 42"}));
  EXPECT_EQ(counters_.Get(Reason::NotProcessed), 1U);
  EXPECT_TRUE(log_.Has("Failed to process event with ID 0: a component fails"));
}

TEST_F(ProcessModelTest, TellsOfAContainersProcess) {
  Run(42, 0);
  Run(43, 0);
  containers_ = {42};
  Handle(Write(42));
  Handle(Write(43));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG, "Creating pseudo event for container process 42"));
  EXPECT_EQ(log_.Count("Creating pseudo event for container process"), 1);
}

TEST_F(ProcessModelTest, AsksForAContainerWhenTheAncestorsAreKnown) {
  Run(7, 0);
  Run(42, 7);
  Run(43, 42);
  Handle(Write(43));
  EXPECT_EQ(ancestors_when_asked_, (std::map<std::int32_t, Pids>{{7, {7}}, {42, {42, 7}}, {43, {43, 42, 7}}}));
}

TEST_F(ProcessModelTest, ForgetsTheClonesOfATimeThatItHasNotSeen) {
  Handle(CloneOf(42, 7));
  model_.Resume();
  auto event = Write(42);
  event->image.reset();
  Handle(std::move(event));
  EXPECT_FALSE(model_.Tree().Contains(42)) << "by now the pid may be another's";
}

TEST_F(ProcessModelTest, ParentsInARingEndTheSearch) {
  Run(10, 20);
  Run(20, 10);
  Handle(Write(10));
  EXPECT_EQ(lines_, (Lines{"Execve 20", "Execve 10", "Write 10"}));
  EXPECT_EQ(Ancestors(10), (Pids{10, 20}));
}

TEST_F(ProcessModelTest, ATowerOfProcessesIsClimbedSoFarOnly) {
  Poco::Logger::get("edr").setLevel(Poco::Message::PRIO_INFORMATION);
  for (std::int32_t pid = 2; pid <= 1'200; ++pid) Run(pid, pid - 1);
  Handle(Write(1'200));
  EXPECT_EQ(model_.Tree().GetSize(), 1'000U);
  EXPECT_EQ(lines_.front(), "Execve 201");
  EXPECT_EQ(lines_.back(), "Write 1200");
}

}  // namespace
}  // namespace zagent::audit::internal

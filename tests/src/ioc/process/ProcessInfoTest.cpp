#include "src/ioc/process/ProcessInfo.h"

#include <gtest/gtest.h>

#include <limits>

#include "tests/fakes/FakeEvent.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/WhatOf.h"

namespace zagent::ioc {
namespace {

std::unique_ptr<fakes::FakeEvent> Start(std::int32_t pid = 100) {
  auto event = std::make_unique<fakes::FakeEvent>();
  event->type = edr::EventType::ProcessStart;
  event->object_type = edr::ObjectType::Process;
  event->action = "Execve";
  event->pid = pid;
  event->ppid = 42;
  event->arguments = {"sh", "-c", ""};
  event->auid = 1000;
  event->uid = 1001;
  event->euid = 1002;
  event->cwd = "/srv";
  event->timestamp = 1'700'000'123'000'000'000;
  event->image = common::ImageInfo("08:01", 755, 77, "/bin/sh", 5, "tty", "root", 6, "text");
  event->secondary_image = common::ImageInfo("/srv/script");
  return event;
}

std::unique_ptr<fakes::FakeEvent> Write(std::uint32_t id) {
  auto event = std::make_unique<fakes::FakeEvent>(edr::EventType::Write, "Write", "/etc/passwd");
  event->id = id;
  return event;
}

std::vector<std::uint32_t> Ids(const std::vector<std::unique_ptr<edr::Event>>& events) {
  std::vector<std::uint32_t> ids;
  for (const auto& event : events) ids.push_back(event->GetId());
  return ids;
}

TEST(ProcessInfoTest, AStartTellsWhoTheProcessIs) {
  const ProcessInfo process(Start(), nullptr);
  EXPECT_EQ(process.GetPid(), 100);
  EXPECT_EQ(process.GetParent(), 42);
  EXPECT_EQ(process.GetArguments(), (std::vector<std::string>{"sh", "-c", ""}));
  EXPECT_EQ(process.GetAuid(), 1000U);
  EXPECT_EQ(process.GetUserId(), 1001U);
  EXPECT_EQ(process.GetEuid(), 1002U);
  EXPECT_EQ(process.GetCwd(), "/srv");
  EXPECT_EQ(process.GetCreationTime(), 1'700'000'123'000'000'000);
  EXPECT_EQ(process.GetImage()->GetPath(), "/bin/sh");
  EXPECT_EQ(process.GetImage()->GetInode(), 77U);
  ASSERT_TRUE(process.HasSecondaryImage());
  EXPECT_EQ(process.GetSecondaryImage()->GetPath(), "/srv/script");
}

TEST(ProcessInfoTest, AProgramWithoutAnInterpreterHasNoSecondaryImage) {
  auto start = Start();
  start->secondary_image.reset();
  const ProcessInfo process(std::move(start), nullptr);
  EXPECT_FALSE(process.HasSecondaryImage());
  EXPECT_EQ(process.GetSecondaryImage(), nullptr);
}

TEST(ProcessInfoTest, AStartWithoutAnImageGivesAnEmptyPath) {
  auto start = Start();
  start->image.reset();
  const ProcessInfo process(std::move(start), nullptr);
  EXPECT_EQ(process.GetImage()->GetPath(), "");
}

TEST(ProcessInfoTest, ANegativePidIsNone) {
  EXPECT_EQ(fakes::WhatOf<common::ProcessInfoException>([] { const ProcessInfo process(Start(-5), nullptr); }),
            "ProcesInfo: pid cannot be negative");
}

TEST(ProcessInfoTest, TheStartIsTheFirstEventThatWaits) {
  ProcessInfo process(Start(), nullptr);
  process.AddEvent(Write(2));
  process.AddEvent(Write(3));
  EXPECT_EQ(process.GetLastEvent().GetId(), 3U);
  EXPECT_EQ(Ids(process.TakeEvents()), (std::vector<std::uint32_t>{1, 2, 3}));
  EXPECT_TRUE(process.TakeEvents().empty());
  EXPECT_FALSE(process.HasEvents());
}

TEST(ProcessInfoTest, WithoutEventsThereIsNoLastOne) {
  const ProcessInfo process(ProcessInfo::Description{.pid = 7}, nullptr);
  EXPECT_EQ(fakes::WhatOf<common::ProcessInfoException>([&] { static_cast<void>(process.GetLastEvent()); }),
            "Failed to get last event for process with pid 7");
}

TEST(ProcessInfoTest, ItCallsBackOnceWhenSoManyEventsWait) {
  std::vector<std::int32_t> full;
  ProcessInfo process(Start(), [&](std::int32_t pid) { full.push_back(pid); });
  for (std::size_t i = 1; i < ProcessInfo::kMaxCachedEvents - 1; ++i) process.AddEvent(Write(2));
  EXPECT_TRUE(full.empty());
  process.AddEvent(Write(3));
  EXPECT_EQ(full, std::vector<std::int32_t>{100});
  process.AddEvent(Write(4));
  EXPECT_EQ(full.size(), 1U);
}

TEST(ProcessInfoTest, ItCallsBackAgainWhenTheNextEventsAreAsMany) {
  int calls = 0;
  ProcessInfo process(Start(), [&](std::int32_t) { ++calls; });
  for (int round = 1; round <= 3; ++round) {
    while (calls < round) process.AddEvent(Write(2));
    EXPECT_EQ(process.TakeEvents().size(), ProcessInfo::kMaxCachedEvents);
  }
}

TEST(ProcessInfoTest, TheCallbackMayTakeTheEvents) {
  ProcessInfo* known = nullptr;
  std::size_t taken = 0;
  ProcessInfo process(Start(), [&](std::int32_t) { taken = known->TakeEvents().size(); });
  known = &process;
  for (std::size_t i = 1; i < ProcessInfo::kMaxCachedEvents; ++i) process.AddEvent(Write(2));
  EXPECT_EQ(taken, ProcessInfo::kMaxCachedEvents);
}

TEST(ProcessInfoTest, TheEventsOfItsPredecessorComeFirst) {
  ProcessInfo old(Start(), nullptr);
  old.AddEvent(Write(2));
  auto start = Start();
  start->id = 3;
  ProcessInfo process(std::move(start), nullptr);
  process.TakeEventsOf(old);
  EXPECT_FALSE(old.HasEvents());
  EXPECT_EQ(process.GetLastEvent().GetId(), 3U);
  EXPECT_EQ(Ids(process.TakeEvents()), (std::vector<std::uint32_t>{1, 2, 3}));
}

TEST(ProcessInfoTest, TheEventsOfItsPredecessorCanBeOneTooMany) {
  int calls = 0;
  const auto count = [&](std::int32_t) { ++calls; };
  ProcessInfo old(Start(), count);
  for (std::size_t i = 1; i < ProcessInfo::kMaxCachedEvents - 1; ++i) old.AddEvent(Write(2));
  ProcessInfo process(Start(), count);
  process.TakeEventsOf(old);
  EXPECT_EQ(calls, 1);
}

TEST(ProcessInfoTest, APredecessorAtTheBoundHasCalledBackItself) {
  int calls = 0;
  const auto count = [&](std::int32_t) { ++calls; };
  ProcessInfo old(Start(), count);
  for (std::size_t i = 1; i < ProcessInfo::kMaxCachedEvents; ++i) old.AddEvent(Write(2));
  ProcessInfo process(Start(), count);
  process.TakeEventsOf(old);
  EXPECT_EQ(calls, 1);
}

TEST(ProcessInfoTest, TheHeapOfItsEventsIsPartOfTheSumWhileTheyWait) {
  const auto sum = std::make_shared<ProcessInfo::Usage>();
  sum->events = 1'000;
  {
    ProcessInfo process(Start(), nullptr);
    process.CountIn(sum);
    const std::size_t first = process.GetCachedBytes();
    EXPECT_GT(first, sizeof(fakes::FakeEvent));
    EXPECT_EQ(sum->events, 1'000 + first);
    process.AddEvent(Write(2));
    EXPECT_GT(process.GetCachedBytes(), first);
    EXPECT_EQ(sum->events, 1'000 + process.GetCachedBytes());
    EXPECT_EQ(process.TakeEvents().size(), 2U);
    EXPECT_EQ(process.GetCachedBytes(), 0U);
    EXPECT_EQ(sum->events, 1'000U);
    process.AddEvent(Write(3));
    ProcessInfo next(Start(), nullptr);
    next.CountIn(sum);
    next.TakeEventsOf(process);
    EXPECT_EQ(sum->events, 1'000 + next.GetCachedBytes());
    EXPECT_EQ(sum->entries, process.GetEntryBytes() + next.GetEntryBytes());
  }
  EXPECT_EQ(sum->entries, 0U);
  EXPECT_EQ(sum->events, 1'000U);
}

TEST(ProcessInfoTest, TagsHaveAKeyAndPerhapsAValue) {
  ProcessInfo process(Start(), nullptr);
  EXPECT_FALSE(process.HasTag("Reported"));
  EXPECT_EQ(process.FindTag("Reported"), std::nullopt);
  process.AddTag("Reported");
  process.AddTag("HashMatchingVerdict", "Clean");
  process.AddTag("HashMatchingVerdict", "Malicious");
  EXPECT_EQ(process.FindTag("Reported"), "");
  EXPECT_EQ(process.GetTags(), (ProcessInfo::Tags{{"Reported", ""}, {"HashMatchingVerdict", "Malicious"}}));
  const fakes::LogCapture log;
  process.RemoveTag("Reported");
  EXPECT_FALSE(process.HasTag("Reported"));
  EXPECT_TRUE(log.Lines().empty()) << log.All();
}

TEST(ProcessInfoTest, ATagThatIsNotThereCannotBeRemoved) {
  ProcessInfo process(Start(), nullptr);
  const fakes::LogCapture log;
  process.RemoveTag("Reported");
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_ERROR, "[IOC]: Failed to remove tag Reported from process 100")) << log.All();
}

TEST(ProcessInfoTest, TheScoreIsASum) {
  ProcessInfo process(Start(), nullptr);
  EXPECT_EQ(process.GetScore(), 0);
  process.AddScore(40);
  process.AddScore(-50);
  EXPECT_EQ(process.GetScore(), -10);
}

TEST(ProcessInfoTest, AScoreOutOfReachStaysAtTheEnd) {
  ProcessInfo process(Start(), nullptr);
  process.AddScore(std::numeric_limits<std::int64_t>::max());
  process.AddScore(1);
  EXPECT_EQ(process.GetScore(), std::numeric_limits<std::int64_t>::max());
  process.AddScore(std::numeric_limits<std::int64_t>::min());
  process.AddScore(std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(process.GetScore(), std::numeric_limits<std::int64_t>::min());
}

TEST(ProcessInfoTest, TheKeyOfTheHeuristicsIsKeptOnceItIsSet) {
  ProcessInfo process(Start(), nullptr);
  EXPECT_EQ(process.FindHeuristicsKey(), nullptr);
  process.SetHeuristicsKey("/bin/sh");
  const std::string* const key = process.FindHeuristicsKey();
  ASSERT_NE(key, nullptr);
  EXPECT_EQ(*key, "/bin/sh");
  process.SetHeuristicsKey("/bin/another");
  EXPECT_EQ(process.FindHeuristicsKey(), key);
  EXPECT_EQ(*key, "/bin/sh");
}

TEST(ProcessInfoTest, ItIsNotUpdatedByAnEvent) {
  ProcessInfo process(Start(), nullptr);
  EXPECT_EQ(fakes::WhatOf<common::ProcessInfoException>([&] { process.Update(*Start()); }),
            "Update is not implemented");
}

}  // namespace
}  // namespace zagent::ioc

#include <gtest/gtest.h>

#include "tests/src/ioc/process/TreeFixture.h"

namespace zagent::ioc {
namespace {

namespace process_tag = internal::process_tag;
using std::chrono::seconds;
using Ints = std::vector<std::uint32_t>;
using Set = std::set<std::int32_t>;

constexpr const char* kWarning = "[IOC]: TtlProcessTree: ";

class TtlProcessTreeBoundsTest : public TreeFixture {
 protected:
  void Bound(std::size_t processes, std::size_t bytes = 1UL << 30) {
    tree_ = MakeTree({.processes = processes, .bytes = bytes});
  }
  std::size_t SizeOfAnEvent() {
    const auto tree = MakeTree();
    tree->AddEvent(Start(10, 1));
    const std::size_t before = tree->GetCachedBytes();
    tree->AddEvent(Write(10, 1));
    return tree->GetCachedBytes() - before;
  }
};

TEST_F(TtlProcessTreeBoundsTest, UpToTheBoundNobodyIsForgotten) {
  Bound(4);
  for (const std::int32_t pid : {10, 20, 30}) Exec(pid, 1);
  EXPECT_EQ(Expired(), Ints{});
  EXPECT_EQ(Expired(), Ints{});
  EXPECT_EQ(tree_->GetSize(), 4U);
}

TEST_F(TtlProcessTreeBoundsTest, BeyondItTheOldestAreJudgedAndThenForgotten) {
  Bound(4);
  for (const std::int32_t pid : {10, 20, 30, 40, 50}) Exec(pid, 1);
  const fakes::LogCapture log;
  EXPECT_EQ(Expired(), (Ints{1, 2}));
  // Who judges asks for their tags still.
  EXPECT_TRUE(tree_->Has(10));
  EXPECT_TRUE(tree_->Has(20));
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_WARNING, std::string(kWarning) + "6 processes and ")) << log.All();
  EXPECT_TRUE(log.Has(" at most 4 and 1048576 KiB: the oldest are judged early (0) and forgotten (2)")) << log.All();
  EXPECT_EQ(Expired(), Ints{});
  EXPECT_EQ(ChildrenOf(1), (Set{30, 40, 50}));
  EXPECT_EQ(tree_->GetSize(), 4U);
}

TEST_F(TtlProcessTreeBoundsTest, WhoHasEndedGoesBeforeWhoGoesOn) {
  Bound(4);
  Exec(10, 1);
  Exec(20, 1);
  Exec(30, 1);
  tree_->AddEvent(Exit(30, 1));
  Exec(40, 1);
  EXPECT_EQ(Expired(), (Ints{3, 4})) << "the start and the end of 30";
  EXPECT_EQ(Expired(), Ints{});
  EXPECT_EQ(ChildrenOf(1), (Set{10, 20, 40}));
  Exec(50, 1);
  EXPECT_EQ(Expired(), Ints{1}) << "nobody else has ended";
}

TEST_F(TtlProcessTreeBoundsTest, WhoGotThePidOfOneThatHasEndedGoesOn) {
  Bound(3);
  Exec(10, 1);
  Exec(20, 1);
  tree_->AddEvent(Exit(20, 1));
  Exec(20, 1);
  Exec(30, 1);
  Expired();
  EXPECT_EQ(Expired(), Ints{});
  EXPECT_EQ(ChildrenOf(1), (Set{20, 30}));
}

TEST_F(TtlProcessTreeBoundsTest, Process1IsNotForgotten) {
  Bound(1);
  Exec(10, 1);
  Exec(20, 1);
  EXPECT_EQ(Expired(), (Ints{1, 2}));
  EXPECT_EQ(Expired(), Ints{});
  EXPECT_EQ(ChildrenOf(1), Set{});
  EXPECT_EQ(tree_->GetSize(), 1U);
}

TEST_F(TtlProcessTreeBoundsTest, WhoExpiredIsOlderThanWhoHasStartedAnotherProgramSince) {
  Bound(3);
  Exec(10, 1);
  Exec(20, 1);
  clock_.Advance(kTtl);
  EXPECT_EQ(Expired(), (Ints{1, 2}));
  Exec(10, 1, "/bin/cat");
  Exec(30, 1);
  EXPECT_EQ(Expired(), Ints{});
  EXPECT_EQ(Expired(), Ints{});
  EXPECT_EQ(ChildrenOf(1), (Set{10, 30}));
}

TEST_F(TtlProcessTreeBoundsTest, WhatComesAfterTheJudgementIsJudgedBeforeTheProcessIsForgotten) {
  Bound(2);
  Exec(10, 1);
  Exec(20, 1);
  EXPECT_EQ(Expired(), Ints{1});
  tree_->AddEvent(Write(10, 1));
  EXPECT_EQ(Expired(), Ints{3});
  EXPECT_TRUE(tree_->Has(10));
  EXPECT_EQ(Expired(), Ints{});
  EXPECT_FALSE(tree_->Has(10));
}

TEST_F(TtlProcessTreeBoundsTest, WhoIsReplacedBeforeHeIsForgottenStays) {
  Bound(2);
  Exec(10, 1);
  Exec(20, 1);
  EXPECT_EQ(Expired(), Ints{1});
  Exec(10, 1, "/bin/cat");  // the youngest now, and one is still too many
  EXPECT_EQ(Expired(), Ints{2});
  EXPECT_EQ(Expired(), Ints{});
  EXPECT_EQ(ChildrenOf(1), Set{10});
}

TEST_F(TtlProcessTreeBoundsTest, ThoseBelowOneThatIsForgottenGoUnderProcess1) {
  Bound(2);
  Exec(10, 1);
  Exec(20, 10);
  EXPECT_EQ(Expired(), Ints{1});
  EXPECT_EQ(Expired(), Ints{});
  EXPECT_EQ(ParentOf(20), 1);
  EXPECT_EQ(ChildrenOf(1), Set{20});
}

TEST_F(TtlProcessTreeBoundsTest, WhoWasForgottenIsUnknown) {
  Bound(2);
  Exec(10, 1);
  Exec(20, 1);
  EXPECT_EQ(Expired(), Ints{1});
  EXPECT_EQ(Expired(), Ints{});
  EXPECT_THROW(tree_->AddEvent(Write(10, 1)), TtlProcessTreeException);
  Exec(10, 1);
  EXPECT_EQ(tree_->Get(10)->GetLastEvent().GetId(), 4U);
}

TEST_F(TtlProcessTreeBoundsTest, AForgottenProcessOfProcfsIsNotLookedForAnyMore) {
  Bound(2);
  proc_.Start(5, {.start = 10});
  Exec(10, 5);
  EXPECT_EQ(Expired(), Ints{});
  EXPECT_EQ(Expired(), Ints{});
  EXPECT_FALSE(tree_->Has(5));
  proc_.End(5);
  tree_->DeleteStaleProcesses();
  EXPECT_EQ(tree_->GetSize(), 2U);
}

TEST_F(TtlProcessTreeBoundsTest, AChildThatIsNotThereHindersNobody) {
  Bound(2);
  Exec(10, 1);
  Exec(20, 1);
  tree_->Get(10)->AddChild(999);
  EXPECT_EQ(Expired(), Ints{1});
  EXPECT_EQ(Expired(), Ints{});
  EXPECT_FALSE(tree_->Has(10));
}

TEST_F(TtlProcessTreeBoundsTest, ItIsToldOnceAMinuteWithTheNumbers) {
  Bound(2);
  Exec(10, 1);
  const fakes::LogCapture log;
  for (std::int32_t pid = 11; pid < 21; ++pid) {
    Exec(pid, 1);
    Expired();
    clock_.Advance(seconds(1));
  }
  EXPECT_EQ(log.Count(kWarning), 1) << log.All();
  EXPECT_TRUE(log.Has("forgotten (1)"));
  clock_.Advance(seconds(50));
  Exec(30, 1);
  Expired();
  EXPECT_EQ(log.Count(kWarning), 2) << log.All();
  EXPECT_TRUE(log.Has("forgotten (10)")) << log.All();
  clock_.Advance(seconds(60));
  Expired();
  EXPECT_EQ(log.Count(kWarning), 2);
}

TEST_F(TtlProcessTreeBoundsTest, ManyTooManyAreForgottenInOneGo) {
  Bound(20'000);
  for (std::int32_t pid = 2; pid <= 60'000; ++pid) Exec(pid, 1);
  EXPECT_EQ(Expired().size(), 40'000U);
  EXPECT_EQ(Expired(), Ints{});
  EXPECT_EQ(tree_->GetSize(), 20'000U);
  EXPECT_FALSE(tree_->Has(40'001));
  EXPECT_TRUE(tree_->Has(40'002));
}

TEST_F(TtlProcessTreeBoundsTest, TheOldestEventsAreJudgedEarlyWhenThereAreTooMany) {
  const std::size_t bytes = SizeOfAnEvent();
  Bound(100, 85 * bytes);  // the allocator rounds some events up a little more than others
  for (const std::int32_t pid : {10, 20, 30}) Exec(pid, 1);
  clock_.Advance(kTtl);
  EXPECT_EQ(Expired().size(), 3U);
  const fakes::LogCapture log;
  for (int i = 0; i < 40; ++i) tree_->AddEvent(Write(20, 1));
  for (int i = 0; i < 40; ++i) tree_->AddEvent(Write(30, 1));
  EXPECT_EQ(Expired(), Ints{});
  for (int i = 0; i < 10; ++i) tree_->AddEvent(Write(10, 1));
  const Ints judged = Expired();
  EXPECT_EQ(judged.size(), 50U);  // of 10 and 20, the oldest, and down to seven eighths of the bound
  EXPECT_TRUE(tree_->Get(30)->HasEvents());
  EXPECT_FALSE(tree_->Get(10)->HasEvents());
  EXPECT_EQ(tree_->GetCachedBytes(), tree_->Get(30)->GetCachedBytes());
  EXPECT_EQ(tree_->GetSize(), 4U);
  EXPECT_TRUE(log.Has("the oldest are judged early (2) and forgotten (0)")) << log.All();
  EXPECT_EQ(Expired(), Ints{});
}

TEST_F(TtlProcessTreeBoundsTest, LongArgumentsAreBoundedAsWell) {
  const std::size_t kibibyte = 1024;
  tree_ = MakeTree({.entry_bytes = 64 * kibibyte});
  const auto start = [&](std::int32_t pid, std::size_t length) {
    auto event = Start(pid, 1);
    event->arguments = {"sh", std::string(length, 'x')};
    tree_->AddEvent(std::move(event));
  };
  start(10, 20 * kibibyte);
  start(20, 20 * kibibyte);
  EXPECT_EQ(Expired(), Ints{});
  EXPECT_GE(tree_->GetEntryBytes(), 40 * kibibyte);
  EXPECT_LE(tree_->GetEntryBytes(), 44 * kibibyte);
  const fakes::LogCapture log;
  start(30, 30 * kibibyte);
  EXPECT_EQ(Expired(), Ints{1}) << "the oldest is enough";
  EXPECT_EQ(Expired(), Ints{});
  EXPECT_EQ(ChildrenOf(1), (Set{20, 30}));
  EXPECT_TRUE(log.Has("judged early (0) and forgotten (1); ")) << log.All();
  EXPECT_TRUE(log.Has(" KiB are known of them, at most 64 KiB")) << log.All();
  EXPECT_LE(tree_->GetEntryBytes(), 64 * kibibyte);
  tree_->AddEvent(Exit(30, 1));
  start(40, 20 * kibibyte);
  EXPECT_EQ(Expired(), (Ints{3, 4})) << "who has ended goes before who goes on";
  EXPECT_EQ(Expired(), Ints{});
  EXPECT_EQ(ChildrenOf(1), (Set{20, 40}));
}

TEST_F(TtlProcessTreeBoundsTest, WhatIsKnownOfAProcessLeavesTheSumWithIt) {
  const auto start = [&](const std::string& argument) {
    auto event = Start(10, 1);
    event->arguments = {argument};
    event->cwd = std::string(1'000, 'd');
    event->secondary_image = common::ImageInfo(std::string(2'000, 'i'));
    tree_->AddEvent(std::move(event));
  };
  start(std::string(50'000, 'x'));
  const std::size_t with_init = tree_->GetEntryBytes();
  EXPECT_GE(with_init, 53'000U);
  EXPECT_LE(with_init, 55'000U);
  start("short");  // another program
  EXPECT_LE(tree_->GetEntryBytes(), with_init - 49'000);
}

TEST_F(TtlProcessTreeBoundsTest, EventsThatLeaveAreNoPartOfTheSum) {
  Exec(10, 1);
  Exec(20, 1);
  tree_->AddEvent(Write(20, 1));
  EXPECT_EQ(tree_->GetCachedBytes(), tree_->Get(10)->GetCachedBytes() + tree_->Get(20)->GetCachedBytes());
  EXPECT_EQ(tree_->GetEventsFromCache(20).GetSize(), 2U);
  EXPECT_EQ(tree_->GetCachedBytes(), tree_->Get(10)->GetCachedBytes());
  Exec(10, 1, "/bin/cat");
  EXPECT_EQ(tree_->GetCachedBytes(), tree_->Get(10)->GetCachedBytes());
  EXPECT_EQ(tree_->GetEventsFromCache(1).GetSize(), 2U);
  EXPECT_EQ(tree_->GetCachedBytes(), 0U);
}

TEST_F(TtlProcessTreeBoundsTest, TheBoundsAreAHundredThousandProcessesAndThreeQuartersOfAGigabyte) {
  const TtlProcessTree::Bounds bounds;
  EXPECT_EQ(bounds.processes, 100'000U);
  EXPECT_EQ(bounds.bytes, 536'870'912U);
  EXPECT_EQ(bounds.entry_bytes, 268'435'456U);
}

}  // namespace
}  // namespace zagent::ioc

#include "src/ioc/process/TtlProcessTree.h"

#include "tests/src/ioc/process/TreeFixture.h"

namespace zagent::ioc {
namespace {

namespace process_tag = internal::process_tag;
using edr::EventType;
using std::chrono::seconds;
using Ints = std::vector<std::uint32_t>;
using Set = std::set<std::int32_t>;

class TtlProcessTreeTest : public TreeFixture {};

// Entering

TEST_F(TtlProcessTreeTest, AStartEntersItsProcessUnderItsParent) {
  Exec(10, 1);
  Exec(20, 10, "/bin/cat");
  EXPECT_TRUE(tree_->Has(20));
  EXPECT_EQ(tree_->Get(20)->GetImage()->GetPath(), "/bin/cat");
  EXPECT_EQ(ParentOf(20), 10);
  EXPECT_EQ(ChildrenOf(10), Set{20});
  EXPECT_EQ(ChildrenOf(1), Set{10});
  EXPECT_EQ(tree_->GetSize(), 3U);
}

TEST_F(TtlProcessTreeTest, EveryEventIsTold) {
  const fakes::LogCapture log;
  Exec(10, 1);
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, "[IOC]: Adding Execve Event: 1 with PID:10")) << log.All();
}

TEST_F(TtlProcessTreeTest, Process1ComesFromProcfsWithTheFirstProcess) {
  EXPECT_EQ(tree_->GetSize(), 0U);
  Exec(10, 1);
  EXPECT_EQ(tree_->Get(1)->GetImage()->GetPath(), "/sbin/init");
  EXPECT_EQ(ParentOf(1), common::ProcessInfo::kNoParent);
  EXPECT_EQ(tree_->Get(1)->GetCreationTime(), kBoot + kSecond);
}

TEST_F(TtlProcessTreeTest, WithoutProcess1ThereIsNobodyToHangAProcessUnder) {
  proc_.End(1);
  EXPECT_EQ(fakes::WhatOf<common::GenericProcessTreeException>([&] { Exec(10, 7); }),
            "Ppid: 7 does not exist for process: 10");
  EXPECT_EQ(tree_->GetSize(), 0U);
}

TEST_F(TtlProcessTreeTest, Process1MayTellOfItsOwnStart) {
  proc_.End(1);
  Exec(1, 0, "/sbin/init");
  EXPECT_EQ(ParentOf(1), common::ProcessInfo::kNoParent);
  Exec(10, 1);
  EXPECT_EQ(ChildrenOf(1), Set{10});
}

TEST_F(TtlProcessTreeTest, MissingAncestorsComeFromProcfsWhileTheyLive) {
  proc_.Start(5, {.ppid = 1, .image = "/usr/sbin/sshd", .start = 10, .login_uid = "1000"});
  proc_.Start(6, {.ppid = 5, .image = "/bin/bash", .start = 20});
  Exec(10, 6);
  EXPECT_EQ(tree_->GetAncestors(10), (std::map<std::int32_t, std::string>{
                                         {10, "/bin/sh"}, {6, "/bin/bash"}, {5, "/usr/sbin/sshd"}, {1, "/sbin/init"}}));
  EXPECT_EQ(ChildrenOf(5), Set{6});
  EXPECT_EQ(tree_->Get(5)->GetAuid(), 1000U);
  EXPECT_EQ(tree_->Get(6)->GetAuid(), 4294967295U);
  EXPECT_FALSE(tree_->Get(6)->HasEvents());
}

TEST_F(TtlProcessTreeTest, WhenAProcessStartedIsAskedUnlessTheEventSaysIt) {
  proc_.Start(10, {.start = 500});
  const auto started = [this](std::unique_ptr<fakes::FakeEvent> start) {
    const std::int32_t pid = start->pid;
    tree_->AddEvent(std::move(start));
    return tree_->Get(pid)->GetStartSinceBoot();
  };
  EXPECT_EQ(started(Start(10, 1)), 500 * kSecond);
  tree_ = MakeTree();
  auto told = Start(10, 1);
  told->SetActorStart(400 * kSecond);
  EXPECT_EQ(started(std::move(told)), 400 * kSecond);
  auto another_program = Start(10, 1, "/bin/cat");
  another_program->SetActorStart(300 * kSecond);
  EXPECT_EQ(started(std::move(another_program)), 400 * kSecond) << "it is the same process";
  tree_ = MakeTree();
  auto gone = Start(10, 1);
  gone->SetActorStart(std::nullopt);
  EXPECT_EQ(started(std::move(gone)), std::nullopt) << "another has the pid by now";
}

TEST_F(TtlProcessTreeTest, WhoseParentIsGoneHangsUnderProcess1) {
  Exec(10, 7);
  EXPECT_EQ(ParentOf(10), 1);
  EXPECT_EQ(ChildrenOf(1), Set{10});
}

TEST_F(TtlProcessTreeTest, WhoStartedAfterAProcessIsNotItsParent) {
  proc_.Start(7, {.start = 1'002});  // another one got the pid
  Exec(10, 7);
  EXPECT_EQ(ParentOf(10), 1);
  EXPECT_FALSE(tree_->Has(7));
}

TEST_F(TtlProcessTreeTest, ParentsThatFormARingEndUnderProcess1) {
  proc_.Start(5, {.ppid = 6});
  proc_.Start(6, {.ppid = 5});
  Exec(10, 5);
  EXPECT_EQ(tree_->GetAncestors(10).size(), 4U);
  EXPECT_EQ(ParentOf(10), 5);
  EXPECT_EQ(ParentOf(5), 6);
  EXPECT_EQ(ParentOf(6), 1);
}

TEST_F(TtlProcessTreeTest, AnAncestorThatIsTheProcessItselfIsNone) {
  proc_.Start(5, {.ppid = 10});
  Exec(10, 5);
  EXPECT_EQ(ParentOf(10), 5);
  EXPECT_EQ(ParentOf(5), 1);
}

TEST_F(TtlProcessTreeTest, WhoNamesHimselfAsHisParentHangsUnderProcess1) {
  Exec(10, 10);
  EXPECT_EQ(ParentOf(10), 1);
}

TEST_F(TtlProcessTreeTest, AnEventOfAnUnknownProcessIsRefused) {
  Exec(10, 1);
  EXPECT_EQ(fakes::WhatOf<TtlProcessTreeException>([&] { tree_->AddEvent(Write(11, 1)); }),
            "Event id: 2 cannot be added as actor process information is not available");
  EXPECT_FALSE(tree_->Has(11));
  clock_.Advance(kTtl);
  EXPECT_EQ(Expired(), Ints{1});
}

TEST_F(TtlProcessTreeTest, AStartWithoutAPidIsRefused) {
  EXPECT_EQ(fakes::WhatOf<TtlProcessTreeException>([&] { Exec(0, 1); }),
            "Event id: 1 cannot be added as actor process information is not available");
  EXPECT_THROW(Exec(-3, 1), TtlProcessTreeException);
  EXPECT_EQ(tree_->GetSize(), 0U);
}

TEST_F(TtlProcessTreeTest, AProcessThatIsNotThereCannotBeHad) {
  EXPECT_FALSE(tree_->Has(10));
  EXPECT_EQ(fakes::WhatOf<common::GenericProcessTreeException>([&] { static_cast<void>(tree_->Get(10)); }),
            "ProcessInfo for pid 10 does not exist");
  EXPECT_THROW(static_cast<void>(tree_->GetChildren(10)), common::GenericProcessTreeException);
  EXPECT_THROW(static_cast<void>(tree_->GetSiblings(10)), common::GenericProcessTreeException);
  EXPECT_THROW(static_cast<void>(tree_->GetEventsFromCache(10)), common::GenericProcessTreeException);
  EXPECT_THROW(static_cast<void>(tree_->GetDescendantEvents(10)), common::GenericProcessTreeException);
  EXPECT_THROW(tree_->ExpireProcess(10), common::GenericProcessTreeException);
}

// Another program

TEST_F(TtlProcessTreeTest, AnotherProgramKeepsTheEventsAndTheChildrenButNoVerdict) {
  Exec(10, 1);
  Exec(20, 10);
  tree_->Get(10)->AddTag(process_tag::kHashMatchingVerdict, "Clean");
  tree_->Get(10)->AddScore(50);
  tree_->Get(10)->SetHeuristicsKey("key");
  tree_->AddEvent(Write(10, 1));
  Exec(10, 1, "/bin/evil");
  const auto process = tree_->Get(10);
  EXPECT_EQ(process->GetImage()->GetPath(), "/bin/evil");
  EXPECT_TRUE(process->GetTags().empty());
  EXPECT_EQ(process->GetScore(), 0);
  EXPECT_EQ(process->FindHeuristicsKey(), nullptr);
  EXPECT_EQ(ChildrenOf(10), Set{20});
  EXPECT_EQ(ParentOf(20), 10);
  EXPECT_EQ(ChildrenOf(1), Set{10});
  EXPECT_EQ(process->GetLastEvent().GetId(), 4U);
  clock_.Advance(kTtl);
  EXPECT_EQ(Expired(), (Ints{1, 2, 3, 4}));
}

TEST_F(TtlProcessTreeTest, AnotherProgramOfAProcessWhoseEventsWereTakenIsJudgedInItsOwnTime) {
  Exec(10, 1);
  clock_.Advance(seconds(100));
  EXPECT_EQ(Ids(tree_->GetEventsFromCache(10)), Ints{1});
  Exec(10, 1, "/bin/cat");
  clock_.Advance(seconds(19));
  EXPECT_EQ(Expired(), Ints{});
}

TEST_F(TtlProcessTreeTest, AnotherProgramMayComeUnderAnotherParent) {
  Exec(10, 1);
  Exec(20, 1);
  Exec(30, 10);
  Exec(30, 20);
  EXPECT_EQ(ParentOf(30), 20);
  EXPECT_EQ(ChildrenOf(10), Set{});
  EXPECT_EQ(ChildrenOf(20), Set{30});
}

TEST_F(TtlProcessTreeTest, WhoStartsBelowAChildOfHisPidIsAnotherProcess) {
  Exec(10, 1);
  Exec(20, 10);
  Exec(30, 20);
  Exec(10, 30);  // the end of the first one was lost
  EXPECT_EQ(ParentOf(10), 30);
  EXPECT_EQ(ParentOf(30), 20);
  EXPECT_EQ(ParentOf(20), 1);
  EXPECT_EQ(ChildrenOf(10), Set{});
  EXPECT_EQ(ChildrenOf(1), Set{20});
}

TEST_F(TtlProcessTreeTest, Process1KeepsItsChildrenWithAnotherProgram) {
  Exec(10, 1);
  Exec(20, 1);
  Exec(1, 0, "/sbin/init2");
  EXPECT_EQ(ChildrenOf(1), (Set{10, 20}));
  EXPECT_EQ(ParentOf(10), 1);
  EXPECT_EQ(ParentOf(1), common::ProcessInfo::kNoParent);
}

TEST_F(TtlProcessTreeTest, TheLastOfTooManyEventsMayBeAnotherProgram) {
  Exec(10, 1);
  for (std::size_t i = 1; i < ProcessInfo::kMaxCachedEvents - 1; ++i) tree_->AddEvent(Write(10, 1));
  EXPECT_EQ(Expired(), Ints{});
  Exec(10, 1, "/bin/cat");
  EXPECT_EQ(Expired().size(), ProcessInfo::kMaxCachedEvents);
}

// A start that was made up

TEST_F(TtlProcessTreeTest, AMadeUpStartOfAKnownProcessJoinsItsEvents) {
  proc_.Start(5, {.image = "/bin/bash", .start = 10});
  Exec(10, 5);
  tree_->Get(5)->AddTag(process_tag::kReported);
  tree_->Get(5)->AddScore(7);
  tree_->AddEvent(MadeUpStart(5, 1, kBoot + 10 * kSecond, "/bin/bash"));
  EXPECT_TRUE(tree_->Get(5)->HasTag(process_tag::kReported));
  EXPECT_EQ(tree_->Get(5)->GetScore(), 7);
  EXPECT_EQ(tree_->Get(5)->GetLastEvent().GetType(), EventType::ProcessStart);
  EXPECT_EQ(ChildrenOf(5), Set{10});
}

TEST_F(TtlProcessTreeTest, AMadeUpStartIsThatOfAKnownProcessWithinLessThanTwoSeconds) {
  const std::int64_t start = kBoot + 10 * kSecond;
  for (const std::int64_t apart : {2 * kSecond - 1, -2 * kSecond + 1}) {
    tree_ = MakeTree();
    tree_->AddEvent(MadeUpStart(5, 1, start));
    tree_->Get(5)->AddTag(process_tag::kReported);
    tree_->AddEvent(MadeUpStart(5, 1, start + apart));
    EXPECT_TRUE(tree_->Get(5)->HasTag(process_tag::kReported)) << apart;
  }
  for (const std::int64_t apart : {2 * kSecond, -2 * kSecond}) {
    tree_ = MakeTree();
    tree_->AddEvent(MadeUpStart(5, 1, start));
    tree_->Get(5)->AddTag(process_tag::kReported);
    tree_->AddEvent(MadeUpStart(5, 1, start + apart));
    EXPECT_FALSE(tree_->Get(5)->HasTag(process_tag::kReported)) << apart;
    EXPECT_EQ(tree_->Get(5)->GetCreationTime(), start + apart);
  }
}

TEST_F(TtlProcessTreeTest, AMadeUpStartOfAnotherProgramReplacesTheProcess) {
  tree_->AddEvent(MadeUpStart(5, 1, kBoot, "/bin/bash"));
  tree_->Get(5)->AddTag(process_tag::kHashMatchingVerdict, "Clean");
  tree_->AddEvent(MadeUpStart(5, 1, kBoot, "/bin/evil"));
  EXPECT_EQ(tree_->Get(5)->GetImage()->GetPath(), "/bin/evil");
  EXPECT_FALSE(tree_->Get(5)->HasTag(process_tag::kHashMatchingVerdict));
}

TEST_F(TtlProcessTreeTest, AProgramThatWasReplacedOnDiskIsStillTheSame) {
  auto start = Start(5, 1);
  start->id = 0;
  start->image = common::ImageInfo("08:01", 755, 77, "/bin/bash", 0, "root", "root", 0, "");
  auto again = std::make_unique<fakes::FakeEvent>(*start);
  again->image->SetPath("/bin/bash (deleted)");
  tree_->AddEvent(std::move(start));
  tree_->Get(5)->AddTag(process_tag::kReported);
  tree_->AddEvent(std::move(again));
  EXPECT_TRUE(tree_->Get(5)->HasTag(process_tag::kReported));
}

TEST_F(TtlProcessTreeTest, AMadeUpStartDoesNotBringAnEndedProcessBack) {
  tree_->AddEvent(MadeUpStart(5, 1, kBoot));
  tree_->AddEvent(Exit(5, 1));
  tree_->AddEvent(MadeUpStart(5, 1, kBoot));
  EXPECT_FALSE(tree_->Get(5)->HasTag(process_tag::kTerminated));
}

// New parents

TEST_F(TtlProcessTreeTest, WhoIsHandedToProcess1KeepsTagsAndScore) {
  Exec(10, 1);
  Exec(20, 10);
  tree_->Get(20)->AddTag(process_tag::kReported);
  tree_->Get(20)->AddScore(5);
  const fakes::LogCapture log;
  tree_->AddEvent(Write(20, 1));
  EXPECT_EQ(ParentOf(20), 1);
  EXPECT_EQ(ChildrenOf(10), Set{});
  EXPECT_EQ(ChildrenOf(1), (Set{10, 20}));
  EXPECT_TRUE(tree_->Get(20)->HasTag(process_tag::kReported));
  EXPECT_EQ(tree_->Get(20)->GetScore(), 5);
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_INFORMATION, "[IOC]: Updating Parent of PID: 20")) << log.All();
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_INFORMATION, "[IOC]: Old Parent PID: 10"));
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_INFORMATION, "[IOC]: New Parent PID: 1"));
}

TEST_F(TtlProcessTreeTest, AnyOtherParentOfAnEventChangesNothing) {
  Exec(10, 1);
  Exec(20, 10);
  Exec(30, 1);
  const fakes::LogCapture log;
  tree_->AddEvent(Write(20, 30));
  tree_->AddEvent(Write(30, 1));
  tree_->AddEvent(Write(1, 0));
  EXPECT_EQ(ParentOf(20), 10);
  EXPECT_FALSE(log.Has("Updating Parent of PID")) << log.All();
}

TEST_F(TtlProcessTreeTest, AnAbnormalEndKnowsNoParent) {
  Exec(10, 1);
  Exec(20, 10);
  auto abend = Event(EventType::AbnormalEnd, 20, 1);
  abend->object_type = edr::ObjectType::Process;
  tree_->AddEvent(std::move(abend));
  EXPECT_EQ(ParentOf(20), 10);
  EXPECT_TRUE(tree_->Get(20)->HasTag(process_tag::kTerminated));
}

// Taking events

TEST_F(TtlProcessTreeTest, TheEventsOfAProcessLeaveWithThoseOfItsChildren) {
  Exec(10, 1);   // 1
  Exec(20, 10);  // 2
  Exec(30, 20);  // 3
  Exec(40, 1);   // 4
  tree_->AddEvent(Write(10, 1));
  const fakes::LogCapture log;
  EXPECT_EQ(Ids(tree_->GetEventsFromCache(10)), (Ints{1, 2, 5}));
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, "[IOC]: Adding Events from cache for PID: 10")) << log.All();
  EXPECT_TRUE(log.Has("Adding Events from cache for PID: 20"));
  EXPECT_EQ(Ids(tree_->GetEventsFromCache(10)), Ints{});
  EXPECT_EQ(Ids(tree_->GetEventsFromCache(30)), Ints{3});
  EXPECT_EQ(Ids(tree_->GetEventsFromCache(40)), Ints{4});
}

TEST_F(TtlProcessTreeTest, TheEventsOfManyChildrenLeaveWithTheirParents) {
  Exec(10, 1);  // 1
  for (std::int32_t pid = 20; pid < 40; ++pid) Exec(pid, 10);
  EXPECT_EQ(Ids(tree_->GetEventsFromCache(10)).size(), 21U);
  tree_->AddEvent(Write(25, 10));
  EXPECT_EQ(Ids(tree_->GetEventsFromCache(10)), Ints{22});
}

TEST_F(TtlProcessTreeTest, TheEventsOfAllBelowAProcessLeaveTogether) {
  Exec(10, 1);   // 1
  Exec(20, 10);  // 2
  Exec(30, 20);  // 3
  Exec(40, 1);   // 4
  EXPECT_EQ(Ids(tree_->GetDescendantEvents(10)), (Ints{1, 2, 3}));
  EXPECT_EQ(Ids(tree_->GetDescendantEvents(1)), Ints{4});
}

// Expiry

TEST_F(TtlProcessTreeTest, EventsAreDueWhenTheProcessHasLivedForItsTime) {
  Exec(10, 1);
  clock_.Advance(seconds(119) + std::chrono::milliseconds(999));
  EXPECT_EQ(Expired(), Ints{});
  EXPECT_FALSE(tree_->Get(10)->HasTag(process_tag::kTtlExpired));
  clock_.Advance(std::chrono::milliseconds(1));
  EXPECT_EQ(Expired(), Ints{1});
  EXPECT_TRUE(tree_->Get(10)->HasTag(process_tag::kTtlExpired));
  EXPECT_EQ(Expired(), Ints{});
}

TEST_F(TtlProcessTreeTest, AWallClockThatIsSetExpiresNothing) {
  Exec(10, 1);
  clock_.SetWall(std::chrono::hours(24));
  EXPECT_EQ(Expired(), Ints{});
}

TEST_F(TtlProcessTreeTest, OnlyWhoseTimeIsOverIsDue) {
  Exec(10, 1);
  clock_.Advance(seconds(60));
  Exec(20, 1);
  clock_.Advance(seconds(60));
  EXPECT_EQ(Expired(), Ints{1});
  clock_.Advance(seconds(60));
  EXPECT_EQ(Expired(), Ints{2});
}

TEST_F(TtlProcessTreeTest, ABusyProcessIsJudgedBeforeItsTime) {
  Exec(10, 1);
  Exec(20, 1);
  for (std::size_t i = 1; i < ProcessInfo::kMaxCachedEvents; ++i) tree_->AddEvent(Write(10, 1));
  const fakes::LogCapture log;
  EXPECT_EQ(Expired().size(), ProcessInfo::kMaxCachedEvents);
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, "[IOC]: Adding Events from cache for PID: 10")) << log.All();
  EXPECT_FALSE(tree_->Get(10)->HasTag(process_tag::kTtlExpired));
}

TEST_F(TtlProcessTreeTest, WhatALivingProcessDoesAfterItsTimeWaitsOnceMoreAsLong) {
  Exec(10, 1);
  LetAllExpire();
  clock_.Advance(seconds(1000));
  EXPECT_EQ(Expired(), Ints{});
  tree_->AddEvent(Write(10, 1));
  clock_.Advance(seconds(100));
  tree_->AddEvent(Write(10, 1));
  clock_.Advance(seconds(19));
  EXPECT_EQ(Expired(), Ints{});
  clock_.Advance(seconds(1));
  EXPECT_EQ(Expired(), (Ints{2, 3}));
  tree_->AddEvent(Write(10, 1));
  clock_.Advance(seconds(119));
  EXPECT_EQ(Expired(), Ints{});
  clock_.Advance(seconds(1));
  EXPECT_EQ(Expired(), Ints{4});
}

TEST_F(TtlProcessTreeTest, ALateEventCutsNoTimeOffTheNextProgram) {
  Exec(10, 1);
  LetAllExpire();
  tree_->AddEvent(Write(10, 1));
  clock_.Advance(seconds(60));
  Exec(10, 1);
  clock_.Advance(seconds(60));
  Expired();
  EXPECT_FALSE(tree_->Get(10)->HasTag(process_tag::kTtlExpired));
}

TEST_F(TtlProcessTreeTest, AnEndAfterItsTimeIsDueAtOnce) {
  Exec(10, 1);
  LetAllExpire();
  tree_->AddEvent(Write(10, 1));
  EXPECT_EQ(Expired(), Ints{});
  tree_->AddEvent(Exit(10, 1));
  tree_->DeleteStaleProcesses();
  ASSERT_TRUE(tree_->Has(10));  // its end would be lost
  EXPECT_EQ(Expired(), (Ints{2, 3}));
  tree_->DeleteStaleProcesses();
  EXPECT_FALSE(tree_->Has(10));
}

TEST_F(TtlProcessTreeTest, WhatComesBehindTheEndIsDueAtOnceToo) {
  Exec(10, 1);
  LetAllExpire();
  tree_->AddEvent(Exit(10, 1));
  EXPECT_EQ(Expired(), Ints{2});
  tree_->AddEvent(Write(10, 1));
  EXPECT_EQ(Expired(), Ints{3});
  tree_->DeleteStaleProcesses();
  EXPECT_FALSE(tree_->Has(10));
}

TEST_F(TtlProcessTreeTest, ASecondEndIsAnEventLikeAnyOther) {
  Exec(10, 1);
  auto abend = Event(EventType::AbnormalEnd, 10, 1);
  tree_->AddEvent(std::move(abend));
  tree_->AddEvent(Exit(10, 1));
  const fakes::LogCapture log;
  clock_.Advance(kTtl);
  EXPECT_EQ(Expired(), (Ints{1, 2, 3}));
  tree_->DeleteStaleProcesses();
  EXPECT_FALSE(tree_->Has(10));
  EXPECT_EQ(log.Count("Deleting ProcessInfo"), 1);
}

// Leaving

TEST_F(TtlProcessTreeTest, AProcessLeavesWhenItHasEndedAndLivedForItsTime) {
  Exec(10, 1);
  tree_->AddEvent(Exit(10, 1));
  EXPECT_EQ(Expired(), Ints{});
  tree_->DeleteStaleProcesses();
  EXPECT_TRUE(tree_->Has(10));
  clock_.Advance(kTtl);
  EXPECT_EQ(Expired(), (Ints{1, 2}));
  const fakes::LogCapture log;
  tree_->DeleteStaleProcesses();
  EXPECT_FALSE(tree_->Has(10));
  EXPECT_EQ(ChildrenOf(1), Set{});
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, "[IOC]: DeleteStaleProcesses: Deleting ProcessInfo for PID: 10"))
      << log.All();
}

TEST_F(TtlProcessTreeTest, WhoLivesStaysHoweverLong) {
  Exec(10, 1);
  for (int i = 0; i < 10; ++i) LetAllExpire();
  EXPECT_TRUE(tree_->Has(10));
  EXPECT_TRUE(tree_->Has(1));
}

TEST_F(TtlProcessTreeTest, ThoseBelowOneThatLeavesGoUnderProcess1) {
  Exec(10, 1);
  Exec(20, 10);
  Exec(30, 20);
  tree_->AddEvent(Exit(10, 1));
  LetAllExpire();
  EXPECT_FALSE(tree_->Has(10));
  EXPECT_EQ(ParentOf(20), 1);
  EXPECT_EQ(ParentOf(30), 20);
  EXPECT_EQ(ChildrenOf(1), Set{20});
}

TEST_F(TtlProcessTreeTest, Process1StaysEvenIfItEnds) {
  Exec(10, 1);
  tree_->AddEvent(Exit(1, 0));
  LetAllExpire();
  EXPECT_TRUE(tree_->Has(1));
}

TEST_F(TtlProcessTreeTest, AChildThatIsNotThereIsToldAfterTheDeletion) {
  Exec(10, 1);
  Exec(20, 1);
  tree_->Get(10)->AddChild(999);
  tree_->AddEvent(Exit(10, 1));
  tree_->AddEvent(Exit(20, 1));
  clock_.Advance(kTtl);
  EXPECT_EQ(Expired().size(), 4U);
  EXPECT_EQ(fakes::WhatOf<common::GenericProcessTreeException>([&] { tree_->DeleteStaleProcesses(); }),
            "Child process with PID: 999 not found while deleting for Process PID: 10");
  EXPECT_FALSE(tree_->Has(10));
  tree_->DeleteStaleProcesses();
  EXPECT_FALSE(tree_->Has(20));
}

// Pids that come again

TEST_F(TtlProcessTreeTest, AStartUnderThePidOfOneThatHasEndedIsReuse) {
  Exec(10, 1);
  EXPECT_FALSE(tree_->IsPidReused(*Start(10, 1)));
  tree_->AddEvent(Exit(10, 1));
  EXPECT_TRUE(tree_->IsPidReused(*Start(10, 1)));
  EXPECT_FALSE(tree_->IsPidReused(*Write(10, 1)));
  EXPECT_FALSE(tree_->IsPidReused(*Start(11, 1)));
}

TEST_F(TtlProcessTreeTest, ThePredecessorOfAPidLeavesBeforeItsSuccessorComes) {
  Exec(10, 1);   // 1
  Exec(20, 10);  // 2
  tree_->Get(10)->AddTag(process_tag::kReported);
  tree_->AddEvent(Exit(10, 1));
  EXPECT_EQ(Ids(tree_->GetDescendantEvents(10)), (Ints{1, 2, 3}));
  tree_->ExpireProcess(10);
  tree_->DeleteStaleProcesses();
  EXPECT_FALSE(tree_->Has(10));
  EXPECT_EQ(ParentOf(20), 1);
  EXPECT_TRUE(tree_->Get(20)->HasTag(process_tag::kTtlExpired));
  Exec(10, 20);
  EXPECT_FALSE(tree_->Get(10)->HasTag(process_tag::kReported));
  EXPECT_EQ(ParentOf(10), 20);
}

TEST_F(TtlProcessTreeTest, AllEndedProcessesBelowAReusedPidLeave) {
  Exec(10, 1);
  Exec(20, 10);
  Exec(30, 20);
  for (const std::int32_t pid : {20, 10}) tree_->AddEvent(Exit(pid, 1));
  EXPECT_EQ(Ids(tree_->GetDescendantEvents(1)).size(), 5U);
  // 20 was handed to process 1 by its own end.
  EXPECT_EQ(ParentOf(20), 1);
  tree_->ExpireProcess(20);
  tree_->DeleteStaleProcesses();
  EXPECT_FALSE(tree_->Has(20));
  EXPECT_EQ(ParentOf(30), 1);
  EXPECT_TRUE(tree_->Has(10));
}

TEST_F(TtlProcessTreeTest, AnEndedChildOfAReusedPidExpiresWithAllBelowIt) {
  Exec(10, 1);
  Exec(20, 10);
  Exec(30, 20);
  for (const auto& [pid, ppid] : {std::pair{20, 10}, std::pair{10, 1}}) tree_->AddEvent(Exit(pid, ppid));
  EXPECT_EQ(Ids(tree_->GetDescendantEvents(10)).size(), 5U);
  tree_->ExpireProcess(10);
  EXPECT_EQ(ParentOf(30), 1);
  EXPECT_TRUE(tree_->Get(30)->HasTag(process_tag::kTtlExpired));
  tree_->DeleteStaleProcesses();
  EXPECT_EQ(ChildrenOf(1), Set{30});
  EXPECT_EQ(tree_->GetSize(), 2U);
}

TEST_F(TtlProcessTreeTest, ALivingProcessThatExpiresGoesUnderProcess1) {
  Exec(10, 1);
  Exec(20, 10);
  tree_->ExpireProcess(20);
  EXPECT_EQ(ParentOf(20), 1);
  EXPECT_TRUE(tree_->Get(20)->HasTag(process_tag::kTtlExpired));
  EXPECT_EQ(Expired(), Ints{2});
}

TEST_F(TtlProcessTreeTest, Process1ExpiresWhereItIs) {
  Exec(10, 1);
  tree_->ExpireProcess(1);
  EXPECT_EQ(ParentOf(1), common::ProcessInfo::kNoParent);
  EXPECT_EQ(ChildrenOf(1), Set{10});
}

TEST_F(TtlProcessTreeTest, ManyEndedProcessesBelowEachOtherExpireWithoutARecursion) {
  constexpr std::int32_t kDeep = 20'000;
  for (std::int32_t pid = 2; pid <= kDeep; ++pid) Exec(pid, pid - 1);
  for (std::int32_t pid = 2; pid <= kDeep; ++pid) tree_->AddEvent(Exit(pid, pid - 1 == 1 ? 0 : pid - 1));
  EXPECT_EQ(tree_->GetDescendantEvents(2).GetSize(), 2U * (kDeep - 1));
  tree_->ExpireProcess(2);
  tree_->DeleteStaleProcesses();
  EXPECT_EQ(tree_->GetSize(), 1U);
}

TEST_F(TtlProcessTreeTest, AnEndThatIsForgottenWithItsPidDoesNotDeleteTheSuccessor) {
  Exec(10, 1);
  tree_->AddEvent(Exit(10, 1));
  Exec(10, 1);  // nobody has made place for it
  LetAllExpire();
  EXPECT_TRUE(tree_->Has(10));
}

// Relations

TEST_F(TtlProcessTreeTest, SiblingsAreTheOtherChildrenOfTheParent) {
  Exec(10, 1);
  Exec(20, 10);
  Exec(21, 10);
  Exec(22, 10);
  EXPECT_EQ(Pids(tree_->GetSiblings(21)), (Set{20, 22}));
  EXPECT_EQ(Pids(tree_->GetSiblings(10)), Set{});
  EXPECT_EQ(Pids(tree_->GetSiblings(1)), Set{});
}

TEST_F(TtlProcessTreeTest, AncestorsAreAskedForByAPid) {
  EXPECT_EQ(fakes::WhatOf<std::invalid_argument>([&] { static_cast<void>(tree_->GetAncestors(0)); }),
            "TtlProcessTree::GetAncestors: 'pid' is invalid");
  EXPECT_TRUE(tree_->GetAncestors(10).empty());
}

TEST_F(TtlProcessTreeTest, AnUpdateTakesThePlaceWithItsLinks) {
  Exec(10, 1);
  Exec(20, 10);
  Exec(30, 20);
  auto update = std::make_shared<ProcessInfo>(Start(20, 999, "/bin/new"), nullptr);
  tree_->Update(update);
  EXPECT_EQ(tree_->Get(20), update);
  EXPECT_EQ(ParentOf(20), 10);
  EXPECT_EQ(ChildrenOf(10), Set{20});
  EXPECT_EQ(ChildrenOf(20), Set{30});
  EXPECT_EQ(ParentOf(30), 20);
  EXPECT_EQ(Ids(tree_->GetEventsFromCache(10)), (Ints{1, 4}));
}

TEST_F(TtlProcessTreeTest, AnEntryThatChangedInPlaceIsUpToDate) {
  Exec(10, 1);
  const auto process = tree_->Get(10);
  process->AddScore(3);
  tree_->Update(process);
  EXPECT_EQ(tree_->Get(10), process);
  EXPECT_EQ(Ids(tree_->GetEventsFromCache(10)), Ints{1});
}

TEST_F(TtlProcessTreeTest, AnUpdateNeedsAnEntry) {
  EXPECT_EQ(fakes::WhatOf<TtlProcessTreeException>(
                [&] { tree_->Update(std::make_shared<ProcessInfo>(Start(20, 1), nullptr)); }),
            "Failed to update process info: ProcessInfo for pid 20 does not exist");
  EXPECT_EQ(fakes::WhatOf<TtlProcessTreeException>([&] { tree_->Update(nullptr); }),
            "Failed to update process info: there is none");
}

// Parents

TEST_F(TtlProcessTreeTest, FindsTheParentThatAnEventNamesUntilItsPidComesAgain) {
  Exec(10, 1);
  const auto start = Start(20, 10);
  tree_->AddEvent(start->Clone());
  ASSERT_NE(tree_->FindParent(*start), nullptr);
  EXPECT_EQ(tree_->FindParent(*start), tree_->Get(10));
  auto exec = Start(10, 1, "/bin/other");
  exec->timestamp = kLater + kSecond;
  tree_->AddEvent(std::move(exec));
  EXPECT_EQ(tree_->FindParent(*start), tree_->Get(10)) << "another program, but the same process";
  tree_->AddEvent(Exit(10, 1));
  tree_->AddEvent(Write(20, 1));
  EXPECT_EQ(tree_->FindParent(*start), tree_->Get(10)) << "ended, but known";
  auto again = Start(10, 1, "/bin/harmless");
  again->timestamp = kLater + 2 * kSecond;
  tree_->AddEvent(std::move(again));
  EXPECT_EQ(tree_->FindParent(*start), nullptr);
}

TEST_F(TtlProcessTreeTest, FindsAParentOfWhomWasToldLater) {
  const auto start = Start(20, 10);
  tree_->AddEvent(start->Clone());
  EXPECT_EQ(tree_->FindParent(*start), nullptr);
  EXPECT_EQ(ParentOf(20), 1);
  Exec(10, 1);
  EXPECT_EQ(tree_->FindParent(*start), tree_->Get(10));
}

TEST_F(TtlProcessTreeTest, AnEntryThatIsPutInAnothersPlaceIsTheSameProcess) {
  Exec(10, 1);
  const auto start = Start(20, 10);
  tree_->AddEvent(start->Clone());
  for (const std::int32_t pid : {10, 20}) {
    auto newer = Start(pid, pid == 10 ? 1 : 10);
    newer->timestamp = kLater + kSecond;
    tree_->Update(std::make_shared<ProcessInfo>(std::move(newer), nullptr));
  }
  EXPECT_EQ(tree_->FindParent(*start), tree_->Get(10));
}

// Whose end nobody tells of

TEST_F(TtlProcessTreeTest, AnAncestorOfProcfsThatHasGoneLeavesSilently) {
  proc_.Start(5, {.start = 10});
  Exec(10, 5);
  LetAllExpire();
  EXPECT_TRUE(tree_->Has(5));
  proc_.End(5);
  KeepHouse();
  EXPECT_TRUE(tree_->Has(5));  // what it did last may still be on its way
  clock_.Advance(kLastWordsTime);
  KeepHouse();
  LetAllExpire();
  EXPECT_FALSE(tree_->Has(5));
  EXPECT_EQ(ParentOf(10), 1);
}

TEST_F(TtlProcessTreeTest, AnAncestorOfProcfsWhosePidCameAgainHasGone) {
  proc_.Start(5, {.start = 10});
  Exec(10, 5);
  proc_.Start(5, {.start = 20});
  KeepHouse();
  LetAllExpire();
  EXPECT_FALSE(tree_->Has(5));
}

TEST_F(TtlProcessTreeTest, WhoToldOfItsStartIsNotLookedFor) {
  proc_.Start(5, {.start = 10});
  Exec(10, 5);
  tree_->AddEvent(MadeUpStart(5, 1, kBoot + 10 * kSecond));
  proc_.End(5);
  for (int i = 0; i < 3; ++i) LetAllExpire();
  EXPECT_TRUE(tree_->Has(5));  // its end will be told
}

TEST_F(TtlProcessTreeTest, ManyAncestorsOfProcfsAreLookedForInTurns) {
  for (std::int32_t pid = 100; pid < 200; ++pid) {
    proc_.Start(pid, {.start = 10});
    Exec(pid + 1'000, pid);
  }
  LetAllExpire();
  for (std::int32_t pid = 100; pid < 200; ++pid) proc_.End(pid);
  for (int turn = 0; turn < 4; ++turn) KeepHouse();
  clock_.Advance(kLastWordsTime);
  for (int turn = 0; turn < 3; ++turn) KeepHouse();
  EXPECT_GT(tree_->GetSize(), 101U);
  for (int turn = 0; turn < 2; ++turn) KeepHouse();
  EXPECT_EQ(tree_->GetSize(), 101U);
}

TEST_F(TtlProcessTreeTest, Process1KeepsItsChildrenWhateverIsToldOfItsEnd) {
  Exec(10, 1);
  Exec(20, 10);
  tree_->AddEvent(Exit(1, 0));
  ASSERT_TRUE(tree_->Get(1)->HasTag(process_tag::kTerminated));
  Exec(1, 0, "/sbin/init");
  EXPECT_FALSE(tree_->Get(1)->HasTag(process_tag::kTerminated));
  EXPECT_EQ(ChildrenOf(1), Set{10});
  EXPECT_EQ(ParentOf(10), 1);
  EXPECT_EQ(tree_->GetAncestors(20).size(), 3U);
}

}  // namespace
}  // namespace zagent::ioc

#include "src/edr/process/ProcessTree.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/fakes/FakeProcessInfo.h"
#include "tests/fakes/LogCapture.h"

namespace zagent::common {
namespace {

using fakes::FakeProcessInfo;

class ProcessTreeTest : public testing::Test {
 protected:
  void Add(std::int32_t pid, std::int32_t ppid) { tree_.Add(std::make_unique<FakeProcessInfo>(pid, ppid)); }

  std::vector<std::int32_t> Ancestors(std::int32_t pid) {
    std::vector<std::int32_t> pids;
    for (const ProcessInfo* info : tree_.GetAncestors(pid)) pids.push_back(info->GetPid());
    return pids;
  }

  ProcessTree tree_;
};

using Pids = std::vector<std::int32_t>;

TEST_F(ProcessTreeTest, FindsWhatWasAdded) {
  Add(10, 1);
  EXPECT_TRUE(tree_.Contains(10));
  EXPECT_EQ(tree_.Get(10).GetPid(), 10);
  EXPECT_EQ(tree_.GetSize(), 1U);
  try {
    (void)tree_.Get(11);
    ADD_FAILURE();
  } catch (const GenericProcessTreeException& error) {
    EXPECT_STREQ(error.what(), "ProcessInfo for pid 11 does not exist");
  }
}

TEST_F(ProcessTreeTest, AParentThatIsNotThereBecomesNone) {
  const fakes::LogCapture log;
  Add(10, 9);
  EXPECT_EQ(tree_.Get(10).GetParent(), ProcessInfo::kNoParent);
  EXPECT_TRUE(log.Has("Failed to find parent process in tree for pid 10, updating parent as -1"));
}

TEST_F(ProcessTreeTest, WalksFromTheProcessUpToTheLastKnownOne) {
  Add(1, 0);
  Add(10, 1);
  Add(20, 10);
  EXPECT_EQ(Ancestors(20), (Pids{20, 10, 1}));
  EXPECT_EQ(Ancestors(99), Pids{});
}

TEST_F(ProcessTreeTest, AsksOneAfterTheOtherUpToTheOneThatIsMeant) {
  Add(1, 0);
  for (int pid = 2; pid <= 20; ++pid) Add(pid, pid - 1);
  Pids asked;
  const auto is = [&](std::int32_t pid) {
    return [&asked, pid](const ProcessInfo& info) {
      asked.push_back(info.GetPid());
      return info.GetPid() == pid;
    };
  };
  EXPECT_TRUE(tree_.AnyAncestor(20, is(17)));
  EXPECT_EQ(asked, (Pids{20, 19, 18, 17}));
  asked.clear();
  EXPECT_FALSE(tree_.AnyAncestor(20, is(99)));
  EXPECT_EQ(asked, Ancestors(20));
  asked.clear();
  EXPECT_FALSE(tree_.AnyAncestor(99, is(99)));
  EXPECT_TRUE(asked.empty());
}

TEST_F(ProcessTreeTest, ALoopInTheLinksEndsTheQuestion) {
  Add(1, 0);
  for (int pid = 2; pid <= 20; ++pid) Add(pid, pid - 1);
  tree_.Get(5).SetParent(11);
  EXPECT_FALSE(tree_.AnyAncestor(20, [](const ProcessInfo& info) { return info.GetPid() < 5; }));
  EXPECT_TRUE(tree_.AnyAncestor(20, [](const ProcessInfo& info) { return info.GetPid() == 5; }));
  tree_.Get(5).SetParent(6);
  EXPECT_FALSE(tree_.AnyAncestor(20, [](const ProcessInfo& info) { return info.GetPid() < 5; }));
}

TEST_F(ProcessTreeTest, RefusesPidsThatNoProcessHas) {
  const auto error_of = [](const auto& call) -> std::string {
    try {
      call();
    } catch (const std::invalid_argument& error) {
      return error.what();
    }
    return "no error";
  };
  EXPECT_EQ(error_of([&] { (void)tree_.GetAncestors(0); }), "ProcessTree::GetAncestors: 'pid' is invalid");
  EXPECT_EQ(error_of([&] { tree_.Delete(0); }), "ProcessTree::Delete: 'pid' is invalid");
}

TEST_F(ProcessTreeTest, ALoopOfParentsEndsTheWalk) {
  Add(10, 1);
  Add(20, 10);
  tree_.Get(10).SetParent(20);
  EXPECT_EQ(Ancestors(20), (Pids{20, 10}));
}

TEST_F(ProcessTreeTest, DeletingAParentMovesItsChildrenUnderProcessOne) {
  Add(1, 0);
  Add(10, 1);
  Add(20, 10);
  tree_.Delete(10);
  EXPECT_FALSE(tree_.Contains(10));
  EXPECT_EQ(tree_.Get(20).GetParent(), 1);
  EXPECT_EQ(tree_.Get(1).GetChildren().count(20), 1U);
  EXPECT_EQ(tree_.Get(1).GetChildren().count(10), 0U);
}

TEST_F(ProcessTreeTest, DeletingAnUnknownPidIsNoError) {
  EXPECT_NO_THROW(tree_.Delete(5));
}

TEST_F(ProcessTreeTest, TracesWhatComesAndGoes) {
  const fakes::LogCapture log;
  Add(1, 0);
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_TRACE, "ProcessTree: Size 1 (1"));
  Add(10, 1);
  tree_.Delete(10);
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_TRACE, "ProcessTree: Adding 10 (/bin/fake) as child of 1"));
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_TRACE, "ProcessTree: Size 2 ("));
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_TRACE, "ProcessTree: Deleting 10"));
}

TEST_F(ProcessTreeTest, AReplacedProcessLeavesItsChildrenToProcessOne) {
  Add(1, 0);
  Add(10, 1);
  Add(20, 10);
  Add(10, 1);
  EXPECT_EQ(tree_.GetSize(), 3U);
  EXPECT_EQ(tree_.Get(20).GetParent(), 1);
  EXPECT_EQ(Ancestors(10), (Pids{10, 1}));
}

TEST_F(ProcessTreeTest, AReplacedProcessKeepsTheChildrenThatItsSuccessorNames) {
  Add(1, 0);
  Add(10, 1);
  Add(20, 10);
  Add(30, 20);
  auto successor = std::make_unique<FakeProcessInfo>(10, 1);
  successor->AddChild(20);
  successor->AddChild(99);  // has ended meanwhile
  tree_.Add(std::move(successor));
  EXPECT_EQ(Ancestors(30), (Pids{30, 20, 10, 1}));
  EXPECT_EQ(tree_.Get(10).GetChildren(), (std::unordered_set<std::int32_t>{20}));
  EXPECT_EQ(tree_.Get(1).GetChildren(), (std::unordered_set<std::int32_t>{10}));
}

TEST_F(ProcessTreeTest, NobodyBecomesTheChildOfItsOwnChild) {
  Add(1, 0);
  Add(10, 1);
  Add(20, 10);
  auto successor = std::make_unique<FakeProcessInfo>(10, 20);  // 20 is a pid that came again
  successor->AddChild(20);
  tree_.Add(std::move(successor));
  EXPECT_EQ(Ancestors(10), (Pids{10, 20, 1}));
  EXPECT_TRUE(tree_.Get(10).GetChildren().empty());
}

TEST_F(ProcessTreeTest, ListsItsProcesses) {
  EXPECT_TRUE(tree_.GetPids().empty());
  Add(10, 1);
  Add(20, 10);
  EXPECT_THAT(tree_.GetPids(), testing::UnorderedElementsAre(10, 20));
}

TEST(SharedProcessTreeTest, LeavesToOthersWhatTheyKeep) {
  GenericProcessTree<FakeProcessInfo, std::shared_ptr<FakeProcessInfo>> tree;
  tree.Add(std::make_shared<FakeProcessInfo>(10, 1));
  const std::shared_ptr<FakeProcessInfo> kept = tree.GetPointer(10);
  tree.Delete(10);
  EXPECT_FALSE(tree.Contains(10));
  EXPECT_EQ(kept->GetPid(), 10);
}

TEST(ProcessInfoTest, AParentEqualToItselfEndsAsNone) {
  const fakes::LogCapture log;
  EXPECT_EQ(FakeProcessInfo(7, 7).GetParent(), ProcessInfo::kNoParent);
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_ERROR, "ProcessInfo: ppid cannot be the same as pid (7)"));
}

TEST(ProcessInfoTest, TracesItsRelations) {
  const fakes::LogCapture log;
  FakeProcessInfo info(7, 1);
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_TRACE, "ProcessInfo: Creating process with pid 7 and ppid 1"));
  info.SetParent(2);
  EXPECT_EQ(info.GetParent(), 2);
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_TRACE, "ProcessInfo: Updating parent of 7 to 2. Old parent was 1"));
  info.AddChild(9);
  EXPECT_EQ(info.GetChildren().count(9), 1U);
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_TRACE, "ProcessInfo: Adding 9 as child of 7"));
  info.RemoveChild(9);
  EXPECT_TRUE(info.GetChildren().empty());
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_TRACE, "ProcessInfo: Removing 9 from children of 7"));
  info.SetPid(8);
  EXPECT_EQ(info.GetPid(), 8);
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_TRACE, "ProcessInfo: Updating pid of 7 to 8"));
}

TEST(ProcessInfoTest, RefusesANegativePidAndBecomingItsOwnParent) {
  try {
    const FakeProcessInfo info(-1, 1);
    ADD_FAILURE();
  } catch (const ProcessInfoException& error) {
    EXPECT_STREQ(error.what(), "ProcesInfo: pid cannot be negative");
  }
  FakeProcessInfo info(7, 1);
  try {
    info.SetParent(7);
    ADD_FAILURE();
  } catch (const ProcessInfoException& error) {
    EXPECT_STREQ(error.what(), "ProcessInfo: ppid cannot be set the same value as pid (7)");
  }
}

}  // namespace
}  // namespace zagent::common

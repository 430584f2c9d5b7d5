#include <gtest/gtest.h>

#include "common/src/storage/SqlConnection.h"
#include "src/ioc/process/SnapshotDBTtlProcess.h"
#include "src/ioc/process/SnapshotStorage.h"
#include "tests/fakes/TempFolder.h"
#include "tests/src/ioc/process/TreeFixture.h"

namespace zagent::ioc {
namespace {

namespace process_tag = internal::process_tag;
using internal::models::SnapshotDBTtlProcess;
using Ints = std::vector<std::uint32_t>;
using Set = std::set<std::int32_t>;

// A tree that is saved when it goes and loaded when the next one comes.
class TtlProcessTreeSnapshotTest : public TreeFixture {
 protected:
  TtlProcessTreeSnapshotTest() { Open(); }
  ~TtlProcessTreeSnapshotTest() override { Close(); }

  void Open() { tree_ = std::make_unique<TtlProcessTree>(storage_.get(), kTtl, clock_, proc_.Root()); }
  void Close() { tree_.reset(); }
  void Restart() {
    Close();
    Open();
  }
  // A process that runs, and has told of its start.
  void Run(std::int32_t pid, std::int32_t ppid, const std::string& image = "/bin/sh") {
    proc_.Start(pid, {.ppid = ppid, .image = image, .start = 500.25});
    Exec(pid, ppid, image);
  }
  std::map<std::int32_t, SnapshotDBTtlProcess> Rows() {
    std::map<std::int32_t, SnapshotDBTtlProcess> all;
    auto rows = storage_->ReadAll("TtlProcesses");
    for (common::Bytes row = rows.Next(); !row.empty(); row = rows.Next()) {
      SnapshotDBTtlProcess process(row);
      all.emplace(process.process_id, process);
    }
    return all;
  }
  // Changes a row while nobody runs.
  void Change(std::int32_t pid, const std::function<void(SnapshotDBTtlProcess&)>& change) {
    SnapshotDBTtlProcess process;
    const auto rows = Rows();
    if (rows.count(pid) != 0) process = rows.at(pid);
    process.process_id = pid;
    change(process);
    storage_->Write("TtlProcesses", std::to_string(pid), process.ToRow());
  }
  Set PidsOfTree() {
    Set pids;
    for (std::int32_t pid = 0; pid < 1'000; ++pid) {
      if (tree_->Has(pid)) pids.insert(pid);
    }
    return pids;
  }

  const fakes::TempFolder folder_;
  std::unique_ptr<common::SqlStorage> storage_ = internal::OpenSnapshotStorage(folder_.Path(), nullptr, proc_.Root());
};

TEST_F(TtlProcessTreeSnapshotTest, RunningProcessesOutliveARestart) {
  Run(10, 1, "/bin/bash");
  Run(20, 10, "/bin/cat");
  Run(30, 20);
  tree_->Get(20)->AddTag(process_tag::kReported);
  tree_->Get(20)->AddTag(process_tag::kHashMatchingVerdict, "Clean");
  tree_->Get(20)->AddScore(42);
  fakes::LogCapture log;
  Close();
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_INFORMATION, "[IOC]: Saving Ttl Process Tree to db")) << log.All();
  EXPECT_EQ(Rows().size(), 4U);
  Open();
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_INFORMATION, "[IOC]: Loading up processes from TtlProcesses table."))
      << log.All();
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, "[IOC]: Adding processes to Ttl Process Tree"));
  EXPECT_TRUE(log.Has("[IOC]: Successfully cleared TtlProcesses table from sql storage"));
  EXPECT_TRUE(Rows().empty());
  EXPECT_EQ(PidsOfTree(), (Set{1, 10, 20, 30}));
  EXPECT_EQ(tree_->GetAncestors(30), (std::map<std::int32_t, std::string>{
                                         {30, "/bin/sh"}, {20, "/bin/cat"}, {10, "/bin/bash"}, {1, "/sbin/init"}}));
  EXPECT_EQ(ChildrenOf(20), Set{30});
  const auto process = tree_->Get(20);
  EXPECT_EQ(process->GetTags(), (ProcessInfo::Tags{{"Reported", ""}, {"HashMatchingVerdict", "Clean"}}));
  EXPECT_EQ(process->GetScore(), 42);
  EXPECT_FALSE(process->HasEvents());
}

TEST_F(TtlProcessTreeSnapshotTest, ARestoredProcessLivesForItsTimeAgain) {
  Run(10, 1);
  Restart();
  clock_.Advance(kTtl);
  EXPECT_EQ(Expired(), Ints{});
  EXPECT_TRUE(tree_->Get(10)->HasTag(process_tag::kTtlExpired));
  tree_->AddEvent(Exit(10, 1));
  EXPECT_EQ(Expired(), Ints{2});
  KeepHouse();
  EXPECT_EQ(PidsOfTree(), Set{1});
}

TEST_F(TtlProcessTreeSnapshotTest, TheStateOfThisRunIsNotSaved) {
  Run(10, 1);
  clock_.Advance(kTtl);
  EXPECT_EQ(Expired(), Ints{1});
  tree_->AddEvent(Exit(10, 1));
  ASSERT_TRUE(tree_->Get(10)->HasTag(process_tag::kTerminated));
  ASSERT_TRUE(tree_->Get(10)->HasTag(process_tag::kTtlExpired));
  const fakes::LogCapture log;
  Close();
  const auto rows = Rows();
  EXPECT_EQ(rows.size(), 2U) << "nobody has heard of the end yet";
  for (const auto& [pid, row] : rows) {
    for (const auto& [key, value] : row.tags) EXPECT_EQ(key, process_tag::kProgramStart) << pid;
  }
  EXPECT_FALSE(log.Has("Failed to remove tag")) << log.All();
}

TEST_F(TtlProcessTreeSnapshotTest, TheStartThatProcfsTellsIsSaved) {
  Run(10, 1);  // its program started at kLater
  Close();
  EXPECT_EQ(Rows().at(10).creation_time, kBoot + 500 * kSecond + kSecond / 4);
  EXPECT_EQ(Rows().at(1).creation_time, kBoot + kSecond);
}

TEST_F(TtlProcessTreeSnapshotTest, TheStartOfOneThatIsGoneIsTheEventsTime) {
  Run(10, 1);
  Run(20, 1);
  Exec(30, 1);
  proc_.End(10);
  proc_.Start(20, {.start = 900});
  Close();
  EXPECT_EQ(Rows().at(10).creation_time, kLater);
  EXPECT_EQ(Rows().at(20).creation_time, kLater);
  EXPECT_EQ(Rows().at(30).creation_time, kLater);
}

TEST_F(TtlProcessTreeSnapshotTest, AnotherProgramLeavesTheStartAsItIs) {
  Run(10, 1);
  Exec(10, 1, "/bin/cat");
  Restart();
  EXPECT_FALSE(tree_->Get(10)->HasTag(process_tag::kTerminated));
  EXPECT_EQ(tree_->Get(10)->GetImage()->GetPath(), "/bin/cat");
}

// The platform knows a process by it.
TEST_F(TtlProcessTreeSnapshotTest, TheStartOfTheProgramOutlivesEveryRestart) {
  Run(10, 1);  // its program started at kLater
  for (int i = 0; i < 3; ++i) {
    Restart();
    EXPECT_FALSE(tree_->Get(10)->HasTag(process_tag::kTerminated));
    EXPECT_EQ(tree_->Get(10)->GetCreationTime(), kLater);
    EXPECT_EQ(tree_->Get(1)->GetCreationTime(), kBoot + kSecond);
    EXPECT_TRUE(tree_->Get(10)->GetTags().empty());
    tree_->AddEvent(MadeUpStart(10, 1, kBoot + 500 * kSecond + kSecond / 4));
    EXPECT_EQ(tree_->Get(10)->GetCreationTime(), kLater) << "it joins";
  }
}

TEST_F(TtlProcessTreeSnapshotTest, AStartOfAProgramThatIsNoNumberIsLeftOut) {
  Run(10, 1);
  for (const char* value : {"", "soon", "17x", "99999999999999999999"}) {
    Close();
    Change(10, [&](SnapshotDBTtlProcess& row) { row.tags = {{process_tag::kProgramStart, value}, {"a", "b"}}; });
    Open();
    EXPECT_EQ(tree_->Get(10)->GetCreationTime(), kBoot + 500 * kSecond + kSecond / 4);
    EXPECT_EQ(tree_->Get(10)->GetTags(), (ProcessInfo::Tags{{"a", "b"}}));
  }
}

TEST_F(TtlProcessTreeSnapshotTest, AnEndThatWasToldIsNotToldAgainByTheNextRun) {
  Run(10, 1);
  Run(20, 10);
  Run(30, 20);
  tree_->AddEvent(Exit(10, 1));
  tree_->AddEvent(Exit(20, 10));
  EXPECT_EQ(tree_->GetEventsFromCache(10).GetSize(), 4U);  // starts and ends of 10 and 20
  proc_.End(10);
  proc_.End(20);
  Close();
  const auto rows = Rows();
  EXPECT_EQ(rows.size(), 2U);
  EXPECT_EQ(rows.at(1).children, std::vector<std::int32_t>{30});
  EXPECT_EQ(rows.at(30).parent, 1);
  Open();
  EXPECT_EQ(PidsOfTree(), (Set{1, 30}));
  EXPECT_EQ(ParentOf(30), 1);
}

TEST_F(TtlProcessTreeSnapshotTest, AnEndThatNobodyHasHeardOfIsToldByTheNextRun) {
  Run(10, 1);
  Run(20, 10);
  tree_->AddEvent(Exit(10, 1));
  proc_.End(10);
  Restart();
  EXPECT_EQ(PidsOfTree(), (Set{1, 10, 20}));
  EXPECT_EQ(tree_->Get(10)->GetLastEvent().GetType(), edr::EventType::ProcessExit);
}

TEST_F(TtlProcessTreeSnapshotTest, AClockThatIsSetWhileTheProgramRunsEndsNobody) {
  Run(10, 1);
  proc_.SetBootTime(fakes::FakeProcFs::kBootTime + 3'600);
  clock_.Advance(std::chrono::seconds(2));
  Restart();
  EXPECT_EQ(PidsOfTree(), (Set{1, 10}));
  EXPECT_FALSE(tree_->Get(10)->HasTag(process_tag::kTerminated));
}

TEST_F(TtlProcessTreeSnapshotTest, WhoEndedMeanwhileIsReportedAsEnded) {
  Run(10, 1, "/bin/bash");
  Run(20, 10);
  Close();
  proc_.End(10);
  const fakes::LogCapture log;
  Open();
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG,
                      "[IOC]: Start time for PID: 10 Process: /bin/bash differs from stored start time."))
      << log.All();
  EXPECT_TRUE(tree_->Get(10)->HasTag(process_tag::kTerminated));
  EXPECT_FALSE(tree_->Get(20)->HasTag(process_tag::kTerminated));
  EXPECT_EQ(tree_->Get(10)->GetLastEvent().GetType(), edr::EventType::ProcessExit);
  LetAllExpire();
  EXPECT_EQ(PidsOfTree(), (Set{1, 20}));
  EXPECT_EQ(ParentOf(20), 1);
}

TEST_F(TtlProcessTreeSnapshotTest, AStartThatDiffersByTwoSecondsIsThatOfAnotherProcess) {
  const double start = 500;
  for (const double apart : {-2.0, -1.99, 0.0, 1.99, 2.0}) {
    SCOPED_TRACE(apart);
    proc_.Start(10, {.start = start});
    tree_->AddEvent(MadeUpStart(10, 1, kBoot + 500 * kSecond));
    Close();
    proc_.Start(10, {.start = start + apart});
    const fakes::LogCapture log;
    Open();
    const bool is_another = apart == 2.0 || apart == -2.0;
    EXPECT_EQ(tree_->Get(10)->HasTag(process_tag::kTerminated), is_another);
    EXPECT_EQ(log.Has(Poco::Message::PRIO_DEBUG,
                      "[IOC]: ProcessID: 10 creation time from SnapshotDB differs with Proc creation time"),
              is_another)
        << log.All();
    LetAllExpire();
  }
}

TEST_F(TtlProcessTreeSnapshotTest, ToleranceIsToTheNanosecond) {
  Run(10, 1);
  const std::int64_t live = kBoot + 500 * kSecond + kSecond / 4;
  for (const std::int64_t apart : {-2 * kSecond, -2 * kSecond + 1, 2 * kSecond - 1, 2 * kSecond}) {
    SCOPED_TRACE(apart);
    Close();
    Change(10, [&](SnapshotDBTtlProcess& row) { row.creation_time = live + apart; });
    Open();
    EXPECT_EQ(tree_->Get(10)->HasTag(process_tag::kTerminated), apart == 2 * kSecond || apart == -2 * kSecond);
    if (tree_->Get(10)->HasTag(process_tag::kTerminated)) LetAllExpire();
    if (!tree_->Has(10)) Run(10, 1);
  }
}

TEST_F(TtlProcessTreeSnapshotTest, AfterARebootTheTreeIsEmpty) {
  Run(10, 1);
  Close();
  proc_.SetBootTime(fakes::FakeProcFs::kBootTime + 5'000);
  clock_.Advance(std::chrono::seconds(2));
  const fakes::LogCapture log;
  Open();
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_INFORMATION, "[IOC]: System reboot detected. Clearing the TtlProcessTree."))
      << log.All();
  EXPECT_EQ(tree_->GetSize(), 0U);
  EXPECT_TRUE(Rows().empty());
  clock_.Advance(kTtl);
  EXPECT_EQ(Expired(), Ints{});
  Exec(20, 1);
  EXPECT_EQ(PidsOfTree(), (Set{1, 20}));
}

TEST_F(TtlProcessTreeSnapshotTest, AnEmptyTreeIsNotSaved) {
  const fakes::LogCapture log;
  Close();
  EXPECT_FALSE(log.Has("Saving Ttl Process Tree to db")) << log.All();
  EXPECT_TRUE(Rows().empty());
}

TEST_F(TtlProcessTreeSnapshotTest, AMadeUpStartOfARestoredProcessJoinsIt) {
  Run(10, 1);
  tree_->Get(10)->AddTag(process_tag::kReported);
  tree_->Get(10)->AddScore(9);
  Restart();
  tree_->AddEvent(MadeUpStart(10, 1, kBoot + 500 * kSecond + kSecond / 4));
  EXPECT_TRUE(tree_->Get(10)->HasTag(process_tag::kReported));
  EXPECT_EQ(tree_->Get(10)->GetScore(), 9);
  EXPECT_EQ(Ids(tree_->GetEventsFromCache(10)), Ints{0});
}

// Its last event is read when it is gone, and brings a start of that time.
TEST_F(TtlProcessTreeSnapshotTest, ARestoredProcessIsItselfWhenItsEventsComeBehindItsEnd) {
  const auto keeps_its_tags = [this](std::int32_t parent, std::int64_t later) {
    Run(10, 1);
    tree_->Get(10)->AddTag(process_tag::kReported);
    Restart();
    proc_.End(10);
    tree_->AddEvent(MadeUpStart(10, parent, tree_->Get(10)->GetCreationTime() + later));
    return tree_->Get(10)->HasTag(process_tag::kReported);
  };
  EXPECT_TRUE(keeps_its_tags(1, 8 * kSecond));
  EXPECT_FALSE(keeps_its_tags(7, 8 * kSecond)) << "a child of somebody else";
  EXPECT_FALSE(keeps_its_tags(1, -8 * kSecond)) << "before there was one";
}

TEST_F(TtlProcessTreeSnapshotTest, AnotherProgramThatWasStartedMeanwhileReplacesTheRestoredOne) {
  Run(10, 1);
  tree_->Get(10)->AddTag(process_tag::kHashMatchingVerdict, "Clean");
  Restart();
  tree_->AddEvent(MadeUpStart(10, 1, kBoot + 500 * kSecond, "/bin/evil"));
  EXPECT_TRUE(tree_->Get(10)->GetTags().empty());
  EXPECT_EQ(tree_->Get(10)->GetImage()->GetPath(), "/bin/evil");
}

TEST_F(TtlProcessTreeSnapshotTest, AProgramIsKnownByItsFileAndNotByThePathThatAnotherMayHaveGot) {
  const auto start = [](const std::string& device, std::uint64_t inode, const std::string& path) {
    fakes::FakeProcessInfo process(10, 1, path);
    process.image = common::ImageInfo(device, 755, inode, path, 0, "root", "root", 0, "");
    process.creation_time = kBoot + 500 * kSecond;
    return std::make_unique<edr::PseudoRunningEvent>(process);
  };
  const auto keeps_its_tags = [&](const std::string& device, std::uint64_t inode, const std::string& path) {
    tree_ = MakeTree();
    tree_->AddEvent(start("fe:0", 5, "/bin/sh"));
    tree_->Get(10)->AddTag(process_tag::kHashMatchingVerdict, "Clean");
    tree_->AddEvent(start(device, inode, path));
    return tree_->Get(10)->HasTag(process_tag::kHashMatchingVerdict);
  };
  EXPECT_TRUE(keeps_its_tags("fe:0", 5, "/bin/sh"));
  EXPECT_TRUE(keeps_its_tags("fe:0", 5, "/bin/sh (deleted)"));
  EXPECT_TRUE(keeps_its_tags("0:2a", 5, "/bin/sh")) << "a file system with two devices";
  EXPECT_FALSE(keeps_its_tags("fe:0", 6, "/bin/sh")) << "another file at the path";
  EXPECT_FALSE(keeps_its_tags("0:2a", 5, "/mnt/sh"));
  EXPECT_TRUE(keeps_its_tags("", 0, "/bin/sh")) << "nothing but a path is known";
}

TEST_F(TtlProcessTreeSnapshotTest, ARestoredProcessThatEndsWithoutAWordIsReportedAsEnded) {
  Run(10, 1);
  Restart();
  proc_.End(10);
  KeepHouse();
  EXPECT_FALSE(tree_->Get(10)->HasTag(process_tag::kTerminated)) << "its end may still be on its way";
  clock_.Advance(kLastWordsTime - std::chrono::milliseconds(1));
  KeepHouse();
  EXPECT_FALSE(tree_->Get(10)->HasTag(process_tag::kTerminated));
  clock_.Advance(std::chrono::milliseconds(1));
  KeepHouse();
  EXPECT_EQ(tree_->Get(10)->GetLastEvent().GetType(), edr::EventType::ProcessExit);
  LetAllExpire();
  EXPECT_EQ(PidsOfTree(), Set{1});
}

TEST_F(TtlProcessTreeSnapshotTest, TheLastWordsOfARestoredProcessThatIsGoneAreItsOwn) {
  Run(10, 1);
  tree_->Get(10)->AddTag(process_tag::kHashMatchingVerdict, "Clean");
  Restart();
  proc_.End(10);
  KeepHouse();
  tree_->AddEvent(Exit(10, 1));
  EXPECT_EQ(tree_->Get(10)->FindTag(process_tag::kHashMatchingVerdict), "Clean");
  clock_.Advance(kLastWordsTime);
  KeepHouse();
  EXPECT_EQ(tree_->GetEventsFromCache(10).GetSize(), 1U) << "one end, the real one";
}

TEST_F(TtlProcessTreeSnapshotTest, AClockThatIsSetRightBeforeTheEndIsNoReboot) {
  Run(10, 1);
  proc_.SetBootTime(fakes::FakeProcFs::kBootTime - 7'200);  // as the kernel tells it from then on
  const fakes::LogCapture log;
  Restart();
  EXPECT_FALSE(log.Has("System reboot detected")) << log.All();
  EXPECT_EQ(PidsOfTree(), (Set{1, 10}));
}

TEST_F(TtlProcessTreeSnapshotTest, ALookThatFailsIsNobodysEnd) {
  Run(10, 1);
  Restart();
  const std::string stat = proc_.Root() + "/10/stat";
  std::filesystem::remove(stat);
  std::filesystem::create_directory(stat);  // cannot be read
  KeepHouse();
  EXPECT_FALSE(tree_->Get(10)->HasTag(process_tag::kTerminated));
  proc_.End(10);
  KeepHouse();
  clock_.Advance(kLastWordsTime);
  KeepHouse();
  EXPECT_TRUE(tree_->Get(10)->HasTag(process_tag::kTerminated));
}

TEST_F(TtlProcessTreeSnapshotTest, AChildWithoutARowIsSkipped) {
  Run(10, 1);
  Close();
  Change(1, [](SnapshotDBTtlProcess& row) { row.children.push_back(77); });
  const fakes::LogCapture log;
  Open();
  EXPECT_TRUE(log.Has("[IOC]: PID: 77 not found in process map.")) << log.All();
  EXPECT_EQ(PidsOfTree(), (Set{1, 10}));
}

TEST_F(TtlProcessTreeSnapshotTest, RowsThatFormARingOrHaveTwoParentsAreTakenOnce) {
  Run(10, 1);
  Run(20, 10);
  Close();
  Change(20, [](SnapshotDBTtlProcess& row) { row.children = {1, 10, 20}; });
  Change(1, [](SnapshotDBTtlProcess& row) { row.children = {1, 10, 20}; });
  Open();
  EXPECT_EQ(PidsOfTree(), (Set{1, 10, 20}));
  EXPECT_EQ(ChildrenOf(1), (Set{10, 20}));
  EXPECT_EQ(ChildrenOf(20), Set{});
}

TEST_F(TtlProcessTreeSnapshotTest, RowsThatHangUnderNobodyAreForgotten) {
  Run(10, 1);
  Close();
  Change(10, [](SnapshotDBTtlProcess& row) { row.children = {}; });
  Change(55, [](SnapshotDBTtlProcess&) {});
  Open();
  EXPECT_EQ(PidsOfTree(), (Set{1, 10}));
  EXPECT_TRUE(Rows().empty());
}

TEST_F(TtlProcessTreeSnapshotTest, WithoutARowOfProcess1NobodyIsRestored) {
  Run(10, 1);
  Close();
  storage_->Delete("TtlProcesses", "1");
  Open();
  EXPECT_EQ(tree_->GetSize(), 0U);
  EXPECT_TRUE(Rows().empty());
}

TEST_F(TtlProcessTreeSnapshotTest, ADeformedTagIsToldAndTheProcessRestored) {
  Run(10, 1);
  Close();
  storage_->Execute("UPDATE TtlProcesses SET Tags = 'nonsense:a=b' WHERE ProcessID = 10");
  const fakes::LogCapture log;
  Open();
  EXPECT_TRUE(log.Has("[IOC]: Tag value nonsense is deformed in db.")) << log.All();
  EXPECT_EQ(tree_->Get(10)->GetTags(), (ProcessInfo::Tags{{"a", "b"}}));
}

TEST_F(TtlProcessTreeSnapshotTest, TagsOfARunAreNotTakenFromARow) {
  Run(10, 1);
  Close();
  proc_.End(10);
  Change(10, [](SnapshotDBTtlProcess& row) {
    row.tags = {{process_tag::kTerminated, ""}, {process_tag::kTtlExpired, ""}};
  });
  Open();
  EXPECT_FALSE(tree_->Get(10)->HasTag(process_tag::kTtlExpired));
  LetAllExpire();
  EXPECT_EQ(PidsOfTree(), Set{1});
}

TEST_F(TtlProcessTreeSnapshotTest, ADeformedProcessIsToldOnceAndTheOthersRestored) {
  Run(10, 1);
  Close();
  storage_->Execute(
      "INSERT INTO TtlProcesses SELECT -5, Arguments, Auid, Children, CreationTime, Cwd, Euid, "
      "ImageDeviceID, ImageFileAttributes, ImageFileInode, ImageFilePath, ImageOwnerGid, "
      "ImageOwnerGroup, ImageOwnerName, ImageOwnerUid, ImageFileFSAttributes, Parent, Score, "
      "SecondaryImageDeviceID, SecondaryImageFileAttributes, SecondaryImageFileInode, "
      "SecondaryImageFilePath, SecondaryImageOwnerGid, SecondaryImageOwnerGroup, "
      "SecondaryImageOwnerName, SecondaryImageOwnerUid, SecondaryImageFileFSAttributes, Tags, Uid FROM "
      "TtlProcesses WHERE ProcessID = 10");
  const fakes::LogCapture log;
  Open();
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_ERROR, "[IOC]: A process is deformed in db: There is no process with pid -5"))
      << log.All();
  EXPECT_EQ(PidsOfTree(), (Set{1, 10}));
}

TEST_F(TtlProcessTreeSnapshotTest, ATableThatCannotBeReadIsAnError) {
  Run(10, 1);
  Close();
  storage_->Execute("DROP TABLE TtlProcesses");
  EXPECT_EQ(fakes::WhatOf<std::runtime_error>([&] { Open(); }),
            "Error reading TtlProcesses table while cleaning up: 1");
}

TEST_F(TtlProcessTreeSnapshotTest, ATableThatCannotBeWrittenIsTold) {
  Run(10, 1);
  storage_->Execute("DROP TABLE TtlProcesses");
  const fakes::LogCapture log;
  Close();
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_ERROR, "[IOC]: Failed to update 'TtlProcesses' table in snapshot DB."))
      << log.All();
}

TEST_F(TtlProcessTreeSnapshotTest, ATableThatCannotBeClearedIsToldAndTheProcessesAreRestored) {
  Run(10, 1);
  Close();
  storage_->Execute("CREATE TRIGGER kept BEFORE DELETE ON TtlProcesses BEGIN SELECT RAISE(ABORT, 'kept'); END");
  const fakes::LogCapture log;
  Open();
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_ERROR, "[IOC]: Failed to clear TtlProcesses table: ")) << log.All();
  EXPECT_FALSE(log.Has("Successfully cleared"));
  EXPECT_EQ(PidsOfTree(), (Set{1, 10}));
}

TEST_F(TtlProcessTreeSnapshotTest, RowsOfAnEarlierRunDoNotStay) {
  Run(10, 1);
  Change(66, [](SnapshotDBTtlProcess&) {});
  Close();
  EXPECT_EQ(Rows().count(66), 0U);
  EXPECT_EQ(Rows().size(), 2U);
}

TEST_F(TtlProcessTreeSnapshotTest, AKilledProgramComesBackWithAnEmptyTree) {
  Run(10, 1);
  Restart();
  // Killed: nothing is saved, and what was saved before was taken.
  const TtlProcessTree next(storage_.get(), kTtl, clock_, proc_.Root());
  EXPECT_EQ(next.GetSize(), 0U);
}

TEST_F(TtlProcessTreeSnapshotTest, HostileArgumentsOutliveARestart) {
  const std::vector<std::string> arguments = {"sh",         "",    "a:b=c%", "'; DROP TABLE TtlProcesses;--",
                                              "two\nlines", "\xff"};
  proc_.Start(10, {.image = "/bin/it's", .start = 500});
  auto start = Start(10, 1, "/bin/it's");
  start->arguments = arguments;
  start->cwd = "/srv/\"x'\n";
  tree_->AddEvent(std::move(start));
  Restart();
  EXPECT_EQ(tree_->Get(10)->GetArguments(), arguments);
  EXPECT_EQ(tree_->Get(10)->GetCwd(), "/srv/\"x'\n");
  EXPECT_EQ(tree_->Get(10)->GetImage()->GetPath(), "/bin/it's");
}

}  // namespace
}  // namespace zagent::ioc

#include "src/ioc/engines/HashMatchingEngine.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <filesystem>
#include <thread>

#include "common/src/util/HashGenerator.h"
#include "tests/fakes/TempFolder.h"
#include "tests/src/ioc/rules/RulesFixture.h"

namespace zagent::ioc::internal {
namespace {

using edr::EventType;
using Poco::Message;

class HashMatchingEngineTest : public RulesFixture {
 protected:
  static constexpr std::int32_t kPid = 70;
  static constexpr std::int64_t kFarInTheFuture = std::int64_t{4'000'000'000} * kSecond;

  HashMatchingEngineTest() {
    clock_.SetWall(std::chrono::hours(24 * 365 * 100));  // every file counts as settled
  }

  // The process is in the tree, and its start is judged.
  Verdict JudgeStart(const std::string& image, std::int32_t pid = kPid, std::int32_t ppid = 1) {
    Exec(pid, ppid, image);
    return engine_.Process(tree_->Get(pid)->GetLastEvent());
  }
  // Of a process of which is known what file it runs. It has started after all that happens to files.
  Verdict JudgeStart(const common::ImageInfo& image, std::int32_t pid = kPid) {
    auto start = Start(pid, 1);
    start->image = image;
    start->timestamp = kFarInTheFuture;
    tree_->AddEvent(std::move(start));
    return engine_.Process(tree_->Get(pid)->GetLastEvent());
  }
  // The file that has the path now.
  static common::ImageInfo FileAt(const std::string& path) {
    struct stat found {};
    EXPECT_EQ(stat(path.c_str(), &found), 0);
    return {path, found};
  }
  // Another file of this name, as a mount namespace may have it.
  [[nodiscard]] common::ImageInfo Impostor(const std::string& path) const {
    common::ImageInfo file = FileAt(folder_.Write("impostor", "not the program"));
    file.SetPath(path);
    return file;
  }
  // The process does something to a file.
  Verdict JudgeFile(const std::string& path, EventType type = EventType::Write, std::int32_t pid = kPid) {
    fakes::FakeEvent event = FileEvent(path, type);
    event.pid = pid;
    return engine_.Process(event);
  }
  [[nodiscard]] std::string TagOf(std::int32_t pid) const {
    return tree_->Get(pid)->FindTag(process_tag::kHashMatchingVerdict).value_or("(none)");
  }
  void SetTag(std::int32_t pid, Verdict verdict) {
    tree_->Get(pid)->AddTag(process_tag::kHashMatchingVerdict, VerdictWord(verdict));
  }

  fakes::TempFolder folder_;
  const std::string known_ = folder_.Write("known", "a program");
  common::util::DigestCache digests_{clock_};
  HashMatchingEngine engine_{*tree_, {known_}, digests_};
};

TEST_F(HashMatchingEngineTest, TheFirstStartOfAKnownProgramIsCleanWithoutHashAndTheSecondClean) {
  {
    const fakes::LogCapture log;
    EXPECT_EQ(JudgeStart(known_), Verdict::CleanWithoutHash);
    EXPECT_EQ(TagOf(kPid), "CleanWithoutHash");
    EXPECT_TRUE(log.Has(Message::PRIO_DEBUG,
                        "[IOC]: Adding verdict: CleanWithoutHash. Hash not found for process: 70 (" + known_ + ")"));
    EXPECT_TRUE(
        log.Has(Message::PRIO_INFORMATION, "[IOC]: Adding verdict 'CleanWithoutHash' to process 70 (" + known_ + ")"));
  }
  const fakes::LogCapture log;
  EXPECT_EQ(JudgeStart(known_, 71), Verdict::Clean);
  EXPECT_EQ(TagOf(71), "Clean");
  EXPECT_TRUE(
      log.Has(Message::PRIO_DEBUG, "[IOC]: Adding verdict: Clean. Hash found for process: 71 (" + known_ + ")"));
  EXPECT_TRUE(log.Has(Message::PRIO_INFORMATION, "[IOC]: Adding verdict 'Clean' to process 71 (" + known_ + ")"));
  EXPECT_FALSE(log.Has("Reading file content")) << "it is hashed once";
}

TEST_F(HashMatchingEngineTest, AnyOtherProgramIsUnknown) {
  const fakes::LogCapture log;
  EXPECT_EQ(JudgeStart("/bin/other"), Verdict::Unknown);
  EXPECT_EQ(TagOf(kPid), "Unknown");
  EXPECT_TRUE(log.Has(Message::PRIO_DEBUG, "[IOC]: Adding verdict: Unknown for unknown process"));
  EXPECT_TRUE(log.Has(Message::PRIO_INFORMATION, "[IOC]: Adding verdict 'Unknown' to process 70 (/bin/other)"));
}

TEST_F(HashMatchingEngineTest, AnEventOfItsFileHasAKnownProgramHashedAgain) {
  (void)JudgeStart(known_);
  for (const EventType type :
       {EventType::Write, EventType::Delete, EventType::AttributeChange, EventType::Create, EventType::Read}) {
    ASSERT_EQ(JudgeStart(known_, 71), Verdict::Clean);
    (void)JudgeFile(known_, type);
    EXPECT_EQ(JudgeStart(known_, 71), Verdict::CleanWithoutHash) << static_cast<int>(type);
  }
  (void)JudgeFile(folder_ / "./sub/../known");
  EXPECT_EQ(JudgeStart(known_, 71), Verdict::CleanWithoutHash) << "by another name of the path";
  (void)JudgeFile(folder_ / "known2");
  (void)JudgeFile(folder_.Path());
  fakes::FakeEvent folder_event = DirectoryEvent(known_, EventType::Create);
  (void)engine_.Process(folder_event);
  EXPECT_EQ(JudgeStart(known_, 71), Verdict::Clean);
}

TEST_F(HashMatchingEngineTest, EachKnownProgramIsHashedAgainBehindItsOwnEvents) {
  const std::string other = folder_.Write("other", "another program");
  engine_.SetKnownProcessPaths({known_, other});
  for (const std::string& path : {known_, other}) (void)JudgeStart(path);
  for (int i = 0; i < 3; ++i) (void)JudgeFile(known_);
  EXPECT_EQ(JudgeStart(other, 71), Verdict::Clean);
  (void)JudgeFile(other);
  EXPECT_EQ(JudgeStart(other, 71), Verdict::CleanWithoutHash);
  EXPECT_EQ(JudgeStart(known_, 71), Verdict::CleanWithoutHash);
}

TEST_F(HashMatchingEngineTest, WhatIsRenamedToAKnownProgramIsHashed) {
  (void)JudgeStart(known_);
  (void)engine_.Process(RenameEvent(known_, "/tmp/elsewhere"));
  EXPECT_EQ(JudgeStart(known_, 71), Verdict::CleanWithoutHash);
  (void)engine_.Process(RenameEvent("/tmp/other", known_));
  EXPECT_EQ(JudgeStart(known_, 71), Verdict::CleanWithoutHash);
  EXPECT_EQ(JudgeStart(known_, 71), Verdict::Clean);
}

TEST_F(HashMatchingEngineTest, AChildIsNoBetterThanAParentThatIsWorseThanClean) {
  (void)JudgeStart(known_, 71);
  for (const Verdict verdict : {Verdict::Unknown, Verdict::Suspicious, Verdict::Malicious}) {
    const fakes::LogCapture log;
    SetTag(kCron, verdict);
    EXPECT_EQ(JudgeStart(known_, kPid, kCron), verdict);
    EXPECT_EQ(TagOf(kPid), VerdictWord(verdict));
    EXPECT_TRUE(
        log.Has(Message::PRIO_DEBUG, "[IOC]: Adding verdict: " + VerdictWord(verdict) + " from parent process: 50"));
    EXPECT_TRUE(log.Has(Message::PRIO_INFORMATION,
                        "[IOC]: Adding verdict '" + VerdictWord(verdict) + "' to process 70 (" + known_ + ")"));
  }
}

TEST_F(HashMatchingEngineTest, ACleanParentHasNoSay) {
  (void)JudgeStart(known_, 71);
  for (const Verdict verdict : {Verdict::Clean, Verdict::CleanWithoutHash}) {
    SetTag(kCron, verdict);
    EXPECT_EQ(JudgeStart(known_, kPid, kCron), Verdict::Clean);
    EXPECT_EQ(JudgeStart("/bin/other", kPid, kCron), Verdict::Unknown);
  }
}

TEST_F(HashMatchingEngineTest, TheParentIsTheOneThatTheTreeKnows) {
  Exec(kPid, kCron, known_);
  SetTag(kCron, Verdict::Malicious);
  auto event = Start(kPid, 1, known_);
  EXPECT_EQ(engine_.Process(*event), Verdict::Malicious);
}

TEST_F(HashMatchingEngineTest, ProcessOneHasNoParentToBeAsked) {
  auto event = Start(1, 0, known_);
  tree_->AddEvent(Start(1, 0, known_));
  EXPECT_EQ(engine_.Process(*event), Verdict::CleanWithoutHash);
  EXPECT_EQ(TagOf(1), "CleanWithoutHash");
}

TEST_F(HashMatchingEngineTest, AWorseVerdictThatTheProcessHadBeforeStays) {
  (void)JudgeStart(known_);
  SetTag(kPid, Verdict::Suspicious);
  const fakes::LogCapture log;
  EXPECT_EQ(engine_.Process(tree_->Get(kPid)->GetLastEvent()), Verdict::Suspicious);
  EXPECT_EQ(TagOf(kPid), "Suspicious");
  EXPECT_TRUE(log.Has(Message::PRIO_DEBUG, "[IOC]: Adding verdict: Suspicious from existing process"));
  EXPECT_TRUE(log.Has(Message::PRIO_INFORMATION, "[IOC]: Adding verdict 'Suspicious' to process 70 ("));
  SetTag(kPid, Verdict::Clean);
  (void)JudgeFile(known_);
  EXPECT_EQ(engine_.Process(tree_->Get(kPid)->GetLastEvent()), Verdict::CleanWithoutHash) << "the worse one holds";
}

TEST_F(HashMatchingEngineTest, LaterEventsHaveTheVerdictOfTheProcess) {
  (void)JudgeStart("/bin/other");
  for (const Verdict verdict :
       {Verdict::Clean, Verdict::CleanWithoutHash, Verdict::Unknown, Verdict::Suspicious, Verdict::Malicious}) {
    SetTag(kPid, verdict);
    EXPECT_EQ(JudgeFile("/etc/passwd"), verdict);
  }
  SetTag(kPid, Verdict::Clean);
  auto exit = Exit(kPid, 1);
  exit->image.reset();
  EXPECT_EQ(engine_.Process(*exit), Verdict::Clean);
}

TEST_F(HashMatchingEngineTest, WhoWasNeverJudgedIsJudgedByItsPathAlone) {
  const fakes::LogCapture log;
  Exec(kPid, 1, known_);
  EXPECT_EQ(JudgeFile("/etc/passwd"), Verdict::Clean);
  EXPECT_EQ(JudgeFile("/etc/passwd", EventType::Write, kShell), Verdict::Unknown);
  EXPECT_EQ(TagOf(kPid), "(none)");
  EXPECT_FALSE(log.Has("Reading file content"));
}

TEST_F(HashMatchingEngineTest, AKnownProgramIsTheFileOfThatName) {
  EXPECT_EQ(JudgeStart(FileAt(known_)), Verdict::CleanWithoutHash);
  EXPECT_EQ(JudgeStart(FileAt(known_), 71), Verdict::Clean);
}

TEST_F(HashMatchingEngineTest, AnotherFileUnderTheNameOfAKnownProgramIsSuspicious) {
  const common::ImageInfo real = FileAt(known_);
  const auto expect_distrust = [&](const common::ImageInfo& image, std::int32_t pid) {
    const fakes::LogCapture log;
    EXPECT_EQ(JudgeStart(image, pid), Verdict::Suspicious);
    EXPECT_EQ(TagOf(pid), "Suspicious");
    EXPECT_TRUE(log.Has(Message::PRIO_WARNING, "[IOC]: Failed to generate hash for known process " + known_));
    EXPECT_FALSE(log.Has("Reading file content"));
  };
  expect_distrust(Impostor(known_), 71);
  ASSERT_EQ(JudgeStart(real), Verdict::CleanWithoutHash) << "the impostors have not spoilt it";
  expect_distrust(Impostor(known_), 73);
  EXPECT_EQ(JudgeStart(real, 75), Verdict::Clean);
}

// Files of memory have no disk either, and are there everywhere.
TEST_F(HashMatchingEngineTest, ARecordNamesTheDeviceOfAFileOnADiskAlone) {
  const auto judge_elsewhere = [&](const std::string& path, std::int32_t pid) {
    engine_.SetKnownProcessPaths({path});
    common::ImageInfo elsewhere = FileAt(path);
    elsewhere.SetDevice("ff:ff");
    return JudgeStart(elsewhere, pid);
  };
  const fakes::TempFolder memory("/dev/shm");
  EXPECT_EQ(judge_elsewhere(memory.Write("program", "a program"), 71), Verdict::CleanWithoutHash);

  struct stat of_this {};
  ASSERT_EQ(stat("/proc/self/exe", &of_this), 0);
  const std::string program = std::filesystem::read_symlink("/proc/self/exe");
  const bool has_disk = major(of_this.st_dev) != 0;  // the machine's root may be an overlay
  EXPECT_EQ(judge_elsewhere(program, 72), has_disk ? Verdict::Suspicious : Verdict::CleanWithoutHash);
}

// As an upgrade does it.
TEST_F(HashMatchingEngineTest, AProgramThatIsReplacedOrGoneSinceItsStartIsBelieved) {
  auto start = Start(kPid, 1);
  start->image = FileAt(known_);
  start->timestamp = kLater;
  std::filesystem::rename(folder_.Write("new", "the next version"), known_);
  tree_->AddEvent(std::move(start));
  const edr::Event& last = tree_->Get(kPid)->GetLastEvent();
  EXPECT_EQ(engine_.Process(last), Verdict::CleanWithoutHash);
  EXPECT_EQ(JudgeStart(FileAt(known_), 71), Verdict::Clean);
  const common::ImageInfo before = FileAt(known_);
  std::filesystem::remove(known_);
  EXPECT_EQ(JudgeStart(before, 72), Verdict::Clean);
}

TEST_F(HashMatchingEngineTest, WhoWasNeverJudgedMustRunTheFileOfItsName) {
  const auto judge_later = [&](const common::ImageInfo& image, std::int64_t time = kFarInTheFuture) {
    auto start = Start(kPid, 1);
    start->image = image;
    start->timestamp = time;
    tree_->AddEvent(std::move(start));
    return JudgeFile("/etc/passwd");
  };
  EXPECT_EQ(judge_later(FileAt(known_)), Verdict::Clean);
  EXPECT_EQ(judge_later(Impostor(known_)), Verdict::Unknown);
  EXPECT_EQ(judge_later(Impostor(known_), kLater), Verdict::Clean) << "another file may have come since";
  EXPECT_EQ(TagOf(kPid), "(none)");
}

TEST_F(HashMatchingEngineTest, AProgramThatIsProvedToBeInDisguiseIsNotBelieved) {
  auto start = Start(kPid, 1, known_);
  start->SetImageDisguised();
  tree_->AddEvent(std::move(start));
  EXPECT_EQ(engine_.Process(tree_->Get(kPid)->GetLastEvent()), Verdict::Suspicious);

  fakes::FakeEvent write = FileEvent("/etc/passwd");
  write.SetImageDisguised();
  const auto judge_write = [&](std::int32_t pid) {
    write.pid = pid;
    return engine_.Process(write);
  };
  Exec(71, 1, known_);
  EXPECT_EQ(judge_write(71), Verdict::Unknown) << "never judged before";
  EXPECT_EQ(TagOf(71), "(none)");
  (void)JudgeStart(known_, 72);
  for (const Verdict verdict : {Verdict::Clean, Verdict::CleanWithoutHash}) {
    SetTag(72, verdict);
    const fakes::LogCapture log;
    EXPECT_EQ(judge_write(72), Verdict::Suspicious) << "its start was believed";
    EXPECT_EQ(TagOf(72), "Suspicious");
    EXPECT_TRUE(
        log.Has(Message::PRIO_INFORMATION, "[IOC]: Adding verdict 'Suspicious' to process 72 (" + known_ + ")"));
  }
  for (const Verdict verdict : {Verdict::Unknown, Verdict::Malicious}) {
    SetTag(72, verdict);
    EXPECT_EQ(judge_write(72), verdict) << "which is no better";
  }
}

TEST_F(HashMatchingEngineTest, AWordThatIsNoneIsAFailure) {
  tree_->Get(kShell)->AddTag(process_tag::kHashMatchingVerdict, "Good");
  EXPECT_EQ(fakes::WhatOf<std::runtime_error>([&] { (void)JudgeFile("/x", EventType::Write, kShell); }),
            "Unknown verdict string: Good");
}

TEST_F(HashMatchingEngineTest, AProcessThatIsNotKnownIsTheTreesFailure) {
  EXPECT_THROW((void)JudgeFile("/x", EventType::Write, 4711), common::GenericProcessTreeException);
}

TEST_F(HashMatchingEngineTest, AKnownProgramThatCannotBeHashedIsSuspicious) {
  const std::string large = folder_.Write("large", "");
  std::filesystem::resize_file(large, HashMatchingEngine::kMaxFileSize + 1);  // without a block on the disk
  const std::vector<std::string> paths = {folder_ / "missing", folder_.Path(), large, "/dev/zero"};
  engine_.SetKnownProcessPaths(paths);
  for (const std::string& path : paths) {
    const fakes::LogCapture log;
    EXPECT_EQ(JudgeStart(path), Verdict::Suspicious) << path;
    EXPECT_EQ(TagOf(kPid), "Suspicious");
    EXPECT_TRUE(log.Has(Message::PRIO_WARNING, "[IOC]: Failed to generate hash for known process " + path));
    EXPECT_FALSE(log.Has("Reading file content"));
    EXPECT_EQ(JudgeStart(path), Verdict::Suspicious) << "each start tries again";
  }
}

TEST_F(HashMatchingEngineTest, WhatCouldNotBeHashedIsHashedAsSoonAsItCan) {
  engine_.SetKnownProcessPaths({folder_ / "late"});
  EXPECT_EQ(JudgeStart(folder_ / "late"), Verdict::Suspicious);
  folder_.Write("late", "x");
  EXPECT_EQ(JudgeStart(folder_ / "late", 71), Verdict::CleanWithoutHash);
  EXPECT_EQ(JudgeStart(folder_ / "late", 72), Verdict::Clean);
}

TEST_F(HashMatchingEngineTest, AFileWhoseDigestOthersHaveAskedForIsNotReadAgain) {
  const common::util::HashGenerator others(known_, "", 0, common::util::HashKind::All, &digests_);
  const fakes::LogCapture log;
  EXPECT_EQ(JudgeStart(known_), Verdict::CleanWithoutHash);
  EXPECT_FALSE(log.Has("Reading file content"));
}

TEST_F(HashMatchingEngineTest, NewPathsReplaceTheOldOnesAndTheirDigests) {
  (void)JudgeStart(known_);
  engine_.SetKnownProcessPaths({known_});
  EXPECT_EQ(JudgeStart(known_, 71), Verdict::CleanWithoutHash);
  engine_.SetKnownProcessPaths({});
  EXPECT_EQ(JudgeStart(known_, 72), Verdict::Unknown);
}

TEST_F(HashMatchingEngineTest, APathIsMeantHoweverItIsWritten) {
  engine_.SetKnownProcessPaths({folder_.Path() + "//x/../known"});
  EXPECT_EQ(JudgeStart(known_), Verdict::CleanWithoutHash);
}

TEST_F(HashMatchingEngineTest, AnEmptyPathIsNoProgram) {
  engine_.SetKnownProcessPaths({""});
  EXPECT_EQ(JudgeStart(""), Verdict::Unknown);
}

// For ThreadSanitizer most of all.
TEST_F(HashMatchingEngineTest, ThePathsMayChangeWhileEventsCome) {
  std::atomic<bool> is_over{false};
  std::thread control([&] {
    while (!is_over) engine_.SetKnownProcessPaths({known_});
  });
  for (int at = 0; at < 300; ++at) {
    EXPECT_LE(JudgeStart(known_), Verdict::CleanWithoutHash);
    EXPECT_LE(JudgeFile(known_), Verdict::CleanWithoutHash);
  }
  is_over = true;
  control.join();
}

}  // namespace
}  // namespace zagent::ioc::internal

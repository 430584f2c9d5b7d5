// What several threads do with the folders and the mounts at the same time: each finds what it would find alone.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <latch>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "common/src/util/UniqueFd.h"
#include "src/audit/events/CreateEvent.h"
#include "src/audit/events/DeleteEvent.h"
#include "src/audit/events/FolderIdentities.h"
#include "src/audit/events/FolderScan.h"
#include "src/audit/events/MountTable.h"
#include "src/audit/events/RenameEvent.h"
#include "tests/fakes/AuditRecords.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::audit::internal {
namespace {

namespace fs = std::filesystem;
using fakes::AuditRecords;
using Found = FolderIdentities::Found;

constexpr std::uint64_t kThreads = 4;

// All of them begin when the last one is there.
template <typename Work>
void InThreads(const Work& work) {
  std::latch all_there(kThreads);
  std::vector<std::thread> threads;
  for (std::uint64_t number = 1; number <= kThreads; ++number) {
    threads.emplace_back([&work, &all_there, number] {
      all_there.arrive_and_wait();
      work(number);
    });
  }
  for (std::thread& thread : threads) thread.join();
}

// Lets another thread in, on a machine of one processor too.
void GiveWay() {
  std::this_thread::yield();
}

// --- folders

// One thread's own file system, where it does once all that can be done.
class Worker {
 public:
  Worker(FolderIdentities& folders, std::uint64_t number)
      : folders_(folders), device_(number), top_("/t" + std::to_string(number)) {}

  void LearnAll() {
    folders_.Learn(Id(1), top_);
    folders_.Learn(Id(2), top_ + "/a");
    folders_.Learn(Id(3), top_ + "/a/sub");
    folders_.Learn(Id(4), top_ + "/b");
    folders_.Learn(Id(5), top_ + "/b/sub");
    EXPECT_EQ(PathOf(3), top_ + "/a/sub");
    EXPECT_TRUE(folders_.Ask(Id(4), top_ + "/b").is_here);
  }
  void MoveAll() {
    folders_.Rename(Id(2), top_ + "/a", top_ + "/c");
    EXPECT_EQ(PathOf(3), top_ + "/c/sub");
    folders_.Exchange(top_ + "/c", top_ + "/b");
    EXPECT_EQ(PathOf(3), top_ + "/b/sub");
    EXPECT_EQ(PathOf(5), top_ + "/c/sub");
    EXPECT_EQ(folders_.Ask(Id(5), top_ + "/b/sub").elsewhere, top_ + "/c/sub");
  }
  void FindOneMore() {
    EXPECT_EQ(folders_.AddFound(Id(1), "found", Id(6)), Found::New);
    EXPECT_EQ(folders_.AddFound(Id(1), "found", Id(6)), Found::KnownHere);
    EXPECT_EQ(folders_.AddFound(Id(1), "other", Id(6)), Found::KnownElsewhere);
    EXPECT_EQ(folders_.FolderAt(top_ + "/found"), Id(6));
  }
  void LoseAll() {
    folders_.Forget(top_ + "/found");
    EXPECT_EQ(PathOf(6), "unknown");
    folders_.Remove(Id(2));
    EXPECT_EQ(PathOf(3), "unknown");
    EXPECT_EQ(PathOf(5), top_ + "/c/sub");
    folders_.Remove(Id(1));
    EXPECT_EQ(PathOf(5), "unknown");
  }

 private:
  [[nodiscard]] FileIdentity Id(std::uint64_t inode) const { return {device_, inode}; }
  [[nodiscard]] std::string PathOf(std::uint64_t inode) { return folders_.PathOf(Id(inode)).value_or("unknown"); }

  FolderIdentities& folders_;
  const std::uint64_t device_;
  const std::string top_;
};

TEST(FoldersAcrossThreadsTest, EachThreadFindsItsOwnFoldersWhereItPutThem) {
  FolderIdentities folders;
  InThreads([&](std::uint64_t number) {
    Worker worker(folders, number);
    for (int round = 0; round < 300; ++round) {
      worker.LearnAll();
      GiveWay();
      worker.MoveAll();
      GiveWay();
      worker.FindOneMore();
      GiveWay();
      worker.LoseAll();
    }
  });
  EXPECT_EQ(folders.Size(), 1U) << "the root";
}

TEST(FoldersAcrossThreadsTest, AFolderThatAllOfThemMoveIsAlwaysSomewhereWithItsContent) {
  constexpr FileIdentity kFolder{1, 10};
  constexpr FileIdentity kContent{1, 11};
  FolderIdentities folders;
  folders.Learn(kFolder, "/srv/t0");
  folders.Learn(kContent, "/srv/t0/content");
  InThreads([&](std::uint64_t number) {
    const std::string mine = "/srv/t" + std::to_string(number);
    for (int round = 0; round < 300; ++round) {
      const std::string from = folders.PathOf(kFolder).value_or("unknown");
      GiveWay();
      folders.Rename(kFolder, from, mine);
      const std::string content = folders.PathOf(kContent).value_or("unknown");
      EXPECT_TRUE(content.starts_with("/srv/t") && content.ends_with("/content")) << content;
    }
  });
  EXPECT_EQ(folders.PathOf(kContent), folders.PathOf(kFolder).value_or("unknown") + "/content");
  EXPECT_EQ(folders.Size(), 4U) << "the root, /srv, the folder and its content";
}

TEST(FoldersAcrossThreadsTest, TheBoundHoldsWhileAllOfThemPushEachOtherOut) {
  constexpr std::size_t kRoom = 50;
  FolderIdentities folders(kRoom);
  InThreads([&](std::uint64_t number) {
    for (std::uint64_t i = 1; i <= 1000; ++i) {
      const std::string top = "/t" + std::to_string(i % 7);
      folders.Learn({number, i}, top + "/" + std::to_string(number));
      folders.Rename({number, i}, top + "/" + std::to_string(number), "/moved/" + std::to_string(i % 20));
      folders.AddFound({number, i}, "found", {number, 1000 + i});
      if (i % 50 == 0) folders.Forget("/moved");
      if (i % 10 == 0) GiveWay();
      EXPECT_LE(folders.Size(), kRoom);
    }
  });
  for (std::uint64_t device = 1; device <= kThreads; ++device) {
    for (std::uint64_t inode = 1; inode <= 2000; ++inode) {
      const FileIdentity folder{device, inode};
      const auto path = folders.PathOf(folder);
      EXPECT_TRUE(!path || folders.FolderAt(*path) == folder) << *path;
    }
  }
}

// --- mounts

TEST(MountsAcrossThreadsTest, EachThreadSeesTheTableBeforeOrAfterAChange) {
  fakes::TempFolder proc;
  fs::create_directory(proc / "self");
  const std::string before =
      "21 1 254:1 / / rw - ext4 /dev/vda1 rw\n"
      "30 21 0:45 / /srv rw - tmpfs none rw\n";
  const std::string file = proc.Write("self/mountinfo", before);
  const auto digit = static_cast<off_t>(before.find("0:45") + 3);
  MountTable mounts(proc.Path(), [](int) { return true; });
  std::atomic<bool> is_over{false};
  std::thread kernel([&] {
    const common::util::UniqueFd list(open(file.c_str(), O_WRONLY | O_CLOEXEC));
    for (int change = 1; change <= 501; ++change) {
      EXPECT_EQ(pwrite(list.Get(), change % 2 == 0 ? "5" : "6", 1, digit), 1);
      GiveWay();
    }
    is_over = true;
  });
  InThreads([&](std::uint64_t number) {
    const std::string path = "/srv/t" + std::to_string(number);
    do {
      const auto below = mounts.Find(path);
      ASSERT_TRUE(below);
      EXPECT_EQ(below->type, "tmpfs");
      EXPECT_TRUE(below->device == makedev(0, 45) || below->device == makedev(0, 46)) << below->device;
      EXPECT_EQ(mounts.Find("/etc"), (MountTable::Mount{makedev(254, 1), "ext4"}));
    } while (!is_over);
  });
  kernel.join();
  EXPECT_EQ(mounts.Find("/srv"), (MountTable::Mount{makedev(0, 46), "tmpfs"}));
}

// --- events and the scan

FileIdentity IdentityOf(const std::string& path) {
  struct stat found {};
  EXPECT_EQ(lstat(path.c_str(), &found), 0) << path;
  return FileIdentity::Of(found);
}

// Somebody works in a folder that he has opened, while he stands in another one, which is what the records name.
class WorkByDescriptor {
 public:
  WorkByDescriptor(std::shared_ptr<FolderIdentities> folders, std::shared_ptr<MountTable> mounts, std::string work,
                   std::string elsewhere)
      : work_(std::move(work)), elsewhere_(std::move(elsewhere)) {
    context_->folders = std::move(folders);
    context_->mounts = std::move(mounts);
    context_->proc_root = elsewhere_;  // he has ended
  }

  void Make(const std::string& name) {
    fs::create_directory(PathOf(name));
    AuditRecords records;
    Call(records, 258, "2").Path("PARENT", elsewhere_, work_).Path("CREATE", name, PathOf(name));
    const CreateEvent event(records, context_);
    ASSERT_EQ(event.Refusal(), nullptr) << *event.Refusal();
    EXPECT_EQ(event.GetFile()->GetPath(), PathOf(name));
  }
  void Rename(const std::string& from, const std::string& to) {
    fs::rename(PathOf(from), PathOf(to));
    AuditRecords records;
    Call(records, 264, "4").Path("PARENT", elsewhere_, work_).Path("PARENT", elsewhere_, work_);
    records.Path("DELETE", from, PathOf(to)).Path("CREATE", to, PathOf(to));
    std::unique_ptr<DeleteEvent> replaced;
    const RenameEvent event(records, context_, &replaced);
    ASSERT_EQ(event.Refusal(), nullptr) << *event.Refusal();
    EXPECT_EQ(event.GetFile()->GetPath(), PathOf(from));
    EXPECT_EQ(event.GetNewFile()->GetPath(), PathOf(to));
  }
  void Remove(const std::string& name) {
    AuditRecords records;
    Call(records, 263, "2", {{"a2", "200"}}).Path("PARENT", elsewhere_, work_).Path("DELETE", name, PathOf(name));
    fs::remove(PathOf(name));
    const DeleteEvent event(records, context_);
    ASSERT_EQ(event.Refusal(), nullptr) << *event.Refusal();
    EXPECT_EQ(event.GetFile()->GetPath(), PathOf(name));
  }
  [[nodiscard]] std::string PathOf(const std::string& name) const { return work_ + "/" + name; }

 private:
  AuditRecords& Call(AuditRecords& records, unsigned number, const std::string& items,
                     AuditRecords::Fields changes = {{"a2", "3"}}) const {
    changes["a0"] = "3";
    changes["items"] = items;
    return records.Syscall(number, changes).Cwd(elsewhere_);
  }

  const std::string work_;
  const std::string elsewhere_;
  std::shared_ptr<FileContext> context_ = std::make_shared<FileContext>();
};

class EventsAndScanTest : public ::testing::Test {
 protected:
  static constexpr int kOld = 40;

  EventsAndScanTest() {
    for (int i = 0; i < kOld; ++i) {
      fs::create_directories(OldFolder("work", i));
      fs::create_directories(OldFolder("other", i));
    }
    fs::create_directory(root_ / "elsewhere");
    folders_->Learn(IdentityOf(root_ / "work"), root_ / "work");
    scan_.Start();
  }

  [[nodiscard]] std::string OldFolder(const std::string& top, int i) const {
    return root_ / (top + "/old/" + std::to_string(i));
  }
  [[nodiscard]] bool IsKnown(const std::string& path) { return folders_->FolderAt(path).has_value(); }
  [[nodiscard]] bool AreKnown(const std::string& top) {
    for (int i = 0; i < kOld; ++i) {
      if (!IsKnown(OldFolder(top, i))) return false;
    }
    return true;
  }

  fakes::TempFolder root_;
  std::shared_ptr<FolderIdentities> folders_ = std::make_shared<FolderIdentities>();
  std::shared_ptr<MountTable> mounts_ = std::make_shared<MountTable>();
  FolderScan scan_{*folders_, *mounts_, common::util::Clock::Real(), [] { return std::chrono::nanoseconds(0); }};
};

TEST_F(EventsAndScanTest, EventsHaveTheirPathsWhileTheScanFillsTheSameMap) {
  constexpr int kRounds = 150;
  std::atomic<bool> is_over{false};
  std::thread parser([&] {
    WorkByDescriptor work(folders_, mounts_, root_ / "work", root_ / "elsewhere");
    for (int i = 0; i < kRounds; ++i) {
      const std::string number = std::to_string(i);
      work.Make("made-" + number);
      work.Rename("made-" + number, "renamed-" + number);
      if (i % 2 == 0) work.Remove("renamed-" + number);
      GiveWay();
    }
    is_over = true;
  });
  // Rules come and go, so that the scan always has something to look for; the folder that is worked in stays watched.
  do {
    scan_.Watch({{root_ / "work"}, {root_ / "other"}});
    while (!AreKnown("other") && !is_over) GiveWay();
    scan_.Watch({{root_ / "work"}});
    while (IsKnown(root_ / "other") && !is_over) GiveWay();
  } while (!is_over);
  parser.join();

  while (!AreKnown("work")) GiveWay();  // the scan is on its way
  scan_.Stop();
  for (int i = 0; i < kOld; ++i) {
    EXPECT_EQ(folders_->PathOf(IdentityOf(OldFolder("work", i))), OldFolder("work", i));
  }
  for (int i = 1; i < kRounds; i += 2) {
    const std::string path = root_ / ("work/renamed-" + std::to_string(i));
    EXPECT_EQ(folders_->PathOf(IdentityOf(path)), path);
  }
}

}  // namespace
}  // namespace zagent::audit::internal

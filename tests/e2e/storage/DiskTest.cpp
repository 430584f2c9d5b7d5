// A spool on disks that fail in the ways that real ones do.
#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "common/src/storage/SpoolStorage.h"
#include "tests/e2e/storage/NumberedItems.h"
#include "tests/e2e/storage/Tmpfs.h"
#include "tests/fakes/FakeClock.h"
#include "tests/fakes/FakeDataFormatter.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::e2e {
namespace {

using common::Scheduler;
using common::SpoolStorage;
using common::StorageCode;
using Poco::Message;

class DiskTest : public ::testing::Test {
 protected:
  DiskTest() { scheduler_.Start(); }

  // Files of at most 16 KiB.
  void Open() { Open(folder_.Path()); }
  void Open(const std::string& folder) {
    spool_.reset();
    spool_ = std::make_unique<SpoolStorage>(scheduler_, folder, "items", std::make_unique<fakes::FakeDataFormatter>(),
                                            SpoolStorage::Limits{1, 60, 16}, SpoolStorage::kMaxFileCount, clock_);
  }

  // Writes the next item. False when the spool refused it, which it hands back then.
  bool Write() {
    const std::string item = MakeItem(next_);
    const auto result = spool_->Write(fakes::ToBytes(item));
    if (fakes::ToText(result->data) == item && result->code != StorageCode::Success) return false;
    accepted_.push_back(next_++);
    return true;
  }

  // The spool asks the disk again.
  void LetASecondPass() { clock_.Advance(std::chrono::seconds(1)); }

  // Reads and deletes the oldest file. False when there is none.
  bool Take() {
    auto file = spool_->Read();
    if (file->code != StorageCode::Success) return false;
    const auto numbers = ParseItems(file->data);
    EXPECT_TRUE(numbers) << "a torn file";
    if (numbers) taken_.insert(taken_.end(), numbers->begin(), numbers->end());
    EXPECT_TRUE(spool_->Delete(std::move(file)));
    return true;
  }

  // What was accepted comes out, in order, to the last item.
  void ExpectNothingLost() {
    Open();  // the cache of the old one becomes a file
    while (Take()) {
    }
    EXPECT_EQ(taken_, accepted_);
  }

  const fakes::LogCapture log_;
  const fakes::TempFolder folder_;
  fakes::FakeClock clock_;
  Scheduler scheduler_{clock_};
  std::unique_ptr<SpoolStorage> spool_;
  std::uint64_t next_ = 1;
  std::vector<std::uint64_t> accepted_;
  std::vector<std::uint64_t> taken_;
};

TEST_F(DiskTest, AFullDiskRefusesAndLosesNothingThatWasAccepted) {
  const Tmpfs disk(folder_.Path(), "100k");
  Open();
  int refused = 0;
  for (int i = 0; i < 5000 && refused < 100; ++i) refused += Write() ? 0 : 1;
  ASSERT_EQ(refused, 100) << "the disk was never full";
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR, "]: Storage: Failed to write to ")) << log_.All();
  EXPECT_TRUE(log_.Has("No space left on device (28)"));
  for (int round = 0; round < 3; ++round) {
    ASSERT_TRUE(Take());
    LetASecondPass();
    const std::size_t accepted = accepted_.size();
    refused = 0;
    for (int i = 0; i < 500 && refused == 0; ++i) refused += Write() ? 0 : 1;
    EXPECT_EQ(refused, 1) << "it is full again";
    EXPECT_GT(accepted_.size(), accepted);
  }
  ASSERT_TRUE(Take());
  ASSERT_TRUE(Take());
  ExpectNothingLost();
}

TEST_F(DiskTest, AReadOnlyFolderKeepsItsFilesAndTakesNewOnesLater) {
  const Tmpfs disk(folder_.Path(), "10m");
  Open();
  while (!std::filesystem::exists(folder_ / "items.0001")) ASSERT_TRUE(Write());
  disk.Remount(true);
  int refused = 0;
  for (int i = 0; i < 1000 && refused == 0; ++i) refused += Write() ? 0 : 1;
  EXPECT_EQ(refused, 1);
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR,
                       "]: Storage: Failed to create " + (folder_ / "items.0002") + ": Read-only file system (30)"))
      << log_.All();
  auto file = spool_->Read();
  EXPECT_EQ(file->code, StorageCode::Success);
  EXPECT_FALSE(spool_->Delete(std::move(file)));
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR, "]: SpoolStorage: Failed to delete " + (folder_ / "items.0001") +
                                                ": Read-only file system (30)"));
  disk.Remount(false);
  LetASecondPass();
  ASSERT_TRUE(Write());
  ExpectNothingLost();
}

TEST_F(DiskTest, AFolderThatIsRemovedWhileItRunsCostsItsFilesOnly) {
  const std::string spool_folder = folder_ / "spool";
  std::filesystem::create_directory(spool_folder);
  std::filesystem::permissions(spool_folder, std::filesystem::perms::owner_all);
  Open(spool_folder);
  while (!std::filesystem::exists(spool_folder + "/items.0001")) ASSERT_TRUE(Write());
  const std::uint64_t last_of_the_file = accepted_.back() - 1;
  std::filesystem::remove_all(spool_folder);
  EXPECT_EQ(spool_->Read()->code, StorageCode::NotFound);
  int refused = 0;
  for (int i = 0; i < 1000 && refused == 0; ++i) refused += Write() ? 0 : 1;
  EXPECT_EQ(refused, 1);
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR, "]: Storage: Failed to create "));
  std::filesystem::create_directory(spool_folder);
  LetASecondPass();
  ASSERT_TRUE(Write());
  spool_.reset();
  accepted_.erase(accepted_.begin(), accepted_.begin() + static_cast<std::ptrdiff_t>(last_of_the_file));
  Open(spool_folder);
  while (Take()) {
  }
  EXPECT_EQ(taken_, accepted_);
}

}  // namespace
}  // namespace zagent::e2e

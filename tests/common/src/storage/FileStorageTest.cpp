#include "common/src/storage/FileStorage.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <string>

#include "tests/fakes/FakeDataFormatter.h"
#include "tests/fakes/FaultyFiles.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::common {
namespace {

using fakes::ToBytes;
using fakes::ToText;

class FileStorageTest : public ::testing::Test {
 protected:
  static std::string ErrorOf(const std::function<void()>& call) {
    try {
      call();
    } catch (const StorageException& error) {
      return error.what();
    }
    return "";
  }

  // Puts another file in the place of the storage's.
  void Replace() const {
    folder_.Write("other", "stranger");
    std::filesystem::rename(folder_ / "other", storage_.GetPath());
  }

  const fakes::TempFolder folder_;
  FileStorage storage_{folder_ / "state"};
};

TEST_F(FileStorageTest, WritesReadsAppendsAndDeletesItsFile) {
  EXPECT_EQ(storage_.GetPath(), folder_ / "state");
  EXPECT_EQ(storage_.Write(ToBytes("one"))->code, StorageCode::Success);
  auto read = storage_.Read();
  EXPECT_EQ(ToText(read->data), "one");
  EXPECT_EQ(storage_.Append(ToBytes("two"), std::move(read))->code, StorageCode::Success);
  read = storage_.Read();
  EXPECT_EQ(ToText(read->data), "onetwo");
  EXPECT_TRUE(storage_.Delete(std::move(read)));
  EXPECT_EQ(storage_.Read()->code, StorageCode::NotFound);
  EXPECT_FALSE(storage_.HasFreeSpace());
}

TEST_F(FileStorageTest, ASecondWriteLeavesTheFileUntouched) {
  storage_.Write(ToBytes("one"));
  EXPECT_EQ(storage_.Write(ToBytes("two"))->code, StorageCode::AlreadyExists);
  EXPECT_EQ(folder_.Read("state"), "one");
}

TEST_F(FileStorageTest, DeletesOnlyTheFileThatWasRead) {
  storage_.Write(ToBytes("one"));
  auto read = storage_.Read();
  Replace();
  EXPECT_FALSE(storage_.Delete(std::move(read)));
  EXPECT_EQ(folder_.Read("state"), "stranger");
}

TEST_F(FileStorageTest, DeletesWithoutACheckWhenNothingWasRead) {
  storage_.Write(ToBytes("one"));
  EXPECT_TRUE(storage_.Delete(nullptr));
  storage_.Write(ToBytes("one"));
  EXPECT_TRUE(storage_.Delete(std::make_unique<StorageResult>()));
  EXPECT_FALSE(storage_.Delete(nullptr)) << "there was no file";
}

TEST_F(FileStorageTest, AppendsOnlyToTheFileThatWasRead) {
  storage_.Write(ToBytes("one"));
  auto read = storage_.Read();
  Replace();
  EXPECT_EQ(storage_.Append(ToBytes("two"), std::move(read))->code, StorageCode::FileReplaced);
  EXPECT_EQ(storage_.Append(ToBytes("two"), nullptr)->code, StorageCode::FileReplaced);
  EXPECT_EQ(folder_.Read("state"), "stranger");
}

TEST_F(FileStorageTest, HasNoAsynchronousOperations) {
  storage_.Write(ToBytes("one"));
  bool called = false;
  const auto done = [&called](bool) { called = true; };
  const auto result = [&called](std::unique_ptr<StorageResult>) { called = true; };
  EXPECT_EQ(ErrorOf([&] { storage_.ClearAsync(done); }), "FileStorage::ClearAsync is not implemented");
  EXPECT_EQ(ErrorOf([&] { storage_.DeleteAsync(nullptr, done); }), "FileStorage::DeleteAsync is not implemented");
  EXPECT_EQ(ErrorOf([&] { storage_.ReadAsync(result); }), "FileStorage::ReadAsync is not implemented");
  EXPECT_EQ(ErrorOf([&] { storage_.WriteAsync({}, result); }), "FileStorage::WriteAsync is not implemented");
  EXPECT_FALSE(called);
  EXPECT_EQ(folder_.Read("state"), "one");
}

TEST_F(FileStorageTest, AFileWhoseAttributesCannotBeHadIsDeletedAndOneThatCannotGoIsSaid) {
  using Call = fakes::FaultyFiles::Call;
  fakes::FaultyFiles disk;
  FileStorage storage(folder_ / "state", disk);
  storage.Write(ToBytes("one"));
  disk.Fail(Call::Unlink, EIO);
  EXPECT_FALSE(storage.Delete(storage.Read()));
  EXPECT_EQ(folder_.Read("state"), "one");
  auto read = storage.Read();
  Replace();
  disk.Fail(Call::Stat, EIO);
  EXPECT_TRUE(storage.Delete(std::move(read))) << "only another file that is seen there is spared";
}

}  // namespace
}  // namespace zagent::common

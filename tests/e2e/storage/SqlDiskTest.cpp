// A database on disks that fail in the ways that real ones do: a list is there whole or not at all, and what was
// written before stays.
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>

#include "common/src/storage/Serializer.h"
#include "common/src/storage/SqlStorageFactory.h"
#include "tests/e2e/storage/Tmpfs.h"
#include "tests/fakes/FakeSqlFormatter.h"
#include "tests/fakes/FileSizeLimit.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TempFolder.h"
#include "tests/fakes/WhatOf.h"

namespace zagent::e2e {
namespace {

using common::SqlStorage;
using fakes::FileSizeLimit;
using fakes::WhatOf;
using Poco::Message;

constexpr int kRowsInList = 20;

class SqlDiskTest : public ::testing::Test {
 protected:
  void Open() {
    storage_.reset();
    storage_ = common::OpenSqlStorage(
        folder_.Path(), "Test.db", [] { return std::make_unique<fakes::FakeSqlFormatter>(); }, nullptr,
        SqlStorage::Caching::Off);
  }
  // Writes the next list. Empty when it was written, else what was thrown.
  std::string Write() {
    SqlStorage::Rows rows;
    for (int i = 0; i < kRowsInList; ++i) {
      const std::string key = std::to_string(lists_) + "/" + std::to_string(i);
      rows.emplace_back(key, storage_->MakeRow(key, lists_, std::string(200, 'x')));
    }
    const std::string what = WhatOf([&] { storage_->Write("Items", rows); });
    if (what != "nothing was thrown") return what;
    ++lists_;
    return "";
  }
  // Every list that was written, whole, and nothing of another, in this connection and in a new one.
  void ExpectAllOrNothing() {
    for (int i = 0; i < 2; ++i) {
      const common::Bytes counts =
          storage_->Query("SELECT count(*), count(DISTINCT Number), ifnull(max(Number), -1) from Items").Next();
      common::Serializer columns(counts);
      EXPECT_EQ(columns.GetInteger(), lists_ * kRowsInList);
      EXPECT_EQ(columns.GetInteger(), lists_);
      EXPECT_EQ(columns.GetInteger(), lists_ - 1);
      EXPECT_FALSE(storage_->IsDamaged());
      Open();
      EXPECT_FALSE(std::filesystem::exists(folder_ / "Test.db.damaged"));
    }
  }

  const fakes::LogCapture log_;
  const fakes::TempFolder folder_;
  std::unique_ptr<SqlStorage> storage_;
  std::int64_t lists_ = 0;
};

TEST_F(SqlDiskTest, AFullDiskRefusesAListWholeAndTakesItWhenThereIsRoom) {
  const Tmpfs disk(folder_.Path(), "300k");
  folder_.Write("ballast", std::string(40 * 1024, 'x'));
  Open();
  std::string what;
  for (int i = 0; i < 1000 && what.empty(); ++i) what = Write();
  ASSERT_FALSE(what.empty()) << "the disk was never full";
  EXPECT_GE(lists_, 3);
  EXPECT_TRUE(log_.Has("database or disk is full")) << log_.All();
  std::filesystem::remove(folder_ / "ballast");
  ExpectAllOrNothing();
  EXPECT_EQ(Write(), "");
  ExpectAllOrNothing();
}

TEST_F(SqlDiskTest, AReadOnlyDiskRefusesAListAndIsStillRead) {
  const Tmpfs disk(folder_.Path(), "2m");
  Open();
  EXPECT_EQ(Write(), "");
  storage_.reset();  // a disk with a file that is open for writing stays writable
  disk.Remount(true);
  Open();
  EXPECT_EQ(Write(), "Failed to execute query");
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR, "': attempt to write a readonly database")) << log_.All();
  EXPECT_EQ(storage_->Read("Items", "0/0"), storage_->MakeRow("0/0", std::int64_t{0}, std::string(200, 'x')));
  storage_.reset();
  disk.Remount(false);
  Open();
  EXPECT_EQ(Write(), "");
  ExpectAllOrNothing();
}

TEST_F(SqlDiskTest, AFileThatMayNotGrowFailsInTheMiddleOfTheCommit) {
  Open();
  EXPECT_EQ(Write(), "");
  const auto size = std::filesystem::file_size(folder_ / "Test.db");
  {
    const FileSizeLimit limit(size + 4096);
    std::string what;
    for (int i = 0; i < 100 && what.empty(); ++i) what = Write();
    EXPECT_FALSE(what.empty()) << "it grew";
  }
  ExpectAllOrNothing();
  EXPECT_EQ(Write(), "");
  ExpectAllOrNothing();
}

}  // namespace
}  // namespace zagent::e2e

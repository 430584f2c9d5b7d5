// A database on a disk that fails.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "common/src/storage/SqlException.h"
#include "tests/common/src/storage/SqlStorageFixture.h"
#include "tests/fakes/FaultySqlite.h"
#include "tests/fakes/WhatOf.h"

namespace zagent::common {
namespace {

using fakes::FaultySqlite;
using fakes::WhatOf;
using Poco::Message;
using testing::AnyOf;
using Call = FaultySqlite::Call;

class SqlStorageDiskTest : public SqlStorageFixture {
 protected:
  // Rows of several pages.
  SqlStorage::Rows List(const std::string& text) {
    SqlStorage::Rows rows;
    for (int i = 0; i < 40; ++i) {
      const std::string key = std::to_string(i);
      rows.emplace_back(key, Row(key, i, std::string(400, 'x') + text));
    }
    return rows;
  }
  // What stands at the end of all rows; "torn" when they differ.
  std::string Texts() {
    const std::string first = TextOf("0");
    for (int i = 1; i < 40; ++i) {
      if (TextOf(std::to_string(i)) != first) return "torn";
    }
    return first.substr(400);
  }

  FaultySqlite disk_;
};

// A commit stands from the moment when its journal is cut to nothing: only what fails behind that leaves a list in
// place that was told as failed.
TEST_F(SqlStorageDiskTest, AListIsThereAsAWholeOrNotAtAllWhicheverCallFails) {
  Open();
  storage_->Write("Items", List("old"));
  int failed_writes = 0;
  int standing = 0;
  for (int healthy_calls = 0;; ++healthy_calls) {
    int calls = 0;
    disk_.fault = [&](Call call) {
      return call != Call::Read && calls++ >= healthy_calls ? SQLITE_IOERR_WRITE : SQLITE_OK;
    };
    const std::string failure = WhatOf<StorageException>([&] { storage_->Write("Items", List("new")); });
    disk_.fault = nullptr;
    if (failure == "nothing was thrown") break;
    ++failed_writes;
    EXPECT_THAT(failure, AnyOf("Failed to execute query", "Failed to commit trasaction: disk I/O error"))
        << "after " << healthy_calls << " calls";
    const std::string left = Texts();
    EXPECT_THAT(left, AnyOf("old", "new")) << "after " << healthy_calls << " calls";
    EXPECT_FALSE(storage_->IsDamaged());
    Open();
    EXPECT_EQ(Texts(), left) << "on the disk, after " << healthy_calls << " calls";
    if (left == "new") ++standing;
    storage_->Write("Items", List("old"));
  }
  EXPECT_GT(failed_writes, 10);
  EXPECT_LE(standing, 1);
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR, "disk I/O error")) << log_.All();
  Open();
  EXPECT_EQ(Texts(), "new");
}

TEST_F(SqlStorageDiskTest, ADiskThatFillsUpTakesNothingAndIsTriedAgain) {
  Open();
  storage_->Write("Items", List("old"));
  disk_.fault = [](Call call) { return call == Call::Write ? SQLITE_FULL : SQLITE_OK; };
  EXPECT_EQ(WhatOf<StorageException>([&] { storage_->Write("Items", List("new")); }), "Failed to execute query");
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR, "database or disk is full")) << log_.All();
  disk_.fault = nullptr;
  EXPECT_EQ(Texts(), "old");
  storage_->Write("Items", List("new"));
  EXPECT_EQ(Texts(), "new");
}

TEST_F(SqlStorageDiskTest, ARowThatCannotBeReadIsAFailureOfThatReadAlone) {
  Open();
  storage_->Write("Items", List("old"));
  Open();
  disk_.fault = [](Call call) { return call == Call::Read ? SQLITE_IOERR_READ : SQLITE_OK; };
  EXPECT_EQ(WhatOf<StorageException>([&] { storage_->Read("Items", "1"); }), "Failed to compile query");
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR, "disk I/O error")) << log_.All();
  disk_.fault = nullptr;
  EXPECT_EQ(Texts(), "old");
  EXPECT_FALSE(storage_->IsDamaged()) << "a disk that fails has not torn the file";
}

}  // namespace
}  // namespace zagent::common

#include "src/ioc/protobuf/ReportedObjects.h"

#include <gtest/gtest.h>

#include "src/ioc/process/SnapshotDBFile.h"
#include "tests/fakes/Gate.h"
#include "tests/src/ioc/protobuf/SnapshotFixture.h"

namespace zagent::ioc::internal::protobuf {
namespace {

using fakes::Gate;
using Poco::Message;
using Table = ReportedObjects::Table;

class ReportedObjectsTest : public testing::Test, protected SnapshotFixture {
 protected:
  // The snapshot's thread does nothing until the gate opens.
  std::shared_ptr<Gate> Block() {
    const auto started = std::make_shared<Gate>();
    const auto release = std::make_shared<Gate>();
    snapshot_->ReadAsync("File", "nobody", [started, release](const common::SqlStorage::Result&) {
      started->Open();
      EXPECT_TRUE(release->Await());
    });
    EXPECT_TRUE(started->Await());
    return release;
  }
  void Add(const std::string& id, std::int64_t size = 0) {
    reported_->Apply({Table::File, id, ReportedObjects::FileRow(id, "", size, {}, {}), "/" + id});
  }
  void Remove(const std::string& id) { reported_->Apply({Table::File, id, {}, "/" + id}); }
  // Waits until all that was handed over is on disk.
  void Settle() {
    reported_ = std::make_unique<ReportedObjects>(*snapshot_);
    snapshot_->Vacuum();
  }
  std::int64_t SizeOnDisk(const std::string& id) {
    const common::Bytes row = snapshot_->Query("SELECT * from File WHERE RowID = '" + id + "'").Next();
    return row.empty() ? -1 : models::SnapshotDBFile(row).size;
  }

  std::unique_ptr<ReportedObjects> reported_ = std::make_unique<ReportedObjects>(*snapshot_);
};

TEST_F(ReportedObjectsTest, WhatWasAddedIsKnownAtOnceAndOnDiskSoon) {
  EXPECT_FALSE(reported_->Has(Table::File, "a"));
  Add("a", 5);
  EXPECT_TRUE(reported_->Has(Table::File, "a"));
  EXPECT_FALSE(reported_->Has(Table::Directory, "a"));
  Settle();
  EXPECT_EQ(SizeOnDisk("a"), 5);
  EXPECT_TRUE(reported_->Has(Table::File, "a"));
}

TEST_F(ReportedObjectsTest, NobodyWaitsForABusyDisk) {
  const auto release = Block();
  Add("first");
  for (int i = 0; i < 1'000; ++i) {
    Add("a", i);
    Add("b", i);
    Remove("b");
  }
  EXPECT_TRUE(reported_->Has(Table::File, "first"));
  EXPECT_TRUE(reported_->Has(Table::File, "a"));
  EXPECT_FALSE(reported_->Has(Table::File, "b"));
  release->Open();
  Settle();
  EXPECT_EQ(SizeOnDisk("first"), 0);
  EXPECT_EQ(SizeOnDisk("a"), 999);
  EXPECT_EQ(SizeOnDisk("b"), -1);
  EXPECT_LE(log_.Count("INSERT or REPLACE INTO File"), 4) << "the last of many changes is written, once";
}

TEST_F(ReportedObjectsTest, WhatIsRemovedIsUnknownAtOnceAndGoneFromDiskSoon) {
  Add("a");
  Add("b");
  Settle();
  const auto release = Block();
  Remove("a");
  Remove("b");
  EXPECT_FALSE(reported_->Has(Table::File, "a"));
  EXPECT_FALSE(reported_->Has(Table::File, "b"));
  release->Open();
  Settle();
  EXPECT_EQ(SizeOnDisk("a"), -1);
  EXPECT_EQ(SizeOnDisk("b"), -1);
}

TEST_F(ReportedObjectsTest, WhatWaitsIsHandedOverAtTheEnd) {
  const auto release = Block();
  Add("first");
  Add("second");
  reported_.reset();
  release->Open();
  snapshot_->Vacuum();
  EXPECT_EQ(SizeOnDisk("first"), 0);
  EXPECT_EQ(SizeOnDisk("second"), 0);
}

TEST_F(ReportedObjectsTest, WhatTheDiskRefusesIsOneErrorAndNothingIsHeldUp) {
  snapshot_->Execute("CREATE TRIGGER refuse BEFORE INSERT ON File BEGIN SELECT RAISE(ABORT, 'no'); END");
  const auto release = Block();
  Add("first");
  Add("a");
  Add("b");
  Add("c");
  release->Open();
  snapshot_->Vacuum();  // the first is refused, and the others are handed over
  snapshot_->Vacuum();
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR, "[IOC]: Failed to update 'File' table in snapshot DB for file /first"));
  EXPECT_TRUE(
      log_.Has(Message::PRIO_ERROR, "[IOC]: Failed to update 'File' table in snapshot DB for file /a and 2 more"));
  EXPECT_FALSE(reported_->Has(Table::File, "a"));
  snapshot_->Execute("DROP TRIGGER refuse");
  Add("d");
  Settle();
  EXPECT_EQ(SizeOnDisk("d"), 0);
  EXPECT_EQ(SizeOnDisk("a"), -1);
}

TEST_F(ReportedObjectsTest, AtTheBoundAChangeIsForgottenWithAnError) {
  const auto release = Block();
  Add("first");  // under way
  for (std::size_t i = 0; i < ReportedObjects::kMaxWaiting; ++i) Add(std::to_string(i));
  EXPECT_EQ(log_.Count("Failed to update"), 0);
  Add("0", 7);  // in the place of one that waits
  EXPECT_EQ(log_.Count("Failed to update"), 0);
  Add("beyond");
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR, "[IOC]: Failed to update 'File' table in snapshot DB for file /beyond"));
  release->Open();
  Settle();
  EXPECT_EQ(SizeOnDisk("0"), 7);
  EXPECT_EQ(SizeOnDisk("beyond"), -1);
}

TEST_F(ReportedObjectsTest, ChangesWhileOthersAreWrittenKeepTheirOrder) {
  for (int round = 0; round < 200; ++round) {
    Add("a", round);
    Add("b", round);
    if (round % 3 == 0) Remove("b");
    ASSERT_TRUE(reported_->Has(Table::File, "a"));
    ASSERT_EQ(reported_->Has(Table::File, "b"), round % 3 != 0);
  }
  Settle();
  EXPECT_EQ(SizeOnDisk("a"), 199);
  EXPECT_EQ(SizeOnDisk("b"), 199);
}

}  // namespace
}  // namespace zagent::ioc::internal::protobuf

#include "src/ioc/protobuf/ReportedObjects.h"

#include <gtest/gtest.h>

#include "src/ioc/process/SnapshotDBFile.h"
#include "tests/fakes/FakeClock.h"
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
  // On its way to the spool.
  ReportedObjects::Answer Expect(const std::string& id, std::int64_t size = 0) {
    return reported_->Expect({{Table::File, id, ReportedObjects::FileRow(id, "", size, {}, {}), "/" + id}});
  }
  ReportedObjects::Answer ExpectEnd(const std::string& id) {
    return reported_->Expect({{Table::File, id, {}, "/" + id}});
  }
  // In the spool.
  void Add(const std::string& id, std::int64_t size = 0) { Expect(id, size)(true); }
  void Remove(const std::string& id) { ExpectEnd(id)(true); }
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
  for (int i = 0; i < 99; ++i) Add("beyond that " + std::to_string(i));
  release->Open();
  Settle();
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR,
                       "[IOC]: Failed to update 'File' table in snapshot DB for file /beyond and 99 more"));
  EXPECT_EQ(log_.Count("Failed to update"), 1);
  EXPECT_EQ(SizeOnDisk("0"), 7);
  EXPECT_EQ(SizeOnDisk("beyond"), -1);
}

TEST_F(ReportedObjectsTest, WhatIsOnItsWayToTheSpoolIsKnownAndNotOnDisk) {
  const auto answer = Expect("a");
  EXPECT_TRUE(reported_->Has(Table::File, "a"));
  snapshot_->Vacuum();
  EXPECT_EQ(SizeOnDisk("a"), -1);
  answer(true);
  Settle();
  EXPECT_EQ(SizeOnDisk("a"), 0);
}

TEST_F(ReportedObjectsTest, WhatTheSpoolRefusesIsAsItWasBefore) {
  Add("known", 1);
  const auto updated = Expect("known", 2);
  const auto removed = ExpectEnd("known");
  const auto added = Expect("new");
  EXPECT_FALSE(reported_->Has(Table::File, "known"));
  EXPECT_TRUE(reported_->Has(Table::File, "new"));
  added(false);
  EXPECT_FALSE(reported_->Has(Table::File, "new"));
  removed(false);
  EXPECT_TRUE(reported_->Has(Table::File, "known"));
  updated(false);
  Settle();
  EXPECT_EQ(SizeOnDisk("known"), 1);
  EXPECT_EQ(SizeOnDisk("new"), -1);
}

TEST_F(ReportedObjectsTest, AChangeThatIsRefusedAtOnceLeavesTheOneBeforeItToItsOwnAnswer) {
  const auto first = Expect("a", 1);
  Expect("a", 2)(false);
  EXPECT_TRUE(reported_->Has(Table::File, "a"));
  first(true);
  Settle();
  EXPECT_EQ(SizeOnDisk("a"), 1);
}

TEST_F(ReportedObjectsTest, AllChangesOfAMessageShareItsAnswer) {
  const auto expect = [&](const std::string& from, const std::string& to) {
    return reported_->Expect({{Table::File, from, {}, "/" + from},
                              {Table::File, to, ReportedObjects::FileRow(to, "", 7, {}, {}), "/" + to}});
  };
  Add("old");
  expect("old", "new")(false);
  EXPECT_TRUE(reported_->Has(Table::File, "old"));
  EXPECT_FALSE(reported_->Has(Table::File, "new"));
  expect("old", "new")(true);
  Settle();
  EXPECT_EQ(SizeOnDisk("old"), -1);
  EXPECT_EQ(SizeOnDisk("new"), 7);
}

TEST_F(ReportedObjectsTest, AnAnswerAfterTheEndIsStillWritten) {
  const auto taken = Expect("taken");
  const auto refused = Expect("refused");
  const auto release = Block();
  reported_.reset();
  taken(true);
  refused(false);
  release->Open();
  snapshot_->Vacuum();
  EXPECT_EQ(SizeOnDisk("taken"), 0);
  EXPECT_EQ(SizeOnDisk("refused"), -1);
}

TEST_F(ReportedObjectsTest, ManyAnswersAfterTheEndAreWrittenOnceEach) {
  std::vector<ReportedObjects::Answer> answers;
  for (int i = 0; i < 300; ++i) answers.push_back(Expect(std::to_string(i)));
  const auto release = Block();
  Add("under way");
  reported_.reset();
  for (const auto& answer : answers) answer(true);
  release->Open();
  snapshot_->Vacuum();
  EXPECT_EQ(log_.Count("INSERT or REPLACE INTO File"), 301);
  for (const char* id : {"under way", "0", "299"}) EXPECT_EQ(SizeOnDisk(id), 0) << id;
}

TEST_F(ReportedObjectsTest, InABurstAnObjectThatIsToldManyTimesCostsTheDiskOneRow) {
  const fakes::FakeClock clock;
  reported_ = std::make_unique<ReportedObjects>(*snapshot_, ReportedObjects::kMaxRows, clock);
  const auto last = Expect("last");
  for (int i = 0; i < 100; ++i) {
    Add("a", i);
    snapshot_->Vacuum();
  }
  EXPECT_EQ(SizeOnDisk("a"), -1) << "the spool has more to answer";
  EXPECT_TRUE(reported_->Has(Table::File, "a"));
  last(false);
  snapshot_->Vacuum();
  EXPECT_EQ(SizeOnDisk("a"), 99);
  EXPECT_EQ(log_.Count("INSERT or REPLACE INTO File"), 1);
  reported_.reset();
}

TEST_F(ReportedObjectsTest, ABurstThatDoesNotEndIsWrittenOnceASecond) {
  fakes::FakeClock clock;
  reported_ = std::make_unique<ReportedObjects>(*snapshot_, ReportedObjects::kMaxRows, clock);
  const auto never = Expect("never");
  Add("a", 1);
  clock.Advance(ReportedObjects::kLongestWait - std::chrono::milliseconds(1));
  Add("a", 2);
  reported_->HandOverWhatIsDue();
  snapshot_->Vacuum();
  EXPECT_EQ(SizeOnDisk("a"), -1);
  clock.Advance(std::chrono::milliseconds(1));
  Add("b", 3);
  reported_->HandOverWhatIsDue();
  snapshot_->Vacuum();
  EXPECT_EQ(SizeOnDisk("a"), 2);
  EXPECT_EQ(SizeOnDisk("b"), 3);
  never(false);
  reported_.reset();
}

TEST_F(ReportedObjectsTest, ALotIsWrittenInTheMidstOfABurst) {
  const fakes::FakeClock clock;
  reported_ = std::make_unique<ReportedObjects>(*snapshot_, ReportedObjects::kMaxRows, clock);
  const auto never = Expect("never");
  for (std::size_t i = 1; i < ReportedObjects::kLot; ++i) Add(std::to_string(i));
  reported_->HandOverWhatIsDue();
  snapshot_->Vacuum();
  EXPECT_EQ(SizeOnDisk("1"), -1);
  Add("last", 7);
  reported_->HandOverWhatIsDue();
  snapshot_->Vacuum();
  EXPECT_EQ(SizeOnDisk("1"), 0);
  EXPECT_EQ(SizeOnDisk("last"), 7);
  never(false);
  reported_.reset();
}

TEST_F(ReportedObjectsTest, WhoeverExpectsMoreTakesInAndHandsOverALot) {
  const fakes::FakeClock clock;
  reported_ = std::make_unique<ReportedObjects>(*snapshot_, ReportedObjects::kMaxRows, clock);
  const auto never = Expect("never");
  for (std::size_t i = 0; i < ReportedObjects::kLot + 64; ++i) Add(std::to_string(i));
  snapshot_->Vacuum();
  EXPECT_EQ(SizeOnDisk("0"), 0);
  EXPECT_EQ(SizeOnDisk("4999"), 0);
  EXPECT_EQ(SizeOnDisk("5063"), -1) << "it belongs to the next lot";
  never(false);
  reported_.reset();
}

TEST_F(ReportedObjectsTest, WhileNobodyExpectsMoreEach256thAnswerTakesTheOthersIn) {
  const fakes::FakeClock clock;
  reported_ = std::make_unique<ReportedObjects>(*snapshot_, ReportedObjects::kMaxRows, clock);
  std::vector<ReportedObjects::Answer> answers;
  for (int i = 0; i < 20 * 256 + 1; ++i) answers.push_back(Expect(std::to_string(i)));
  for (int i = 0; i < 20 * 256; ++i) {
    EXPECT_EQ(SizeOnDisk("0"), -1);
    answers[i](true);
    if (i % 256 == 255) snapshot_->Vacuum();
  }
  EXPECT_EQ(SizeOnDisk("0"), 0) << "a lot is full";
  EXPECT_EQ(SizeOnDisk("5119"), 0);
  answers.back()(false);
  reported_.reset();
}

TEST_F(ReportedObjectsTest, ARefusalIsTakenInAtOnceWhateverOthersWait) {
  const auto first = Expect("first");
  const auto refused = Expect("refused");
  const auto last = Expect("last");
  first(true);
  refused(false);
  EXPECT_FALSE(reported_->Has(Table::File, "refused"));
  refused(false);  // nobody is told twice, and it would not matter
  last(true);
  Settle();
  EXPECT_EQ(SizeOnDisk("first"), 0);
  EXPECT_EQ(SizeOnDisk("last"), 0);
}

TEST_F(ReportedObjectsTest, ChangesOfOneObjectAreAnsweredInAnyOrder) {
  const auto has = [this] { return reported_->Has(Table::File, "a"); };
  for (const bool is_first_before : {true, false}) {
    const auto first = Expect("a");
    const auto end = ExpectEnd("a");
    const auto again = Expect("a");
    EXPECT_TRUE(has());
    end(false);
    if (is_first_before) {
      first(false);
      EXPECT_TRUE(has()) << "the latest change counts";
      again(false);
    } else {
      again(false);
      EXPECT_TRUE(has()) << "the one before the end does by now";
      first(false);
    }
    EXPECT_FALSE(has());
  }
}

TEST_F(ReportedObjectsTest, AnswersThatNobodyHasTakenInAreForgottenByAClear) {
  const auto before = Expect("before");
  const auto behind = Expect("behind");
  before(true);
  reported_->Clear();
  const auto later = Expect("later");
  behind(true);
  later(true);
  for (const char* id : {"before", "behind"}) EXPECT_FALSE(reported_->Has(Table::File, id)) << id;
  snapshot_->Vacuum();
  EXPECT_EQ(SizeOnDisk("before"), -1);
  EXPECT_EQ(SizeOnDisk("behind"), -1);
  EXPECT_EQ(SizeOnDisk("later"), 0);
  Add("still later");
  snapshot_->Vacuum();
  EXPECT_EQ(SizeOnDisk("still later"), 0) << "nothing else is unanswered";
}

TEST_F(ReportedObjectsTest, BehindTenLotsInARowTheDiskGetsOneAPause) {
  fakes::FakeClock clock;
  reported_ = std::make_unique<ReportedObjects>(*snapshot_, ReportedObjects::kMaxRows, clock);
  const auto add_one_by_one = [&](int from, int to) {
    for (int i = from; i < to; ++i) {
      Add(std::to_string(i));
      snapshot_->Vacuum();
    }
  };
  add_one_by_one(0, 10);
  EXPECT_EQ(SizeOnDisk("9"), 0) << "what comes now and then does not wait";
  add_one_by_one(10, 30);
  EXPECT_LE(log_.Count("INSERT or REPLACE INTO File"), 12);
  EXPECT_EQ(SizeOnDisk("29"), -1);
  EXPECT_TRUE(reported_->Has(Table::File, "29"));

  reported_->HandOverWhatIsDue();
  snapshot_->Vacuum();
  EXPECT_EQ(SizeOnDisk("29"), -1) << "its time has not come";
  clock.Advance(ReportedObjects::kPause);
  reported_->HandOverWhatIsDue();
  snapshot_->Vacuum();
  EXPECT_EQ(SizeOnDisk("29"), 0);
  add_one_by_one(30, 40);
  EXPECT_EQ(SizeOnDisk("39"), -1);

  clock.Advance(ReportedObjects::kLongestWait + ReportedObjects::kPause);
  add_one_by_one(40, 45);
  EXPECT_EQ(SizeOnDisk("39"), 0);
  EXPECT_EQ(SizeOnDisk("44"), 0) << "it has been quiet for long enough";
  reported_.reset();
}

TEST_F(ReportedObjectsTest, AtTheEndNothingWaitsForAPause) {
  const fakes::FakeClock clock;
  reported_ = std::make_unique<ReportedObjects>(*snapshot_, ReportedObjects::kMaxRows, clock);
  for (int i = 0; i < 30; ++i) {
    Add(std::to_string(i));
    snapshot_->Vacuum();
  }
  const auto last = Expect("last");
  reported_.reset();
  last(true);
  snapshot_->Vacuum();
  EXPECT_EQ(SizeOnDisk("29"), 0);
  EXPECT_EQ(SizeOnDisk("last"), 0);
}

TEST_F(ReportedObjectsTest, WhatIsClearedIsForgottenWhateverTheSpoolAnswers) {
  const auto expected = Expect("expected");
  const auto release = Block();
  Add("under way");
  Add("waiting");
  reported_->Clear();
  expected(true);
  release->Open();
  snapshot_->Clear();
  for (const char* id : {"expected", "under way", "waiting"}) EXPECT_FALSE(reported_->Has(Table::File, id)) << id;
  Add("later");
  Settle();
  EXPECT_EQ(SizeOnDisk("expected"), -1);
  EXPECT_EQ(SizeOnDisk("waiting"), -1);
  EXPECT_EQ(SizeOnDisk("later"), 0);
}

TEST_F(ReportedObjectsTest, OnDiskTheOldestRowsGoFirst) {
  for (const char* id : {"1", "2", "3", "4"}) {
    Add(id);
    Settle();
  }
  Add("1");  // told again
  Settle();
  reported_ = std::make_unique<ReportedObjects>(*snapshot_, 3);
  Add("5");
  snapshot_->Vacuum();
  for (const char* id : {"2", "3"}) EXPECT_EQ(SizeOnDisk(id), -1) << id;
  for (const char* id : {"4", "1", "5"}) EXPECT_EQ(SizeOnDisk(id), 0) << id;
  EXPECT_TRUE(
      log_.Has(Message::PRIO_INFORMATION, "[IOC]: Forgot the 2 oldest rows of 'File' in snapshot DB: at most 3 stay"));
  EXPECT_EQ(log_.Count("Forgot the"), 1);
}

TEST_F(ReportedObjectsTest, RowsAreCountedAgainAfterEachThousand) {
  reported_ = std::make_unique<ReportedObjects>(*snapshot_, 10);
  Add("first");
  const auto release = Block();
  for (int i = 0; i < 1'000; ++i) Add(std::to_string(i));
  release->Open();
  snapshot_->Vacuum();  // the first of them
  snapshot_->Vacuum();  // the others
  EXPECT_EQ(log_.Count("Forgot the"), 0);
  Add("last");
  snapshot_->Vacuum();
  EXPECT_TRUE(log_.Has("Forgot the 992 oldest rows of 'File'"));
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

#include "src/fim/Baseline.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <filesystem>

#include "common/src/storage/SqlStorageFactory.h"
#include "src/fim/BaselineEventSqlDataFormatter.h"
#include "tests/fakes/FakeClock.h"
#include "tests/fakes/FaultySqlite.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::fim::internal {
namespace {

class BaselineTest : public testing::Test {
 protected:
  std::unique_ptr<Baseline> Open(Baseline::Bounds bounds = {}) {
    return std::make_unique<Baseline>(folder_ / "fim", clock_, bounds);
  }
  // A baseline of the file is taken, spooled and filed. False when none is wanted.
  static bool Take(Baseline& baseline, const std::string& path) {
    if (!baseline.Begin(path)) return false;
    baseline.NoteSpooled(path, "READ_SUCCESSFUL");
    baseline.KeepFiled();
    return true;
  }
  // Whether a baseline of the file is wanted, which stays as it is.
  static bool Wants(Baseline& baseline, const std::string& path) {
    if (!baseline.Begin(path)) return false;
    baseline.GiveUp(path);
    return true;
  }
  std::string Database() { return folder_ / "fim/BaselineEvents.db"; }
  // What a kill leaves: the files as they are while the baseline is still open.
  void CopyToNewFolder() { std::filesystem::copy(folder_ / "fim", folder_ / "after"); }
  void Overwrite(std::size_t offset, std::size_t size) {
    std::fstream file(Database(), std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(static_cast<std::streamoff>(offset));
    file << std::string(size, '\xA5');
  }
  // Rows as an earlier run has left them, in one transaction.
  void LeaveRows(const std::vector<std::string>& paths) {
    const auto storage = common::OpenSqlStorage(
        folder_ / "fim", Baseline::kFileName, [] { return std::make_unique<BaselineEventSqlDataFormatter>(); }, nullptr,
        common::SqlStorage::Caching::Off);
    common::SqlStorage::Rows rows;
    for (const std::string& path : paths)
      rows.emplace_back(path, storage->MakeRow(path, std::string("READ_SUCCESSFUL")));
    storage->Write(BaselineEventSqlDataFormatter::kTable, rows);
  }

  fakes::LogCapture log_;
  fakes::TempFolder folder_;
  fakes::FakeClock clock_;
};

TEST_F(BaselineTest, AFileIsWantedOnce) {
  const auto baseline = Open();
  EXPECT_TRUE(baseline->Begin("/srv/a"));
  EXPECT_FALSE(baseline->Begin("/srv/a")) << "it is on its way";
  baseline->NoteSpooled("/srv/a", "READ_SUCCESSFUL");
  EXPECT_FALSE(baseline->Begin("/srv/a"));
  baseline->KeepFiled();
  EXPECT_FALSE(baseline->Begin("/srv/a"));
  EXPECT_EQ(baseline->GetSize(), 1U);
  EXPECT_TRUE(baseline->Begin("/srv/b"));
}

TEST_F(BaselineTest, WhatIsGivenUpIsWantedAgainAndTakesNoRoom) {
  const auto baseline = Open({.paths = 1, .bytes = 10});
  ASSERT_TRUE(baseline->Begin("/srv/a"));
  EXPECT_FALSE(baseline->Begin("/srv/b"));
  baseline->GiveUp("/srv/a");
  baseline->GiveUp("/srv/never");
  EXPECT_EQ(baseline->GetSize(), 0U);
  EXPECT_TRUE(baseline->Begin("/srv/abcde")) << "as many bytes as there are";
}

TEST_F(BaselineTest, WhatTheSpoolThrewAwayIsWantedAgain) {
  {
    const auto baseline = Open({.paths = 3, .bytes = 100});
    ASSERT_TRUE(Take(*baseline, "/srv/filed"));
    ASSERT_TRUE(baseline->Begin("/srv/dropped"));
    baseline->NoteSpooled("/srv/dropped", "READ_SUCCESSFUL");
    ASSERT_TRUE(baseline->Begin("/srv/on_its_way"));
    baseline->GiveUpSpooled();
    EXPECT_EQ(baseline->GetSize(), 2U);
    EXPECT_EQ(baseline->GetBytes(), std::string("/srv/filed/srv/on_its_way").size());
    EXPECT_FALSE(Wants(*baseline, "/srv/on_its_way")) << "the spool has not answered yet";
    baseline->KeepFiled();  // of something else
    EXPECT_TRUE(Wants(*baseline, "/srv/dropped"));
  }
  const auto baseline = Open();
  EXPECT_FALSE(Wants(*baseline, "/srv/filed"));
  EXPECT_TRUE(Wants(*baseline, "/srv/dropped")) << "it was told of as filed";
}

TEST_F(BaselineTest, WhatWasInTheSpoolsFilesIsWantedAgainWhenTheyAreCleared) {
  Take(*Open(), "/srv/earlier");
  {
    const auto baseline = Open({.paths = 3, .bytes = 100});
    Take(*baseline, "/srv/filed");
    ASSERT_TRUE(baseline->Begin("/srv/on_its_way"));
    baseline->ForgetFiled();
    EXPECT_EQ(baseline->GetSize(), 1U);
    EXPECT_EQ(baseline->GetBytes(), std::string("/srv/on_its_way").size());
    EXPECT_TRUE(Wants(*baseline, "/srv/earlier"));
    EXPECT_TRUE(Wants(*baseline, "/srv/filed"));
    EXPECT_FALSE(Wants(*baseline, "/srv/on_its_way")) << "it comes to the spool behind the clearing";
    baseline->NoteSpooled("/srv/on_its_way", "READ_SUCCESSFUL");
    baseline->KeepFiled();
    EXPECT_FALSE(Wants(*baseline, "/srv/on_its_way"));
  }
  const auto baseline = Open();
  EXPECT_TRUE(Wants(*baseline, "/srv/earlier"));
  EXPECT_TRUE(Wants(*baseline, "/srv/filed"));
  EXPECT_FALSE(Wants(*baseline, "/srv/on_its_way"));
}

TEST_F(BaselineTest, WhatTheClearingTookIsNotRememberedWithTheNextFile) {
  {
    const auto baseline = Open();
    ASSERT_TRUE(baseline->Begin("/srv/cleared"));
    baseline->NoteSpooled("/srv/cleared", "READ_SUCCESSFUL");
    baseline->ForgetFiled();
    Take(*baseline, "/srv/later");
  }
  const auto baseline = Open();
  EXPECT_TRUE(Wants(*baseline, "/srv/cleared"));
  EXPECT_FALSE(Wants(*baseline, "/srv/later"));
}

TEST_F(BaselineTest, ATableThatIsDamagedWhenItIsToBeForgottenBeginsAnew) {
  {
    const auto baseline = Open();
    Take(*baseline, "/srv/a");
    Overwrite(0, std::filesystem::file_size(Database()));
    baseline->ForgetFiled();
  }
  EXPECT_TRUE(std::filesystem::exists(Database() + ".damaged"));
  EXPECT_EQ(Open()->GetSize(), 0U);
}

TEST_F(BaselineTest, OnlyWhatIsInAFileOfTheSpoolIsKnownAfterAKill) {
  const auto baseline = Open();
  for (const char* path : {"/srv/filed", "/srv/cached", "/srv/queued"}) ASSERT_TRUE(baseline->Begin(path));
  baseline->NoteSpooled("/srv/filed", "READ_SUCCESSFUL");
  baseline->KeepFiled();
  baseline->NoteSpooled("/srv/cached", "READ_SUCCESSFUL");
  CopyToNewFolder();
  Baseline after(folder_ / "after", clock_);
  EXPECT_FALSE(Wants(after, "/srv/filed"));
  EXPECT_TRUE(Wants(after, "/srv/cached"));
  EXPECT_TRUE(Wants(after, "/srv/queued"));
}

TEST_F(BaselineTest, ManyFilesAreKeptAtOnce) {
  {
    const auto baseline = Open();
    for (int i = 0; i < 300; ++i) {
      const std::string path = "/srv/" + std::to_string(i);
      ASSERT_TRUE(baseline->Begin(path));
      baseline->NoteSpooled(path, "READ_SUCCESSFUL");
    }
    baseline->KeepFiled();
  }
  EXPECT_EQ(Open()->GetSize(), 300U);
}

TEST_F(BaselineTest, TheDatabaseIsForItsOwnerAlone) {
  const auto baseline = Open();
  struct stat stat {};
  ASSERT_EQ(::stat(Database().c_str(), &stat), 0);
  EXPECT_EQ(stat.st_mode & 07777U, 0600U);
  ASSERT_EQ(::stat((folder_ / "fim").c_str(), &stat), 0);
  EXPECT_EQ(stat.st_mode & 07777U, 0700U);
}

TEST_F(BaselineTest, ARestartRemembers) {
  Take(*Open(), "/srv/a");
  const auto baseline = Open();
  EXPECT_FALSE(Wants(*baseline, "/srv/a"));
  EXPECT_TRUE(Wants(*baseline, "/srv/b"));
}

TEST_F(BaselineTest, SoDoesAKillAtAnyTime) {
  const auto baseline = Open();
  Take(*baseline, "/srv/a");
  CopyToNewFolder();
  Baseline after(folder_ / "after", clock_);
  EXPECT_FALSE(Wants(after, "/srv/a"));
}

TEST_F(BaselineTest, NamesAreNoSql) {
  const std::vector<std::string> names = {"/srv/o'brien",
                                          "/srv/'; DROP TABLE BaselineEvents; --",
                                          "/srv/\"double\"",
                                          "/srv/two\nlines",
                                          "/srv/\xFF\xFE raw bytes",
                                          "/srv/%s?_*"};
  {
    const auto baseline = Open();
    for (const std::string& name : names) Take(*baseline, name);
  }
  const auto baseline = Open();
  for (const std::string& name : names) EXPECT_FALSE(Wants(*baseline, name)) << name;
  EXPECT_TRUE(Wants(*baseline, "/srv/o''brien"));
  EXPECT_TRUE(Wants(*baseline, "/srv/two"));
  EXPECT_EQ(baseline->GetSize(), names.size());
  std::size_t bytes = 0;
  for (const std::string& name : names) bytes += name.size();
  EXPECT_GE(baseline->GetBytes(), bytes);
}

TEST_F(BaselineTest, AFileThatIsNoDatabaseIsSetAside) {
  std::filesystem::create_directories(folder_ / "fim");
  folder_.Write("fim/BaselineEvents.db", "this is no database, and long enough to be looked at as one");
  {
    const auto baseline = Open();
    EXPECT_TRUE(Wants(*baseline, "/srv/a"));
    Take(*baseline, "/srv/a");
  }
  EXPECT_TRUE(std::filesystem::exists(Database() + ".damaged"));
  EXPECT_FALSE(Wants(*Open(), "/srv/a"));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "Set aside the damaged database"));
}

TEST_F(BaselineTest, ATornPageIsFoundAtTheStart) {
  std::vector<std::string> paths;
  for (int i = 0; i < 2'000; ++i) paths.push_back("/srv/file-" + std::to_string(i));
  LeaveRows(paths);
  Overwrite(8'192, 4'096);
  const auto baseline = Open();
  EXPECT_TRUE(Wants(*baseline, "/srv/new"));
  EXPECT_TRUE(std::filesystem::exists(Database() + ".damaged"));
}

TEST_F(BaselineTest, ADatabaseThatTearsLaterBeginsAnewWithTheFileAtHand) {
  const auto baseline = Open();
  Take(*baseline, "/srv/a");
  Overwrite(0, std::filesystem::file_size(Database()));
  Take(*baseline, "/srv/b");
  EXPECT_FALSE(Wants(*baseline, "/srv/a")) << "it was reported in this run";
  EXPECT_TRUE(std::filesystem::exists(Database() + ".damaged"));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "[FIM]: Baseline: The database is damaged and begins anew: "));
  const auto after = Open();
  EXPECT_FALSE(Wants(*after, "/srv/b"));
  EXPECT_TRUE(Wants(*after, "/srv/a")) << "a second baseline is better than none";
}

TEST_F(BaselineTest, ARowOfAnotherShapeIsDamageToo) {
  LeaveRows({"/srv/a"});
  {
    const auto storage = common::OpenSqlStorage(
        folder_ / "fim", Baseline::kFileName, [] { return std::make_unique<BaselineEventSqlDataFormatter>(); }, nullptr,
        common::SqlStorage::Caching::Off);
    storage->Execute("INSERT INTO BaselineEvents VALUES ('/srv/null', NULL)");
  }
  const auto baseline = Open();
  EXPECT_TRUE(Wants(*baseline, "/srv/null"));
  EXPECT_TRUE(std::filesystem::exists(Database() + ".damaged"));
}

int FullDisk(fakes::FaultySqlite::Call call) {
  return call == fakes::FaultySqlite::Call::Write ? SQLITE_FULL : SQLITE_OK;
}

TEST_F(BaselineTest, RowsThatADiskDoesNotTakeCostASecondBaselineAfterTheNextStart) {
  fakes::FaultySqlite disk;
  {
    const auto baseline = Open();
    disk.fault = FullDisk;
    for (const char* path : {"/srv/a", "/srv/b"}) {
      ASSERT_TRUE(baseline->Begin(path));
      baseline->NoteSpooled(path, "READ_SUCCESSFUL");
    }
    baseline->KeepFiled();
    EXPECT_TRUE(
        log_.Has(Poco::Message::PRIO_ERROR, "[FIM]: Baseline: Failed to remember 2 files, the first of them /srv/a: "));
    EXPECT_FALSE(Wants(*baseline, "/srv/a")) << "its document is in the spool";
    EXPECT_FALSE(Wants(*baseline, "/srv/b"));
    disk.fault = nullptr;
    Take(*baseline, "/srv/c");
    EXPECT_EQ(log_.Count("Failed to remember"), 1) << "the disk has room again";
  }
  const auto baseline = Open();
  EXPECT_TRUE(Wants(*baseline, "/srv/a"));
  EXPECT_TRUE(Wants(*baseline, "/srv/b"));
  EXPECT_FALSE(Wants(*baseline, "/srv/c"));
  EXPECT_FALSE(std::filesystem::exists(Database() + ".damaged")) << "a full disk is no damage";
}

TEST_F(BaselineTest, RowsThatCannotBeForgottenAreKnownAgainAtTheNextStartOnly) {
  fakes::FaultySqlite disk;
  {
    const auto baseline = Open();
    Take(*baseline, "/srv/a");
    disk.fault = FullDisk;
    baseline->ForgetFiled();
    EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "[FIM]: Baseline: Failed to forget the files: "));
    EXPECT_EQ(baseline->GetSize(), 0U);
    EXPECT_EQ(baseline->GetBytes(), 0U);
    EXPECT_TRUE(Wants(*baseline, "/srv/a"));
    disk.fault = nullptr;
  }
  EXPECT_FALSE(Wants(*Open(), "/srv/a"));
}

TEST_F(BaselineTest, AFolderThatCannotBeMadeEndsTheConstruction) {
  folder_.Write("fim", "a file");
  EXPECT_THROW(Open(), std::runtime_error);
}

TEST_F(BaselineTest, AtTheBoundNoneIsTakenAnyMoreWithOneWarningADay) {
  const auto baseline = Open({.paths = 2, .bytes = 1'000});
  Take(*baseline, "/srv/a");
  Take(*baseline, "/srv/b");
  constexpr const char* kWarning = "[FIM]: Baseline: 2 files are known, no further baseline is taken";
  EXPECT_FALSE(Wants(*baseline, "/srv/c"));
  EXPECT_FALSE(Wants(*baseline, "/srv/d"));
  EXPECT_EQ(log_.Count(kWarning), 1);
  Take(*baseline, "/srv/c");
  EXPECT_EQ(baseline->GetSize(), 2U);
  clock_.Advance(std::chrono::hours(23));
  EXPECT_FALSE(Wants(*baseline, "/srv/c"));
  EXPECT_EQ(log_.Count(kWarning), 1);
  clock_.Advance(std::chrono::hours(1));
  EXPECT_FALSE(Wants(*baseline, "/srv/c"));
  EXPECT_EQ(log_.Count(kWarning), 2);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_WARNING, kWarning));
  EXPECT_FALSE(Wants(*baseline, "/srv/a"));
  EXPECT_EQ(log_.Count(kWarning), 2) << "a known file is no reason to warn";
}

TEST_F(BaselineTest, TheBoundsAreThoseThatThePagesTell) {
  EXPECT_EQ(Baseline::Bounds{}.paths, 200'000U);
  EXPECT_EQ(Baseline::Bounds{}.bytes, 64U * 1024 * 1024);
}

TEST_F(BaselineTest, LongNamesCountByTheirLength) {
  const auto baseline = Open({.paths = 100, .bytes = 3'000});
  const std::string name = "/srv/" + std::string(1'400, 'x');
  Take(*baseline, name + "1");
  Take(*baseline, name + "2");
  EXPECT_FALSE(Wants(*baseline, name + "3"));
  EXPECT_TRUE(Wants(*baseline, "/srv/short"));
}

TEST_F(BaselineTest, MoreRowsThanTheBoundAreNotLoaded) {
  LeaveRows({"/srv/a", "/srv/b", "/srv/c"});
  const auto baseline = Open({.paths = 2, .bytes = 1'000});
  EXPECT_EQ(baseline->GetSize(), 2U);
}

TEST_F(BaselineTest, AQuestionCostsTheSameHoweverManyFilesAreKnown) {
  std::vector<std::string> paths;
  for (int i = 0; i < 50'000; ++i) paths.push_back("/srv/watched/folder/file-" + std::to_string(i));
  LeaveRows(paths);
  const auto full = Open();
  ASSERT_EQ(full->GetSize(), paths.size());
  Baseline small(folder_ / "small", clock_);
  for (int i = 0; i < 50; ++i) Take(small, paths[static_cast<std::size_t>(i)]);

  const auto best_of_five = [](Baseline& baseline, const std::vector<std::string>& known) {
    auto best = std::chrono::nanoseconds::max();
    for (int round = 0; round < 5; ++round) {
      const auto start = std::chrono::steady_clock::now();
      int wanted = 0;
      for (std::size_t i = 0; i < 50'000; ++i) wanted += baseline.Begin(known[i % known.size()]) ? 1 : 0;
      best = std::min<std::chrono::nanoseconds>(best, std::chrono::steady_clock::now() - start);
      EXPECT_EQ(wanted, 0);
    }
    return best;
  };
  const auto of_small = best_of_five(small, {paths.begin(), paths.begin() + 50});
  const auto of_full = best_of_five(*full, paths);
  // A thousand times the files: a walk would cost a thousand times as much. The rest is the processor's caches, which
  // others use as well.
  EXPECT_LT(of_full.count(), 200 * of_small.count());
}

}  // namespace
}  // namespace zagent::fim::internal

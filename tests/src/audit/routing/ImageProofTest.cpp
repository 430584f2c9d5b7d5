#include "src/audit/routing/ImageProof.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "tests/fakes/FakeEvent.h"
#include "tests/fakes/FakeProcFs.h"
#include "tests/fakes/FakeProcessInfo.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::audit::internal {
namespace {

class ImageProofTest : public ::testing::Test {
 protected:
  static constexpr std::uint32_t kAgentUid = 777;
  static constexpr std::uint32_t kStranger = 1000;

  ImageProofTest() { SetMode(scanner_, 0755); }

  static void SetMode(const std::string& file, mode_t mode) { ASSERT_EQ(chmod(file.c_str(), mode), 0); }
  [[nodiscard]] bool IsDisproved(std::int32_t pid, std::uint32_t uid = 0, std::uint32_t euid = 0) {
    return proof_.IsDisproved({pid, scanner_, uid, euid});
  }

  fakes::LogCapture log_;
  fakes::FakeProcFs processes_;
  fakes::TempFolder folder_;
  const std::string scanner_ = folder_.Write("scanner", "the real one");
  ImageProof proof_{kAgentUid, processes_.Root()};
};

TEST_F(ImageProofTest, BelievesAProcessThatRunsTheFileOfItsName) {
  processes_.Start(7, 100, scanner_);
  EXPECT_FALSE(IsDisproved(7));
  EXPECT_FALSE(IsDisproved(7, kStranger, kStranger)) << "the file speaks for it";
}

TEST_F(ImageProofTest, DisprovesAProcessThatRunsAnotherFile) {
  processes_.Start(7, 100, folder_.Write("disguised", "with a mount over the folder it is called the same"));
  EXPECT_TRUE(IsDisproved(7));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_WARNING, "Process 7 is not what it is called: " + scanner_));
}

TEST_F(ImageProofTest, DisprovesAProcessWhosePathLeadsNowhereHere) {
  processes_.Start(7, 100, scanner_);
  EXPECT_TRUE(proof_.IsDisproved({7, folder_ / "nowhere", 0, 0}));
}

TEST_F(ImageProofTest, DisprovesAFileThatOthersMayWrite) {
  processes_.Start(7, 100, scanner_);
  SetMode(scanner_, 0757);
  EXPECT_TRUE(IsDisproved(7));
}

TEST_F(ImageProofTest, DisprovesAFileThatAGroupOtherThanRootsMayWrite) {
  processes_.Start(7, 100, scanner_);
  processes_.Start(8, 100, scanner_);
  SetMode(scanner_, 0775);
  ASSERT_EQ(chown(scanner_.c_str(), 0, 0), 0);
  EXPECT_FALSE(IsDisproved(7));
  ASSERT_EQ(chown(scanner_.c_str(), 0, 50), 0);
  EXPECT_TRUE(IsDisproved(8));
}

TEST_F(ImageProofTest, DisprovesAFileThatIsNotRoots) {
  processes_.Start(7, 100, scanner_);
  ASSERT_EQ(chown(scanner_.c_str(), kStranger, 0), 0);
  EXPECT_TRUE(IsDisproved(7));
}

TEST_F(ImageProofTest, DisprovesTheRealProgramInTheHandsOfAStranger) {
  processes_.Start(7, 100, scanner_, kStranger);
  EXPECT_TRUE(IsDisproved(7)) << "whatever the event says";
  EXPECT_TRUE(log_.Has("Process 7 is run by a user who may not speak for " + scanner_));
  processes_.Start(8, 100, scanner_, kAgentUid);
  EXPECT_FALSE(IsDisproved(8));
  processes_.Start(9, 100, scanner_);
  processes_.Write(9, "status", "Name:\tscanner\nUid:\t1000\t0\t0\t0\n");
  EXPECT_TRUE(IsDisproved(9)) << "who started it may still trace it";
  processes_.Start(10, 100, scanner_);
  processes_.Write(10, "status", "Name:\tscanner\nUid:\t0\t1000\t1000\t1000\n");
  EXPECT_TRUE(IsDisproved(10));
}

TEST_F(ImageProofTest, ReadsTheUsersEachTime) {
  processes_.Start(7, 100, scanner_);
  ASSERT_FALSE(IsDisproved(7));
  processes_.Start(7, 100, scanner_, kStranger);
  EXPECT_TRUE(IsDisproved(7));
}

TEST_F(ImageProofTest, JudgesAProcessWhoseUsersCannotBeReadLikeOneThatIsGone) {
  processes_.Start(7, 100, scanner_);
  processes_.Remove(7, "status");
  EXPECT_FALSE(IsDisproved(7, 0, 0));
  EXPECT_TRUE(IsDisproved(7, kStranger, kStranger));
}

TEST_F(ImageProofTest, ProvesAProcessByWhatItIsNowWhateverItWas) {
  processes_.Start(7, 100, scanner_);
  const std::optional<std::int64_t> start = proof_.ProveAnew({7, scanner_, 0, 0});
  ASSERT_TRUE(start);
  ASSERT_FALSE(IsDisproved(7));
  processes_.Start(7, 100, folder_.Write("sh", ""));
  EXPECT_FALSE(proof_.ProveAnew({7, scanner_, 0, 0}));
  processes_.Start(7, 101, scanner_);
  EXPECT_NE(proof_.ProveAnew({7, scanner_, 0, 0}), start);
  processes_.Start(7, 101, scanner_, kStranger);
  EXPECT_FALSE(proof_.ProveAnew({7, scanner_, 0, 0}));
  processes_.End(7);
  EXPECT_FALSE(proof_.ProveAnew({7, scanner_, 0, 0})) << "who is gone proves nothing";
}

TEST_F(ImageProofTest, JudgesAProcessThatIsGoneByItsUser) {
  EXPECT_FALSE(IsDisproved(7, 0, 0));
  EXPECT_FALSE(IsDisproved(7, kAgentUid, kAgentUid));
  EXPECT_FALSE(IsDisproved(7, kStranger, 0));
  EXPECT_FALSE(IsDisproved(7, kAgentUid, kStranger));
  EXPECT_TRUE(IsDisproved(7, kStranger, kStranger));
}

TEST_F(ImageProofTest, JudgesAProcessThatWaitsForItsParentByItsUser) {
  processes_.Start(7, 100);
  EXPECT_FALSE(IsDisproved(7, 0, 0));
  EXPECT_TRUE(IsDisproved(7, kStranger, kStranger));
}

TEST_F(ImageProofTest, StaysWithItsWordWhenTheProgramIsReplacedOnDisk) {
  processes_.Start(7, 100, folder_ / "scanner");
  ASSERT_FALSE(IsDisproved(7));
  std::filesystem::rename(scanner_, folder_ / "scanner.old");
  processes_.Start(7, 100, folder_ / "scanner.old");
  folder_.Write("scanner", "the next version");
  EXPECT_FALSE(IsDisproved(7));
}

TEST_F(ImageProofTest, LooksAnewAtAnotherProcessOfTheSamePid) {
  processes_.Start(7, 100, scanner_);
  ASSERT_FALSE(IsDisproved(7));
  processes_.Start(7, 101, folder_.Write("disguised", ""));
  EXPECT_TRUE(IsDisproved(7));
}

TEST_F(ImageProofTest, LooksAnewWhenTheProcessIsCalledOtherwise) {
  processes_.Start(7, 100, scanner_);
  ASSERT_FALSE(IsDisproved(7));
  EXPECT_TRUE(proof_.IsDisproved({7, folder_.Write("other", ""), 0, 0}));
}

TEST_F(ImageProofTest, ForgetsItsLooksAtTheBound) {
  processes_.Start(1, 100, scanner_);
  ASSERT_FALSE(IsDisproved(1));
  const auto others = static_cast<std::int32_t>(ImageProof::kCapacity);
  for (std::int32_t pid = 2; pid <= others + 1; ++pid) {
    processes_.Start(pid, 100, scanner_);
    static_cast<void>(IsDisproved(pid));
    processes_.End(pid);
  }
  processes_.Start(1, 100, folder_.Write("disguised", ""));
  EXPECT_TRUE(IsDisproved(1)) << "it is looked at again";
}

TEST_F(ImageProofTest, TakesTheProcessesOfAnEventFromTheTree) {
  common::ProcessTree tree;
  tree.Add(std::make_unique<fakes::FakeProcessInfo>(10, -1, "/sbin/init"));
  auto child = std::make_unique<fakes::FakeProcessInfo>(11, 10, "/bin/sh");
  child->uid = 5;
  child->euid = 6;
  tree.Add(std::move(child));
  fakes::FakeEvent event;
  event.pid = 11;
  const std::vector<ProcessClaim> claims = ClaimsOf(event, tree);
  ASSERT_EQ(claims.size(), 2U);
  EXPECT_EQ(claims[0].image, "/bin/sh");
  EXPECT_EQ(claims[0].uid, 5U);
  EXPECT_EQ(claims[0].euid, 6U);
  EXPECT_EQ(claims[1].pid, 10);
}

TEST_F(ImageProofTest, TakesAnUnknownProcessFromItsEvent) {
  fakes::FakeEvent event;
  event.pid = 11;
  event.uid = 5;
  event.euid = 6;
  const std::vector<ProcessClaim> claims = ClaimsOf(event, common::ProcessTree());
  ASSERT_EQ(claims.size(), 1U);
  EXPECT_EQ(claims[0].image, "/bin/actor");
  EXPECT_EQ(claims[0].uid, 5U);
  EXPECT_EQ(claims[0].euid, 6U);
}

}  // namespace
}  // namespace zagent::audit::internal

#include "src/fim/BaselineEventInfo.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>

#include "src/edr/RecordFields.h"
#include "src/edr/process/NameService.h"
#include "tests/fakes/FakeClock.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::fim::internal {
namespace {

class BaselineEventInfoTest : public testing::Test {
 protected:
  BaselineEventInfo Of(const std::string& path) { return {17, edr::EventType::Baseline, path, clock_}; }
  static std::string ErrorOf(const std::function<void()>& question) {
    try {
      question();
      return "an answer";
    } catch (const std::runtime_error& error) {
      return error.what();
    }
  }

  fakes::LogCapture log_;
  fakes::TempFolder folder_;
  fakes::FakeClock clock_;
};

TEST_F(BaselineEventInfoTest, ShowsTheFileAsItIs) {
  const std::string path = folder_.Write("file", "text");
  ASSERT_EQ(chmod(path.c_str(), 0640), 0);
  const BaselineEventInfo event = Of(path);
  EXPECT_EQ(event.GetType(), edr::EventType::Baseline);
  EXPECT_EQ(event.GetAction(), "Baseline");
  EXPECT_EQ(event.GetId(), 17U);
  EXPECT_EQ(event.GetObjectType(), edr::ObjectType::File);
  EXPECT_EQ(event.GetTimestamp(), 1'700'000'000'000'000'000);
  ASSERT_NE(event.GetFile(), nullptr);
  EXPECT_EQ(event.GetFile()->GetPath(), path);
  EXPECT_EQ(event.GetFile()->GetPermission(), 640U);
  EXPECT_EQ(event.GetFile()->GetOwnerName(), common::UserName(geteuid()));
  EXPECT_EQ(event.GetFile()->GetGroupName(), common::GroupName(getegid()));
  EXPECT_EQ(event.GetActorAuid(), geteuid());
  EXPECT_EQ(event.GetFileContent(), (std::vector<unsigned char>{'t', 'e', 'x', 't'}));
  EXPECT_EQ(event.GetFileReadStatus(), "READ_SUCCESSFUL");
  EXPECT_FALSE(event.IsSymlink());
  EXPECT_FALSE(event.HasSecondaryImage());
  EXPECT_TRUE(event.IsSuccessful());
}

TEST_F(BaselineEventInfoTest, CapturesUpToTheLimitAndNothingBeyond) {
  const BaselineEventInfo largest = Of(folder_.Write("largest", std::string(51'200, 'x')));
  EXPECT_EQ(largest.GetFileReadStatus(), "READ_SUCCESSFUL");
  EXPECT_EQ(largest.GetFileContent().size(), 51'200U);
  const BaselineEventInfo too_large = Of(folder_.Write("too_large", std::string(51'201, 'x')));
  EXPECT_EQ(too_large.GetFileReadStatus(), "MAX_SIZE_LIMIT_REACHED");
  EXPECT_TRUE(too_large.GetFileContent().empty());
}

TEST_F(BaselineEventInfoTest, AFileThatIsGoneHasNeitherSettingsNorContent) {
  const std::string path = folder_ / "gone";
  const BaselineEventInfo event = Of(path);
  EXPECT_EQ(event.GetFile()->GetPath(), path);
  EXPECT_EQ(event.GetFile()->GetOwnerName(), "");
  EXPECT_EQ(event.GetFileReadStatus(), "READ_FAILURE");
  EXPECT_TRUE(event.GetFileContent().empty());
  EXPECT_TRUE(log_.Has("[FIM]: Event Path: " + path + " does not exist"));
}

TEST_F(BaselineEventInfoTest, AFileThatCannotBeLookedAtIsNamed) {
  const std::string path = folder_.Write("file", "") + "/below";
  const BaselineEventInfo event = Of(path);
  EXPECT_EQ(event.GetFileReadStatus(), "READ_FAILURE");
  EXPECT_TRUE(log_.Has("[FIM]: Stat Failed for: " + path + " Settings could not be loaded."));
}

TEST_F(BaselineEventInfoTest, ALinkIsNotFollowedAndAPipeDoesNotHang) {
  folder_.Write("file", "secret");
  const std::string link = folder_ / "link";
  ASSERT_EQ(symlink("file", link.c_str()), 0);
  const BaselineEventInfo of_link = Of(link);
  EXPECT_TRUE(of_link.IsSymlink());
  EXPECT_EQ(of_link.GetFileReadStatus(), "READ_FAILURE");
  const std::string pipe = folder_ / "pipe";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  EXPECT_EQ(Of(pipe).GetFileReadStatus(), "READ_FAILURE");
}

TEST_F(BaselineEventInfoTest, WhatNoBaselineCanKnowIsRefused) {
  BaselineEventInfo event = Of(folder_ / "gone");
  EXPECT_EQ(ErrorOf([&] { (void)event.Clone(); }), "Clone is not implemented");
  EXPECT_EQ(ErrorOf([&] { (void)event.GetImage(); }), "GetImage not implemented");
  EXPECT_EQ(ErrorOf([&] { (void)event.GetNewFile(); }), "GetNewFile not implemented");
  EXPECT_EQ(ErrorOf([&] { (void)event.GetCommandLine(); }), "GetCommandLine not implemented");
  EXPECT_EQ(ErrorOf([&] { (void)event.GetActorProcessId(); }), "GetActorProcessId is not implemented");
  EXPECT_EQ(ErrorOf([&] { (void)event.GetActorUserName(); }), "GetActorUserName is not implemented");
  EXPECT_EQ(ErrorOf([&] { (void)event.GetActorLoginName(); }), "GetActorLoginName is not implemented");
  EXPECT_EQ(ErrorOf([&] { (void)event.GetFileSize(); }), "GetFileSize is not implemented");
  EXPECT_EQ(ErrorOf([&] { (void)event.GetFileContentHash(edr::ContentHash::Sha256); }),
            "GetFileContentHash is not implemented");
  EXPECT_EQ(ErrorOf([&] { (void)event.IsElevated(); }), "IsElevated not implemented");
  EXPECT_EQ(ErrorOf([&] { event.Refresh(); }), "Refresh is not implemented");
  EXPECT_EQ(ErrorOf([&] { event.ParseRecord(0, {}); }), "ParseRecord is not implemented");
  EXPECT_EQ(ErrorOf([&] { event.Validate(); }), "Validate is not implemented");
  EXPECT_EQ(ErrorOf([&] { (void)event.GetAuditKey(); }), "GetAuditKey is not implemented");
}

}  // namespace
}  // namespace zagent::fim::internal

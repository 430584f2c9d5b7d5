#include "src/audit/events/CloneEvent.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <stdexcept>

#include <type_traits>
#include "src/edr/process/NameService.h"

#include "tests/fakes/AuditRecords.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::audit::internal {
namespace {

using fakes::AuditRecords;
using testing::IsEmpty;

class CloneEventTest : public ::testing::Test {
 protected:
  CloneEvent Build(unsigned syscall, const AuditRecords::Fields& changes = {}) const {
    AuditRecords::Fields fields = {{"exe", program_}, {"exit", "4712"}, {"a0", "1200011"}};
    for (const auto& [name, value] : changes) fields[name] = value;
    AuditRecords records;
    records.Syscall(syscall, fields);
    return CloneEvent(records);
  }
  template <typename Call>
  static std::string ErrorOf(Call call) {
    try {
      if constexpr (std::is_void_v<decltype(call())>) {
        call();
      } else {
        const auto& event = call();
        if (event.Refusal() != nullptr) return *event.Refusal();
      }
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return "nothing thrown";
  }

  fakes::TempFolder folder_;
  std::string program_ = folder_.Write("program", "abc");
};

TEST_F(CloneEventTest, HasTheChildForItsActorAndTheCallerForItsParent) {
  const CloneEvent event = Build(56, {{"pid", "4711"}, {"ppid", "97"}, {"auid", "1000"}, {"uid", "2"}});
  EXPECT_EQ(static_cast<int>(event.GetType()), 10);
  EXPECT_EQ(event.GetAction(), "Clone");
  EXPECT_EQ(static_cast<int>(event.GetObjectType()), 3);
  EXPECT_EQ(event.GetActorProcessId(), 4712);
  EXPECT_EQ(event.GetActorParentProcessId(), 4711);
  EXPECT_EQ(event.GetActorAuid(), 1000U);
  EXPECT_EQ(event.GetActorEuid(), 0U);
  EXPECT_EQ(event.GetActorUserId(), 2U);
  EXPECT_TRUE(event.IsElevated());
  EXPECT_TRUE(event.IsSuccessful());
}

TEST_F(CloneEventTest, KnowsNeitherArgumentsNorFolderNorScript) {
  const CloneEvent event = Build(57);
  EXPECT_THAT(event.GetActorProcessArguments(), IsEmpty());
  EXPECT_THAT(event.GetCwd(), IsEmpty());
  EXPECT_FALSE(event.HasSecondaryImage());
  EXPECT_EQ(ErrorOf([&] { static_cast<void>(event.GetSecondaryImage()); }), "GetSecondaryImage not implemented");
  EXPECT_EQ(ErrorOf([&] { static_cast<void>(event.GetNetworkAddress()); }), "GetNetworkAddress is not implemented");
}

TEST_F(CloneEventTest, RunsTheCallersProgramAsItIsOnDisk) {
  ASSERT_EQ(chown(program_.c_str(), 1, 2), 0);
  ASSERT_EQ(chmod(program_.c_str(), 0750), 0);
  struct stat disk {};
  ASSERT_EQ(stat(program_.c_str(), &disk), 0);
  const CloneEvent event = Build(56);
  const common::ImageInfo& image = *event.GetImage();
  EXPECT_EQ(image.GetPath(), program_);
  EXPECT_EQ(image.GetInode(), disk.st_ino);
  EXPECT_EQ(image.GetDevice(), common::util::DeviceText(disk.st_dev));
  EXPECT_EQ(image.GetPermission(), 750U);
  EXPECT_EQ(image.GetOwnerId(), 1U);
  EXPECT_EQ(image.GetOwnerName(), common::UserName(1));
  EXPECT_EQ(image.GetGroupId(), 2U);
  EXPECT_EQ(image.GetGroupName(), common::GroupName(2));
  EXPECT_EQ(image.GetModificationTime(), disk.st_mtime);
}

TEST_F(CloneEventTest, DoesNotTrackThreads) {
  EXPECT_EQ(ErrorOf([&] { return Build(56, {{"a0", "50f00"}}); }), "Thread events are not tracked");
  EXPECT_EQ(ErrorOf([&] { return Build(56, {{"a0", "10000"}}); }), "Thread events are not tracked");
  EXPECT_NO_THROW(Build(56, {{"a0", "20000"}}));
}

// They take no arguments: what stands in the registers is anything.
TEST_F(CloneEventTest, TestsNoFlagsOfForkAndVfork) {
  EXPECT_EQ(Build(57, {{"a0", "10000"}}).GetActorProcessId(), 4712);
  EXPECT_EQ(Build(58, {{"a0", "10000"}}).GetActorProcessId(), 4712);
}

TEST_F(CloneEventTest, CannotJudgeACloneWithoutItsFlags) {
  AuditRecords::Fields fields = AuditRecords::SyscallFields(56);
  fields.erase("a0");
  fields.erase("a1");
  fields.erase("a2");
  fields.erase("a3");
  fields["exe"] = program_;
  AuditRecords records;
  records.Add(record_type::kSyscall, fields);
  EXPECT_THROW(CloneEvent event(records), std::out_of_range);
}

TEST_F(CloneEventTest, TellsWhichProgramIsGone) {
  const std::string gone = folder_ / "gone";
  EXPECT_EQ(ErrorOf([&] {
              return Build(56, {{"exe", gone}});
            }),
            "Failed to stat " + gone + " (No such file or directory (2))");
}

TEST_F(CloneEventTest, IsMadeOfItsOwnCallsOnly) {
  EXPECT_EQ(ErrorOf([&] { return Build(59); }), "Invalid syscall for Clone event: 59");
  EXPECT_EQ(ErrorOf([&] { return Build(435); }), "Invalid syscall for Clone event: 435");
}

TEST_F(CloneEventTest, TellsOfAFailedCall) {
  const CloneEvent event = Build(56, {{"success", "no"}, {"exit", "-11"}});
  EXPECT_FALSE(event.IsSuccessful());
  EXPECT_EQ(event.GetActorProcessId(), -11);
}

TEST_F(CloneEventTest, HasTheThreadThatCalledCorrectedToItsProcess) {
  CloneEvent event = Build(56, {{"pid", "4713"}});
  event.UpdateActorProcessId(4711);
  EXPECT_EQ(event.GetActorParentProcessId(), 4711);
  EXPECT_EQ(event.GetActorProcessId(), 4712);
}

TEST_F(CloneEventTest, ClonesWithAnImageOfItsOwn) {
  const CloneEvent event = Build(56, {{"pid", "4711"}});
  const std::unique_ptr<edr::Event> copy = event.Clone();
  EXPECT_EQ(copy->GetActorProcessId(), 4712);
  EXPECT_EQ(copy->GetActorParentProcessId(), 4711);
  EXPECT_EQ(copy->GetImage()->GetInode(), event.GetImage()->GetInode());
  EXPECT_NE(copy->GetImage(), event.GetImage());
}

}  // namespace
}  // namespace zagent::audit::internal

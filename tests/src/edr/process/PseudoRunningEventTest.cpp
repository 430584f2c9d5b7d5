#include "src/edr/process/PseudoRunningEvent.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/fakes/FakeProcessInfo.h"
#include "tests/fakes/LogCapture.h"

namespace zagent::edr {
namespace {

using testing::ElementsAre;

class PseudoRunningEventTest : public ::testing::Test {
 protected:
  PseudoRunningEventTest() {
    process_.auid = 1000;
    process_.euid = 0;
    process_.uid = 2;
    process_.arguments = {"/bin/sh", "-c", "exit"};
    process_.cwd = "/srv/w";
    process_.creation_time = 1'700'000'000'123'456'789;
  }
  template <typename Call>
  static std::string ErrorOf(Call call) {
    try {
      call();
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return "nothing thrown";
  }

  fakes::LogCapture log_;
  fakes::FakeProcessInfo process_{4711, 97, "/bin/dash"};
};

TEST_F(PseudoRunningEventTest, IsTheStartOfTheProcessAtItsCreation) {
  const PseudoRunningEvent event(process_);
  EXPECT_EQ(static_cast<int>(event.GetType()), 9);
  EXPECT_EQ(event.GetAction(), "Execve");
  EXPECT_EQ(static_cast<int>(event.GetObjectType()), 3);
  EXPECT_EQ(event.GetId(), 0U);
  EXPECT_TRUE(event.IsSuccessful());
  EXPECT_EQ(event.GetTimestamp(), 1'700'000'000'123'456'789);
  EXPECT_EQ(event.GetActorProcessId(), 4711);
  EXPECT_EQ(event.GetActorParentProcessId(), 97);
  EXPECT_EQ(event.GetActorAuid(), 1000U);
  EXPECT_EQ(event.GetActorEuid(), 0U);
  EXPECT_EQ(event.GetActorUserId(), 2U);
  EXPECT_EQ(event.GetActorUserName(), "bin");
  EXPECT_THAT(event.GetActorProcessArguments(), ElementsAre("/bin/sh", "-c", "exit"));
  EXPECT_EQ(event.GetCwd(), "/srv/w");
  EXPECT_EQ(event.GetImage()->GetPath(), "/bin/dash");
  EXPECT_EQ(event.GetAuditKey(), "");
}

TEST_F(PseudoRunningEventTest, HasTheScriptOfAProcessThatRunsOne) {
  EXPECT_FALSE(PseudoRunningEvent(process_).HasSecondaryImage());
  EXPECT_EQ(PseudoRunningEvent(process_).GetSecondaryImage(), nullptr);
  process_.script.emplace("/srv/script");
  const PseudoRunningEvent event(process_);
  EXPECT_TRUE(event.HasSecondaryImage());
  EXPECT_EQ(event.GetSecondaryImage()->GetPath(), "/srv/script");
}

TEST_F(PseudoRunningEventTest, KeepsItsOwnCopiesOfWhatTheProcessWas) {
  process_.script.emplace("/srv/script");
  const PseudoRunningEvent event(process_);
  process_.image->SetPath("/bin/other");
  process_.script.reset();
  process_.arguments.clear();
  process_.cwd = "/";
  EXPECT_EQ(event.GetImage()->GetPath(), "/bin/dash");
  EXPECT_EQ(event.GetSecondaryImage()->GetPath(), "/srv/script");
  EXPECT_EQ(event.GetActorProcessArguments().size(), 3U);
  EXPECT_EQ(event.GetCwd(), "/srv/w");
}

TEST_F(PseudoRunningEventTest, HasNoImageOfAProcessWithoutOne) {
  process_.image.reset();
  EXPECT_EQ(PseudoRunningEvent(process_).GetImage(), nullptr);
}

TEST_F(PseudoRunningEventTest, LooksAMissingLoginUpLikeAnyOtherId) {
  process_.auid = 4294967295;
  const PseudoRunningEvent event(process_);
  EXPECT_EQ(event.GetActorLoginName(), "4294967295");
  EXPECT_EQ(event.GetActorLoginName(), "4294967295");
  EXPECT_EQ(log_.Count("User name not found for uid 4294967295"), 1);
  process_.auid = 1;
  EXPECT_EQ(PseudoRunningEvent(process_).GetActorLoginName(), "daemon");
}

TEST_F(PseudoRunningEventTest, IsElevatedWhenALoggedInUserActsAsRoot) {
  EXPECT_TRUE(PseudoRunningEvent(process_).IsElevated());
  process_.euid = 1000;
  EXPECT_FALSE(PseudoRunningEvent(process_).IsElevated());
  process_.euid = 0;
  process_.auid = 0;
  EXPECT_FALSE(PseudoRunningEvent(process_).IsElevated());
  process_.auid = 4294967295;
  EXPECT_FALSE(PseudoRunningEvent(process_).IsElevated());
}

TEST_F(PseudoRunningEventTest, KeepsItsProcessIdWhateverItIsToldToBe) {
  PseudoRunningEvent event(process_);
  event.UpdateActorProcessId(5);
  EXPECT_EQ(event.GetActorProcessId(), 4711);
  EXPECT_NO_THROW(event.Validate());
}

TEST_F(PseudoRunningEventTest, RefusesQuestionsAboutFilesAndSockets) {
  const PseudoRunningEvent event(process_);
  EXPECT_EQ(ErrorOf([&] { static_cast<void>(event.GetCommandLine()); }), "GetCommandLine is not implemented");
  EXPECT_EQ(ErrorOf([&] { static_cast<void>(event.GetFile()); }), "GetFile not implemented");
  EXPECT_EQ(ErrorOf([&] { static_cast<void>(event.GetNewFile()); }), "GetNewFile not implemented");
  EXPECT_EQ(ErrorOf([&] { static_cast<void>(event.GetFileSize()); }), "GetFileSize is not implemented");
  EXPECT_EQ(ErrorOf([&] { static_cast<void>(event.GetNetworkAddress()); }), "GetNetworkAddress is not implemented");
  EXPECT_EQ(ErrorOf([&] { static_cast<void>(event.GetNetworkPort()); }), "GetNetworkPort is not implemented");
}

TEST_F(PseudoRunningEventTest, ClonesWithImagesOfItsOwn) {
  process_.script.emplace("/srv/script");
  const PseudoRunningEvent event(process_);
  const std::unique_ptr<Event> copy = event.Clone();
  EXPECT_EQ(copy->GetActorProcessId(), 4711);
  EXPECT_EQ(copy->GetTimestamp(), event.GetTimestamp());
  EXPECT_THAT(copy->GetActorProcessArguments(), ElementsAre("/bin/sh", "-c", "exit"));
  EXPECT_EQ(copy->GetImage()->GetPath(), "/bin/dash");
  EXPECT_NE(copy->GetImage(), event.GetImage());
  EXPECT_EQ(copy->GetSecondaryImage()->GetPath(), "/srv/script");
  EXPECT_NE(copy->GetSecondaryImage(), event.GetSecondaryImage());
}

}  // namespace
}  // namespace zagent::edr

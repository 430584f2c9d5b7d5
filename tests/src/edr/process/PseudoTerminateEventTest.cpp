#include "src/edr/process/PseudoTerminateEvent.h"

#include <gtest/gtest.h>

#include <functional>
#include <utility>
#include <vector>

#include "tests/fakes/FakeClock.h"
#include "tests/fakes/FakeProcessInfo.h"

namespace zagent::edr {
namespace {

class PseudoTerminateEventTest : public ::testing::Test {
 protected:
  PseudoTerminateEventTest() {
    process_.auid = 1000;
    process_.creation_time = 5;
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

  fakes::FakeClock clock_;
  fakes::FakeProcessInfo process_{4711, 97, "/bin/dash"};
};

TEST_F(PseudoTerminateEventTest, IsTheEndOfTheProcess) {
  const PseudoTerminateEvent event(process_, clock_);
  EXPECT_EQ(static_cast<int>(event.GetType()), 11);
  EXPECT_EQ(event.GetAction(), "Exit");
  EXPECT_EQ(static_cast<int>(event.GetObjectType()), 3);
  EXPECT_EQ(event.GetId(), 0U);
  EXPECT_TRUE(event.IsSuccessful());
  EXPECT_EQ(event.GetActorProcessId(), 4711);
  EXPECT_EQ(event.GetActorParentProcessId(), 97);
  EXPECT_EQ(event.GetImage()->GetPath(), "/bin/dash");
  EXPECT_FALSE(event.HasSecondaryImage());
  EXPECT_EQ(event.GetSecondaryImage(), nullptr);
  EXPECT_EQ(event.GetAuditKey(), "");
}

TEST_F(PseudoTerminateEventTest, HappensNow) {
  clock_.Advance(std::chrono::milliseconds(1234));
  const std::int64_t now = common::util::ToNanoseconds(clock_.Now());
  ASSERT_NE(now % 1'000'000'000, 0);
  const PseudoTerminateEvent event(process_, clock_);
  EXPECT_EQ(event.GetTimestamp(), now);
  clock_.Advance(std::chrono::seconds(10));
  EXPECT_EQ(event.GetTimestamp(), now);
}

TEST_F(PseudoTerminateEventTest, KeepsItsOwnCopiesOfTheImages) {
  process_.script.emplace("/srv/script");
  const PseudoTerminateEvent event(process_, clock_);
  process_.image->SetPath("/bin/other");
  process_.script.reset();
  EXPECT_EQ(event.GetImage()->GetPath(), "/bin/dash");
  EXPECT_TRUE(event.HasSecondaryImage());
  EXPECT_EQ(event.GetSecondaryImage()->GetPath(), "/srv/script");
}

TEST_F(PseudoTerminateEventTest, IsElevatedWhenALoggedInUserActedAsRoot) {
  EXPECT_TRUE(PseudoTerminateEvent(process_, clock_).IsElevated());
  process_.auid = 4294967295;
  EXPECT_FALSE(PseudoTerminateEvent(process_, clock_).IsElevated());
  process_.auid = 1000;
  process_.euid = 1000;
  EXPECT_FALSE(PseudoTerminateEvent(process_, clock_).IsElevated());
}

TEST_F(PseudoTerminateEventTest, RefusesWhatItIsNotAskedFor) {
  const PseudoTerminateEvent event(process_, clock_);
  const std::vector<std::pair<std::string, std::function<void()>>> questions = {
      {"GetActorProcessArguments is not implemented", [&] { static_cast<void>(event.GetActorProcessArguments()); }},
      {"GetActorUserId is not implemented", [&] { static_cast<void>(event.GetActorUserId()); }},
      {"GetActorUserName is not implemented", [&] { static_cast<void>(event.GetActorUserName()); }},
      {"GetActorLoginName is not implemented", [&] { static_cast<void>(event.GetActorLoginName()); }},
      {"GetCwd is not implemented", [&] { static_cast<void>(event.GetCwd()); }},
      {"GetFile not implemented", [&] { static_cast<void>(event.GetFile()); }},
      {"GetNetworkAddress is not implemented", [&] { static_cast<void>(event.GetNetworkAddress()); }},
  };
  for (const auto& [text, ask] : questions) EXPECT_EQ(ErrorOf(ask), text);
}

TEST_F(PseudoTerminateEventTest, RefusesBothUserIdsInTheWordsOfTheAuditOne) {
  const PseudoTerminateEvent event(process_, clock_);
  EXPECT_EQ(ErrorOf([&] { static_cast<void>(event.GetActorAuid()); }), "GetActorAuid is not implemented");
  EXPECT_EQ(ErrorOf([&] { static_cast<void>(event.GetActorEuid()); }), "GetActorAuid is not implemented");
}

TEST_F(PseudoTerminateEventTest, ClonesWithImagesOfItsOwn) {
  process_.script.emplace("/srv/script");
  const PseudoTerminateEvent event(process_, clock_);
  const std::unique_ptr<Event> copy = event.Clone();
  EXPECT_EQ(copy->GetActorProcessId(), 4711);
  EXPECT_EQ(copy->GetTimestamp(), event.GetTimestamp());
  EXPECT_TRUE(copy->IsElevated());
  EXPECT_EQ(copy->GetImage()->GetPath(), "/bin/dash");
  EXPECT_NE(copy->GetImage(), event.GetImage());
  EXPECT_NE(copy->GetSecondaryImage(), event.GetSecondaryImage());
}

}  // namespace
}  // namespace zagent::edr

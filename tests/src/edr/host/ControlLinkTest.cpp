#include "src/edr/host/ControlLink.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <future>
#include <string>
#include <thread>

#include "common/src/util/UniqueFd.h"
#include "tests/fakes/FakeClock.h"
#include "tests/fakes/Gate.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::edr::host {
namespace {

using namespace std::chrono_literals;

std::vector<unsigned char> Bytes(const std::string& text) {
  return {text.begin(), text.end()};
}

class ControlLinkTest : public testing::Test {
 protected:
  std::string Take() {
    const auto lock = link_.Lock();
    return link_.TakeMessage();
  }

  fakes::FakeClock clock_;
  ExitFlag exit_flag_{false};
  ControlLink link_{exit_flag_, clock_};
};

TEST_F(ControlLinkTest, HandsOverACommandOnce) {
  link_.OnMessage(Bytes("{}"));
  EXPECT_EQ(Take(), "{}");
  EXPECT_EQ(Take(), "");
}

TEST_F(ControlLinkTest, OnlyTheNewestCommandOfABurstSurvives) {
  link_.OnMessage(Bytes("first"));
  link_.OnMessage(Bytes("second"));
  EXPECT_EQ(Take(), "second");
}

TEST_F(ControlLinkTest, ACommandEndsAtItsFirstNul) {
  link_.OnMessage(Bytes(std::string("{}\0rest", 7)));
  EXPECT_EQ(Take(), "{}");
}

TEST_F(ControlLinkTest, RemembersThatTheAgentMayBeAnotherOne) {
  EXPECT_FALSE(link_.MayHaveLostAgent());
  link_.OnConnected(false);
  EXPECT_TRUE(link_.MayHaveLostAgent());
  EXPECT_TRUE(link_.MayHaveLostAgent()) << "nobody is there still";
  link_.OnConnected(true);
  EXPECT_TRUE(link_.MayHaveLostAgent());
  EXPECT_FALSE(link_.MayHaveLostAgent());
}

// The agent's end of the link.
class AgentSocket {
 public:
  explicit AgentSocket(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    EXPECT_EQ(bind(listener_.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    EXPECT_EQ(listen(listener_.Get(), 1), 0);
  }
  void Accept() { peer_ = common::util::UniqueFd(accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC)); }
  void Send(const std::string& text) const {
    EXPECT_EQ(write(peer_.Get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  void HangUp() { peer_ = common::util::UniqueFd(); }
  void GoAway() {
    listener_ = common::util::UniqueFd();
    HangUp();
  }

 private:
  common::util::UniqueFd listener_{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
  common::util::UniqueFd peer_;
};

TEST_F(ControlLinkTest, ItsChannelBringsCommandsAndTellsWhenTheAgentHangsUpAndComesBack) {
  const fakes::TempFolder folder;
  AgentSocket agent(folder / "agent.sock");
  const auto channel = CreateAgentChannel(link_, folder / "agent.sock");
  agent.Accept();
  EXPECT_FALSE(link_.MayHaveLostAgent());
  const auto has_message = [this] {
    const auto lock = link_.Lock();
    return link_.HasMessage();
  };
  agent.Send("first");
  EXPECT_TRUE(fakes::Eventually(has_message));
  EXPECT_EQ(Take(), "first");

  agent.HangUp();
  agent.Accept();
  EXPECT_TRUE(fakes::Eventually([this] { return link_.MayHaveLostAgent(); }));
  EXPECT_TRUE(fakes::Eventually([this] { return !link_.MayHaveLostAgent(); })) << "it is there again";
  agent.Send("second");
  EXPECT_TRUE(fakes::Eventually(has_message));
  EXPECT_EQ(Take(), "second");

  agent.GoAway();
  EXPECT_TRUE(fakes::Eventually([this] { return link_.MayHaveLostAgent(); }));
  EXPECT_TRUE(link_.MayHaveLostAgent()) << "as long as it is away";
  EXPECT_FALSE(exit_flag_) << "it has not given up";
  channel->Stop();
}

TEST_F(ControlLinkTest, LogsTheWholeCommand) {
  const fakes::LogCapture log;
  link_.OnMessage(Bytes(R"({"command":"exit"})"));
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_INFORMATION,
                      R"(Received configuration data from the Ostrel Agent process: {"command":"exit"})"));
}

TEST_F(ControlLinkTest, ACommandEndsTheWaitForIt) {
  auto waiting = std::async(std::launch::async, [this] {
    auto lock = link_.Lock();
    return link_.WaitForMessage(lock, 30s);
  });
  clock_.AwaitWaiters(1);
  link_.OnMessage(Bytes("{}"));
  EXPECT_TRUE(waiting.get());
}

TEST_F(ControlLinkTest, TheWaitForTheFirstCommandEndsAtItsDeadlineOnly) {
  auto waiting = std::async(std::launch::async, [this] {
    auto lock = link_.Lock();
    return link_.WaitForMessage(lock, 30s);
  });
  clock_.AwaitWaiters(1);
  exit_flag_ = true;  // neither a signal nor a lost link ends it
  clock_.Advance(29s);
  EXPECT_EQ(waiting.wait_for(0s), std::future_status::timeout);
  clock_.Advance(1s);
  EXPECT_FALSE(waiting.get());
}

TEST_F(ControlLinkTest, AWallClockThatIsSetBackDoesNotStretchTheWaitForTheFirstCommand) {
  auto waiting = std::async(std::launch::async, [this] {
    auto lock = link_.Lock();
    return link_.WaitForMessage(lock, 30s);
  });
  clock_.AwaitWaiters(1);
  clock_.SetWall(-1h);
  clock_.Advance(30s);
  ASSERT_EQ(waiting.wait_for(20s), std::future_status::ready);
  EXPECT_FALSE(waiting.get());
}

TEST_F(ControlLinkTest, AWallClockThatReachesTheTimeEndsTheWaitToo) {
  auto waiting = std::async(std::launch::async, [this] {
    auto lock = link_.Lock();
    return link_.WaitForMessage(lock, 30s);
  });
  clock_.AwaitWaiters(1);
  clock_.SetWall(1h);
  clock_.Advance(1s);  // the next look at the wall clock
  ASSERT_EQ(waiting.wait_for(20s), std::future_status::ready);
  EXPECT_FALSE(waiting.get());
}

TEST_F(ControlLinkTest, AWallClockThatIsSetBackDoesNotHoldTheMainLoop) {
  auto waiting = std::async(std::launch::async, [this] {
    auto lock = link_.Lock();
    link_.WaitForWork(lock, 1s);
  });
  clock_.AwaitWaiters(1);
  clock_.SetWall(-1h);
  clock_.Advance(1s);
  ASSERT_EQ(waiting.wait_for(20s), std::future_status::ready);
}

TEST_F(ControlLinkTest, ALostLinkRaisesTheExitFlagAndWakesTheMainLoop) {
  auto waiting = std::async(std::launch::async, [this] {
    auto lock = link_.Lock();
    link_.SetLoggerReady();
    link_.WaitForWork(lock, 1s);
  });
  clock_.AwaitWaiters(1);
  const fakes::LogCapture log;
  ASSERT_FALSE(exit_flag_);
  link_.OnError(audit::IOChannel::Error::Timeout);
  waiting.get();
  EXPECT_TRUE(exit_flag_);
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_ERROR, "Failed to establish communication with the Ostrel Agent process."));
}

TEST_F(ControlLinkTest, BeforeThereIsALoggerALostLinkGoesToSyslogOnly) {
  const fakes::LogCapture log;
  link_.OnError(audit::IOChannel::Error::Timeout);
  EXPECT_TRUE(exit_flag_);
  EXPECT_EQ(log.Count("Failed to establish communication"), 0);
}

TEST_F(ControlLinkTest, WhileACommandRunsTheChannelDoesNotWaitAndTheNewestCommandIsNext) {
  const fakes::LogCapture log;
  {
    const auto running = link_.Lock();
    std::async(std::launch::async, [this] {
      link_.OnMessage(Bytes("second"));
      link_.OnMessage(Bytes("third"));
    }).get();
    EXPECT_EQ(log.Count("Received configuration data"), 0) << "the control lock is not free";
  }
  EXPECT_EQ(Take(), "third");
  EXPECT_EQ(Take(), "");
  EXPECT_EQ(log.Count("Received configuration data from the Ostrel Agent process: "), 1) << log.All();
}

TEST_F(ControlLinkTest, ACommandThatCameWhileAnotherRanEndsTheNextWait) {
  auto lock = link_.Lock();
  std::async(std::launch::async, [this] { link_.OnMessage(Bytes("next")); }).get();
  link_.WaitForWork(lock, 1s);  // time stands still: it would wait for ever
  EXPECT_TRUE(link_.HasMessage());
  EXPECT_EQ(link_.TakeMessage(), "next");
}

TEST_F(ControlLinkTest, ACommandInTheInboxReplacesTheOneThatIsPending) {
  link_.OnMessage(Bytes("pending"));
  auto lock = link_.Lock();
  std::async(std::launch::async, [this] { link_.OnMessage(Bytes("newer")); }).get();
  EXPECT_EQ(link_.TakeMessage(), "newer");
  EXPECT_FALSE(link_.HasMessage());
}

TEST_F(ControlLinkTest, AnAgentThatIsLostWhileACommandRunsEndsTheDaemonBehindTheCommand) {
  auto lock = link_.Lock();
  auto losing = std::async(std::launch::async, [this] { link_.OnError(audit::IOChannel::Error::Timeout); });
  EXPECT_FALSE(exit_flag_);
  link_.WaitForWork(lock, 1s);  // time stands still: only the loss ends it
  losing.get();
  EXPECT_TRUE(exit_flag_);
}

// The main loop against a sender without a pause: no command is left in the inbox by a notification that came too
// early.
TEST_F(ControlLinkTest, NoCommandIsLeftInTheInbox) {
  for (int round = 0; round < 2'000; ++round) {
    auto sending = std::async(std::launch::async, [&] { link_.OnMessage(Bytes(std::to_string(round))); });
    std::string taken;
    while (taken.empty()) {
      auto lock = link_.Lock();
      link_.WaitForWork(lock, 1s);  // time stands still
      taken = link_.TakeMessage();
    }
    ASSERT_EQ(taken, std::to_string(round));
    sending.get();
  }
}

}  // namespace
}  // namespace zagent::edr::host

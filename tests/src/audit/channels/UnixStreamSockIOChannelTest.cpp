#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "common/src/util/UniqueFd.h"
#include "src/audit/channels/UnixClientStreamSockIOChannel.h"
#include "src/audit/channels/UnixServerStreamSockIOChannel.h"
#include "src/audit/channels/UnixSocket.h"
#include "tests/fakes/ChannelLog.h"
#include "tests/fakes/FakeClock.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::audit {
namespace {

using fakes::ToBytes;
using Error = IOChannel::Error;

Error ErrorOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const IOChannelException& exception) {
    return exception.GetError();
  }
  return Error::Success;
}

mode_t ModeOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
  return status.st_mode & 07777;
}

// A server and a client on one path, each with what its callbacks heard.
class UnixStreamSockIOChannelTest : public testing::Test {
 protected:
  UnixStreamSockIOChannelTest() { OpenServer(); }

  void OpenServer() {
    server_ = std::make_unique<UnixServerStreamSockIOChannel>(path_, 0700);
    server_log_.ListenTo(*server_);
    server_->SetClientCallback([this](bool present) { clients_.Put(present); });
    server_->Start();
  }
  UnixClientStreamSockIOChannel& ConnectClient(std::int32_t reconnect_limit) {
    client_ = std::make_unique<UnixClientStreamSockIOChannel>(path_, reconnect_limit, clock_);
    client_log_.ListenTo(*client_);
    client_->SetReconnectCallback([this] { reconnections_.Put(true); });
    client_->SetDisconnectCallback([this] { disconnections_.Put(true); });
    client_->Start();
    EXPECT_EQ(clients_.Take(), true);
    return *client_;
  }
  // The clock moves whenever the client waits for its next attempt.
  void PassReconnectPauses(int count) {
    for (int i = 0; i < count; ++i) {
      clock_.AwaitWaiters(1);
      const auto deadline = clock_.EarliestDeadline();
      clock_.Advance(std::chrono::seconds(1));
      while (clock_.EarliestDeadline() == deadline) std::this_thread::yield();
    }
  }
  void RestartServerDuringAPause() {
    clock_.AwaitWaiters(1);
    server_->Start();
    clock_.Advance(std::chrono::seconds(1));
    EXPECT_EQ(clients_.Take(), true);
  }

  fakes::LogCapture lines_;
  fakes::TempFolder folder_;
  std::string path_ = folder_ / "agent.sock";
  fakes::FakeClock clock_;
  fakes::ChannelLog server_log_;
  fakes::ChannelLog client_log_;
  fakes::Mailbox<bool> clients_;
  fakes::Mailbox<bool> reconnections_, disconnections_;
  std::unique_ptr<UnixServerStreamSockIOChannel> server_;
  std::unique_ptr<UnixClientStreamSockIOChannel> client_;
};

TEST_F(UnixStreamSockIOChannelTest, CarriesMessagesBothWays) {
  ConnectClient(0);
  server_->Send(ToBytes("{\"command\":\"fim_status\"}"));
  EXPECT_EQ(client_log_.messages.Take(), "{\"command\":\"fim_status\"}");
  client_->Send(ToBytes("an answer"));
  EXPECT_EQ(server_log_.messages.Take(), "an answer");
  client_->Stop();
  EXPECT_EQ(clients_.Take(), false);
  for (const char* line :
       {"UnixClientStreamSockIOChannel: Starting...", "UnixClientStreamSockIOChannel: Connected.",
        "UnixClientStreamSockIOChannel: Started.", "UnixClientStreamSockIOChannel: Stopping...",
        "UnixClientStreamSockIOChannel: Stopped.", "UnixServerStreamSockIOChannel: Starting...",
        "UnixServerStreamSockIOChannel: Started.", "UnixServerStreamSockIOChannel: New incoming connection accepted.",
        "UnixServerStreamSockIOChannel: EOF received. Waiting for incoming connections..."}) {
    EXPECT_TRUE(lines_.Has(line)) << line;
  }
  EXPECT_TRUE(lines_.Has("UnixServerStreamSockIOChannel: Bound to " + path_));
}

TEST_F(UnixStreamSockIOChannelTest, TakesPathsThatFitIntoAnAddress) {
  const auto client = [](std::size_t length) {
    return ErrorOf([&] { UnixClientStreamSockIOChannel channel(std::string(length, 'c'), 0); });
  };
  EXPECT_EQ(client(0), Error::InvalidData);
  EXPECT_EQ(client(91), Error::Success);
  EXPECT_EQ(client(92), Error::InvalidData);
  const auto server = [](std::size_t length) {
    return ErrorOf([&] { UnixServerStreamSockIOChannel channel(std::string(length, 's'), 0700); });
  };
  EXPECT_EQ(server(0), Error::InvalidData);
  EXPECT_EQ(server(90), Error::Success);
  EXPECT_EQ(server(91), Error::InvalidData);
}

TEST_F(UnixStreamSockIOChannelTest, TheClientSaysWhyItCannotConnect) {
  UnixClientStreamSockIOChannel nowhere(folder_ / "missing.sock", 0);
  EXPECT_EQ(ErrorOf([&] { nowhere.Start(); }), Error::InvalidData);
  EXPECT_TRUE(
      lines_.Has(Poco::Message::PRIO_ERROR, "UnixClientStreamSockIOChannel::Connect: No such file or directory (2)"));

  const common::util::UniqueFd bound(socket(AF_UNIX, SOCK_STREAM, 0));
  const std::string deaf = folder_ / "deaf.sock";
  const internal::UnixAddress address(deaf);
  ASSERT_EQ(bind(bound.Get(), address.Get(), internal::UnixAddress::Size()), 0);
  UnixClientStreamSockIOChannel unheard(deaf, 0);
  EXPECT_EQ(ErrorOf([&] { unheard.Start(); }), Error::RemoteFailure);
  EXPECT_TRUE(lines_.Has("UnixClientStreamSockIOChannel::Connect: Connection refused (111)"));

  UnixClientStreamSockIOChannel no_socket(folder_.Write("file", ""), 0);
  EXPECT_EQ(ErrorOf([&] { no_socket.Start(); }), Error::RemoteFailure);
  UnixClientStreamSockIOChannel no_folder(folder_ / "file/x.sock", 0);
  EXPECT_EQ(ErrorOf([&] { no_folder.Start(); }), Error::Unknown);
}

TEST_F(UnixStreamSockIOChannelTest, AnotherUserIsDenied) {
  ASSERT_EQ(chmod(path_.c_str(), 0), 0);
  UnixClientStreamSockIOChannel client(path_, 0);
  // Root passes every mode, so it asks as nobody.
  const bool is_root = geteuid() == 0;
  if (is_root) {
    ASSERT_EQ(seteuid(65'534), 0);
  }
  const Error error = ErrorOf([&] { client.Start(); });
  if (is_root) {
    ASSERT_EQ(seteuid(0), 0);
  }
  EXPECT_EQ(error, Error::AccessDenied);
}

TEST_F(UnixStreamSockIOChannelTest, AFailedStartMayBeTriedAgain) {
  server_->Stop();
  UnixClientStreamSockIOChannel client(path_, 0);
  EXPECT_EQ(ErrorOf([&] { client.Start(); }), Error::InvalidData);
  client.Stop();
  server_->Start();
  client.Start();
  EXPECT_EQ(ErrorOf([&] { client.Start(); }), Error::InvalidState) << "it runs already";
}

TEST_F(UnixStreamSockIOChannelTest, TheClientComesBackToAServerThatRestarted) {
  ConnectClient(30);
  server_->Stop();
  PassReconnectPauses(2);
  EXPECT_TRUE(reconnections_.IsEmpty());
  RestartServerDuringAPause();
  EXPECT_EQ(reconnections_.Take(), true);
  server_->Send(ToBytes("still there?"));
  EXPECT_EQ(client_log_.messages.Take(), "still there?");
  EXPECT_TRUE(reconnections_.IsEmpty()) << "once per reconnection";
  EXPECT_EQ(disconnections_.Take(), true);
  EXPECT_TRUE(disconnections_.IsEmpty());
  EXPECT_TRUE(client_log_.errors.IsEmpty());
  EXPECT_TRUE(lines_.Has("UnixClientStreamSockIOChannel: EOF Received. Trying to reconnect..."));
}

TEST_F(UnixStreamSockIOChannelTest, TheClientGivesUpAfterItsLimitOfAttempts) {
  ConnectClient(30);
  server_->Stop();
  PassReconnectPauses(30);
  EXPECT_EQ(client_log_.errors.Take(), Error::Timeout);
  EXPECT_EQ(lines_.Count("UnixClientStreamSockIOChannel: Trying to reconnect... "), 30);
  EXPECT_TRUE(
      lines_.Has(Poco::Message::PRIO_WARNING, "UnixClientStreamSockIOChannel: Aborting reconnection due to timeout."));
  EXPECT_EQ(ErrorOf([&] { client_->Send(ToBytes("x")); }), Error::InvalidState);
}

TEST_F(UnixStreamSockIOChannelTest, AttemptsAreCountedAnewAfterAReconnection) {
  ConnectClient(3);
  server_->Stop();
  PassReconnectPauses(1);
  RestartServerDuringAPause();
  EXPECT_EQ(reconnections_.Take(), true);
  server_->Stop();
  PassReconnectPauses(3);
  EXPECT_EQ(client_log_.errors.Take(), Error::Timeout);
}

TEST_F(UnixStreamSockIOChannelTest, ANegativeLimitMeansNoAttempt) {
  ConnectClient(-1);
  server_->Stop();
  EXPECT_EQ(client_log_.errors.Take(), Error::Timeout);
  EXPECT_EQ(lines_.Count("UnixClientStreamSockIOChannel: Trying to reconnect... "), 0);
  EXPECT_TRUE(lines_.Has("UnixClientStreamSockIOChannel: Aborting reconnection due to timeout."));
}

TEST_F(UnixStreamSockIOChannelTest, AWallClockThatIsSetBackDoesNotStretchThePauses) {
  ConnectClient(2);
  server_->Stop();
  clock_.AwaitWaiters(1);
  clock_.SetWall(-std::chrono::hours(1));
  PassReconnectPauses(2);
  EXPECT_EQ(client_log_.errors.Take(), Error::Timeout);
  EXPECT_EQ(client_log_.ends.Take(), "IOChannel: Timeout");
}

TEST_F(UnixStreamSockIOChannelTest, AZeroLimitNeverGivesUp) {
  ConnectClient(0);
  server_->Stop();
  PassReconnectPauses(100);
  EXPECT_TRUE(client_log_.errors.IsEmpty());
  RestartServerDuringAPause();
  EXPECT_EQ(reconnections_.Take(), true);
}

TEST_F(UnixStreamSockIOChannelTest, StopEndsAReconnectionWithoutWaitingForItsPause) {
  ConnectClient(0);
  server_->Stop();
  clock_.AwaitWaiters(1);
  client_->Stop();  // the clock stands still: a pause that was not woken would last for ever
  EXPECT_TRUE(client_log_.ends.IsEmpty()) << "an end that was asked for";
  EXPECT_TRUE(lines_.Has("UnixClientStreamSockIOChannel: Aborting reconnection because socket is closing."));
}

TEST_F(UnixStreamSockIOChannelTest, TheServerMakesItsFoldersAndKeepsOthersOut) {
  const std::string deep = folder_ / "run/ostrel/agent.sock";
  UnixServerStreamSockIOChannel server(deep, 0700);
  EXPECT_TRUE(lines_.Has("UnixServerStreamSockIOChannel: Created dir " + (folder_ / "run/ostrel")));
  EXPECT_EQ(ModeOf(folder_ / "run"), 0700U);
  EXPECT_EQ(ModeOf(folder_ / "run/ostrel"), 0700U);
  server.Start();
  EXPECT_EQ(ModeOf(deep), 0600U);
  server.Stop();
  EXPECT_NE(access(deep.c_str(), F_OK), 0);
}

TEST_F(UnixStreamSockIOChannelTest, TheServerNeedsAPossibleFolder) {
  folder_.Write("file", "");
  EXPECT_EQ(ErrorOf([&] { UnixServerStreamSockIOChannel server(folder_ / "file/sub/x.sock", 0700); }),
            Error::InvalidData);
}

TEST_F(UnixStreamSockIOChannelTest, TheServerReplacesWhatADeadOneLeftAtItsPath) {
  const std::string stale = folder_.Write("stale.sock", "left behind");
  UnixServerStreamSockIOChannel server(stale, 0700);
  server.Start();
  UnixClientStreamSockIOChannel client(stale, 0);
  client.Start();
}

TEST_F(UnixStreamSockIOChannelTest, TheServerSaysThatItCannotBind) {
  const std::string folder_in_the_way = folder_ / "folder";
  ASSERT_EQ(mkdir(folder_in_the_way.c_str(), 0700), 0);
  UnixServerStreamSockIOChannel server(folder_in_the_way, 0700);
  EXPECT_EQ(ErrorOf([&] { server.Start(); }), Error::InvalidData);
  EXPECT_TRUE(
      lines_.Has(Poco::Message::PRIO_ERROR, "UnixServerStreamSockIOChannel::Bind: Address already in use (98)"));
  ASSERT_EQ(rmdir(folder_in_the_way.c_str()), 0);
  server.Start();
}

TEST_F(UnixStreamSockIOChannelTest, ASecondClientWaitsUntilTheFirstHasGone) {
  ConnectClient(-1);
  fakes::ChannelLog second_log;
  UnixClientStreamSockIOChannel second(path_, -1);
  second_log.ListenTo(second);
  second.Start();
  second.Send(ToBytes("may I?"));
  client_->Send(ToBytes("me first"));
  EXPECT_EQ(server_log_.messages.Take(), "me first");
  EXPECT_TRUE(server_log_.messages.IsEmpty());
  server_->Send(ToBytes("for the first"));
  EXPECT_EQ(client_log_.messages.Take(), "for the first");
  client_->Stop();
  EXPECT_EQ(server_log_.messages.Take(), "may I?");
  server_->Send(ToBytes("for the second"));
  EXPECT_EQ(second_log.messages.Take(), "for the second");
}

TEST_F(UnixStreamSockIOChannelTest, TheServerCannotSendToNobody) {
  EXPECT_EQ(ErrorOf([&] { server_->Send(ToBytes("x")); }), Error::InvalidState);
  ConnectClient(-1);
  client_->Stop();
  EXPECT_EQ(clients_.Take(), false);
  EXPECT_EQ(ErrorOf([&] { server_->Send(ToBytes("x")); }), Error::InvalidState);
}

TEST_F(UnixStreamSockIOChannelTest, TheServerTellsWhenItsPathHasGone) {
  ASSERT_EQ(unlink(path_.c_str()), 0);
  server_->Stop();
  EXPECT_TRUE(lines_.Has(Poco::Message::PRIO_ERROR, "UnixServerStreamSockIOChannel::Stop: No such file or directory"));
  server_->Stop();
  EXPECT_EQ(lines_.Count("UnixServerStreamSockIOChannel::Stop: "), 1);
}

TEST_F(UnixStreamSockIOChannelTest, CallbacksAreFixedWhileTheChannelsRun) {
  ConnectClient(0);
  EXPECT_EQ(ErrorOf([&] { client_->SetReconnectCallback(nullptr); }), Error::InvalidState);
  EXPECT_EQ(ErrorOf([&] { server_->SetClientCallback(nullptr); }), Error::InvalidState);
  EXPECT_EQ(ErrorOf([&] { server_->Start(); }), Error::InvalidState);
}

}  // namespace
}  // namespace zagent::audit

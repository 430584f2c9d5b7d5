#include "src/audit/channels/IOChannel.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "common/src/util/UniqueFd.h"
#include "src/audit/channels/StdIOChannel.h"
#include "tests/fakes/ChannelLog.h"
#include "tests/fakes/Gate.h"
#include "tests/fakes/LogCapture.h"

namespace zagent::audit {
namespace {

using common::util::UniqueFd;
using fakes::ToBytes;
using Error = IOChannel::Error;

// A channel whose inner operations a test may look at and answer.
class TestChannel final : public IOChannel {
 public:
  explicit TestChannel(std::size_t read_buf_size = 65'536, std::uint64_t timeout_seconds = 0)
      : IOChannel(read_buf_size, timeout_seconds) {}
  ~TestChannel() override {
    try {
      Stop();
    } catch (const std::exception&) {  // NOLINT(bugprone-empty-catch)
    }
  }

  using IOChannel::ConfigureFD;
  void Use(int read_fd, int write_fd) {
    read_fd_ = read_fd;
    write_fd_ = write_fd;
  }

  void LetGather(std::function<void()> let_gather) { let_gather_ = std::move(let_gather); }

  std::atomic<int> timeouts{0};
  std::atomic<int> timeouts_to_forgive{0};

 protected:
  Error OnTimeout() override {
    if (++timeouts <= timeouts_to_forgive) return Error::Success;
    return IOChannel::OnTimeout();
  }
};

Error ErrorOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const IOChannelException& exception) {
    return exception.GetError();
  }
  return Error::Success;
}

class IOChannelTest : public testing::Test {
 protected:
  IOChannelTest() {
    std::array<int, 2> ends{};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), 0);
    ours_.Reset(ends[0]);
    peer_.Reset(ends[1]);
    TestChannel::ConfigureFD(ours_.Get());
    channel_.Use(ours_.Get(), ours_.Get());
    log_.ListenTo(channel_);
  }

  void PeerWrites(const std::string& text) {
    ASSERT_EQ(write(peer_.Get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  void FillTheWayToThePeer() {
    const std::string block(4096, 'x');
    while (write(ours_.Get(), block.data(), block.size()) > 0) {
    }
  }

  fakes::LogCapture lines_;
  fakes::ChannelLog log_;
  UniqueFd ours_;
  UniqueFd peer_;
  TestChannel channel_;
};

TEST(IOChannelConstructionTest, RefusesAnEmptyReadBuffer) {
  try {
    TestChannel channel(0);
    FAIL() << "a channel that cannot read was built";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "IOChannel: readBufSize cannot be 0");
  }
}

TEST(IOChannelExceptionTest, SaysWhatHappenedInWords) {
  EXPECT_STREQ(IOChannelException(Error::Success).what(), "IOChannel: Success");
  EXPECT_STREQ(IOChannelException(Error::Timeout).what(), "IOChannel: Timeout");
  EXPECT_STREQ(IOChannelException(Error::RemoteFailure).what(), "IOChannel: Remote failure");
  EXPECT_STREQ(IOChannelException(Error::AccessDenied).what(), "IOChannel: Access denied");
  EXPECT_STREQ(IOChannelException(Error::InvalidData).what(), "IOChannel: Invalid data");
  EXPECT_STREQ(IOChannelException(Error::InvalidState).what(), "IOChannel: Invalid state");
  EXPECT_STREQ(IOChannelException(Error::Unknown).what(), "IOChannel: Unknown error");
  EXPECT_STREQ(IOChannelException(static_cast<Error>(77)).what(), "IOChannel: Unknown error");
}

TEST_F(IOChannelTest, JoinsWhatArrivesWithoutAGapIntoOneMessage) {
  PeerWrites("{\"command\":");
  channel_.Start();
  PeerWrites("\"exit\"}");
  EXPECT_EQ(log_.messages.Take(), "{\"command\":\"exit\"}");
}

TEST_F(IOChannelTest, EndsAMessageAtAQuietGap) {
  channel_.Start();
  PeerWrites("one");
  EXPECT_EQ(log_.messages.Take(), "one");
  PeerWrites("two");
  EXPECT_EQ(log_.messages.Take(), "two");
}

TEST_F(IOChannelTest, EndsAMessageAt64KiBWithoutWaitingForTheGap) {
  const std::string full(IOChannel::kMaxBurst, 'a');
  const int room = 4 * 65'536;
  setsockopt(peer_.Get(), SOL_SOCKET, SO_SNDBUF, &room, sizeof(room));
  PeerWrites(full + "rest");
  channel_.Start();
  EXPECT_EQ(log_.messages.Take(), full);
  EXPECT_EQ(log_.messages.Take(), "rest");
}

TEST_F(IOChannelTest, ReadsInStepsOfItsBufferSize) {
  fakes::ChannelLog log;
  TestChannel small_steps(3);
  small_steps.Use(ours_.Get(), -1);
  log.ListenTo(small_steps);
  PeerWrites("0123456789");
  small_steps.Start();
  EXPECT_EQ(log.messages.Take(), "0123456789");
}

// The five empty reads of a message count together: renewed by each byte, this message would never end.
TEST_F(IOChannelTest, EndsTheMessageOfAPeerThatNeverFallsQuiet) {
  channel_.Start();
  std::atomic<bool> enough{false};
  std::thread trickle([&] {
    while (!enough) {
      PeerWrites(".");
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  });
  const auto message = log_.messages.Take();
  enough = true;
  trickle.join();
  ASSERT_TRUE(message.has_value());
  EXPECT_LT(message->size(), IOChannel::kMaxBurst);
}

TEST_F(IOChannelTest, DeliversWhatWasBufferedBeforeItReportsTheEnd) {
  PeerWrites("last ");
  PeerWrites("words");
  peer_.Reset();
  channel_.Start();
  EXPECT_EQ(log_.messages.Take(), "last words");
  EXPECT_EQ(log_.errors.Take(), Error::RemoteFailure);
  EXPECT_TRUE(log_.messages.IsEmpty());
  channel_.Stop();
  EXPECT_TRUE(lines_.Has(Poco::Message::PRIO_ERROR, "IOChannel: EOF received."));
  EXPECT_TRUE(lines_.Has(Poco::Message::PRIO_WARNING, "IOChannel: Exiting the event loop."));
}

TEST_F(IOChannelTest, SendToAClosedPeerIsARemoteFailureAndTheProcessLives) {
  peer_.Reset();
  sigset_t sigpipe;
  sigemptyset(&sigpipe);
  sigaddset(&sigpipe, SIGPIPE);
  pthread_sigmask(SIG_UNBLOCK, &sigpipe, nullptr);
  std::signal(SIGPIPE, SIG_DFL);
  EXPECT_EQ(ErrorOf([&] { channel_.Send(ToBytes("hello")); }), Error::RemoteFailure);
  EXPECT_TRUE(lines_.Has(Poco::Message::PRIO_ERROR, "IOChannel::Send: Broken pipe"));

  sigset_t mask;
  sigset_t pending;
  pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  sigpending(&pending);
  EXPECT_EQ(sigismember(&mask, SIGPIPE), 0) << "the signal mask was not restored";
  EXPECT_EQ(sigismember(&pending, SIGPIPE), 0) << "the signal is left for later";
}

TEST_F(IOChannelTest, SendLeavesSigpipeBlockedWhereItWasBlocked) {
  std::thread([&] {
    sigset_t sigpipe;
    sigemptyset(&sigpipe);
    sigaddset(&sigpipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &sigpipe, nullptr);
    channel_.Send(ToBytes("hello"));
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    EXPECT_EQ(sigismember(&mask, SIGPIPE), 1);
  }).join();
}

TEST_F(IOChannelTest, SendNeedsADescriptor) {
  channel_.Use(ours_.Get(), -1);
  EXPECT_EQ(ErrorOf([&] { channel_.Send(ToBytes("hello")); }), Error::InvalidState);
}

TEST_F(IOChannelTest, SendWaitsForASlowPeerAndLosesNothing) {
  const std::size_t size = 2 * 1024 * 1024;
  std::string received;
  std::thread reader([&] {
    std::array<char, 1000> buffer{};
    while (received.size() < size) {
      const ssize_t length = read(peer_.Get(), buffer.data(), buffer.size());
      if (length <= 0) return;
      received.append(buffer.data(), static_cast<std::size_t>(length));
    }
  });
  std::string sent(size, '\0');
  for (std::size_t i = 0; i < size; ++i) sent[i] = static_cast<char>('a' + i % 23);
  channel_.Send(ToBytes(sent));
  reader.join();
  EXPECT_TRUE(received == sent);
}

TEST_F(IOChannelTest, SendGivesUpOnAPeerThatDoesNotReadForHalfASecond) {
  FillTheWayToThePeer();
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(ErrorOf([&] { channel_.Send(ToBytes("hello")); }), Error::Timeout);
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(490));
  EXPECT_TRUE(lines_.Has(Poco::Message::PRIO_WARNING, "IOChannel: Write aborted due to timeout."));
}

TEST_F(IOChannelTest, SendDoesNotWaitOnceTheChannelIsExiting) {
  FillTheWayToThePeer();
  channel_.Stop();
  EXPECT_EQ(ErrorOf([&] { channel_.Send(ToBytes("hello")); }), Error::Timeout);
  EXPECT_TRUE(lines_.Has(Poco::Message::PRIO_WARNING, "IOChannel: Write aborted due to exiting."));
}

TEST_F(IOChannelTest, SendToADescriptorThatIsNotOpenIsUnknown) {
  channel_.Use(ours_.Get(), 9'999);
  EXPECT_EQ(ErrorOf([&] { channel_.Send(ToBytes("hello")); }), Error::Unknown);
  EXPECT_TRUE(lines_.Has(Poco::Message::PRIO_ERROR, "IOChannel::Send: Bad file descriptor (9)"));
}

TEST_F(IOChannelTest, IsNotConfiguredOrStartedAgainWhileItRuns) {
  channel_.Start();
  EXPECT_EQ(ErrorOf([&] { channel_.Start(); }), Error::InvalidState);
  EXPECT_EQ(ErrorOf([&] { channel_.SetReadCallback(nullptr); }), Error::InvalidState);
  EXPECT_EQ(ErrorOf([&] { channel_.SetErrorCallback(nullptr); }), Error::InvalidState);
  channel_.Stop();
  channel_.SetReadCallback(nullptr);
  channel_.SetErrorCallback(nullptr);
}

TEST_F(IOChannelTest, NeedsADescriptorToStart) {
  channel_.Use(-1, -1);
  EXPECT_EQ(ErrorOf([&] { channel_.Start(); }), Error::InvalidState);
}

TEST_F(IOChannelTest, StopEndsALoopThatWaitsForEver) {
  channel_.Start();
  // One message through: the loop is certain to have been in its wait.
  PeerWrites("x");
  log_.messages.Take();
  channel_.Stop();
  EXPECT_TRUE(lines_.Has(Poco::Message::PRIO_WARNING, "IOChannel: Exiting the event loop."));
  EXPECT_TRUE(log_.errors.IsEmpty()) << "a stop is no failure";
}

TEST_F(IOChannelTest, StopOfAStoppedChannelIsHarmlessAndItRunsAgainAfterwards) {
  channel_.Stop();
  channel_.Stop();
  channel_.Start();
  PeerWrites("one");
  EXPECT_EQ(log_.messages.Take(), "one");
  channel_.Stop();
  channel_.Start();
  PeerWrites("two");
  EXPECT_EQ(log_.messages.Take(), "two");
}

TEST_F(IOChannelTest, TellsOfItsWakeUpThroughTheSelfPipe) {
  channel_.Start();
  channel_.Stop();
  // A loop that was stopped on its way into the wait leaves the wake-up to the next run.
  channel_.Start();
  while (!lines_.Has(Poco::Message::PRIO_INFORMATION, "IOChannel: Wake up triggered using self-pipe.")) {
    std::this_thread::yield();
  }
  PeerWrites("still reading");
  EXPECT_EQ(log_.messages.Take(), "still reading");
}

TEST_F(IOChannelTest, ALoopThatDiesOfACallbackTellsItAtOnceAndStopRethrowsIt) {
  fakes::Mailbox<int> called;
  channel_.SetReadCallback([&](IOChannel::Bytes&&) {
    called.Put(1);
    throw std::runtime_error("callback failed");
  });
  channel_.Start();
  PeerWrites("x");
  ASSERT_TRUE(called.Take().has_value());
  EXPECT_EQ(log_.errors.Take(), Error::Unknown);
  EXPECT_TRUE(lines_.Has(Poco::Message::PRIO_ERROR, "IOChannel: The event loop has ended: callback failed"));
  EXPECT_EQ(log_.ends.Take(), "callback failed");
  EXPECT_THROW(channel_.Stop(), std::runtime_error);
  channel_.Stop();
}

TEST_F(IOChannelTest, ALoopThatDiesOfSomethingThatIsNoStandardExceptionTellsItToo) {
  channel_.SetReadCallback([](IOChannel::Bytes&&) { throw 42; });  // NOLINT(hicpp-exception-baseclass)
  channel_.Start();
  PeerWrites("x");
  EXPECT_EQ(log_.errors.Take(), Error::Unknown);
  EXPECT_EQ(log_.ends.Take(), "unknown failure");
  EXPECT_THROW(channel_.Stop(), int);
}

TEST_F(IOChannelTest, AnEndThatWasAskedForIsNotReported) {
  channel_.Start();
  PeerWrites("x");
  EXPECT_EQ(log_.messages.Take(), "x");
  channel_.Stop();
  EXPECT_TRUE(log_.ends.IsEmpty());
}

TEST_F(IOChannelTest, HoldsItsThreadAfterItEndedByItself) {
  channel_.Start();
  peer_.Reset();
  EXPECT_EQ(log_.errors.Take(), Error::RemoteFailure);
  EXPECT_EQ(log_.ends.Take(), "IOChannel: Remote failure");
  EXPECT_EQ(ErrorOf([&] { channel_.Start(); }), Error::InvalidState);
  channel_.Stop();
  channel_.SetErrorCallback(nullptr);
}

TEST_F(IOChannelTest, ReportsATimeLimitThatPassesInSilence) {
  fakes::ChannelLog log;
  TestChannel limited(65'536, 1);
  limited.Use(ours_.Get(), -1);
  log.ListenTo(limited);
  limited.Start();
  EXPECT_EQ(log.errors.Take(), Error::Timeout);
  EXPECT_EQ(log.ends.Take(), "IOChannel: Timeout");
  EXPECT_TRUE(lines_.Has(Poco::Message::PRIO_ERROR, "IOChannel: Timeout occurred."));
}

TEST_F(IOChannelTest, GoesOnAfterATimeoutThatWasForgiven) {
  fakes::ChannelLog log;
  TestChannel limited(65'536, 1);
  limited.Use(ours_.Get(), -1);
  limited.timeouts_to_forgive = 1;
  log.ListenTo(limited);
  limited.Start();
  EXPECT_EQ(log.errors.Take(), Error::Timeout);
  EXPECT_EQ(limited.timeouts, 2);
}

TEST_F(IOChannelTest, WithoutATimeLimitSilenceIsNoTimeout) {
  fakes::ChannelLog log;
  TestChannel limited(65'536, 1);
  limited.Use(ours_.Get(), -1);
  log.ListenTo(limited);
  channel_.Use(peer_.Get(), -1);
  channel_.Start();
  limited.Start();
  // Both were silent for as long as it took the limited one to time out.
  EXPECT_EQ(log.errors.Take(), Error::Timeout);
  EXPECT_EQ(channel_.timeouts, 0);
  channel_.Stop();
}

TEST_F(IOChannelTest, AFailingWaitEndsTheLoopWithALineAndWithoutTheErrorCallback) {
  channel_.Use(9'999, -1);
  channel_.Start();
  EXPECT_EQ(log_.ends.Take(), "IOChannel: Unknown error");
  EXPECT_TRUE(lines_.Has("IOChannel: Exiting the event loop."));
  EXPECT_TRUE(lines_.Has(Poco::Message::PRIO_ERROR, "IOChannel::EventLoop: Bad file descriptor (9)"));
  channel_.Stop();
  EXPECT_TRUE(log_.errors.IsEmpty());
}

TEST_F(IOChannelTest, WorksOnDescriptorsAboveOneThousand) {
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  limit.rlim_cur = limit.rlim_max;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  const UniqueFd high(fcntl(ours_.Get(), F_DUPFD_CLOEXEC, 1'500));
  ASSERT_TRUE(high) << "the hard limit of descriptors is below 1500";
  channel_.Use(high.Get(), high.Get());
  channel_.Start();
  PeerWrites("from far above");
  EXPECT_EQ(log_.messages.Take(), "from far above");
}

TEST_F(IOChannelTest, ConfiguresADescriptorAsCloseOnExecAndNonBlocking) {
  ASSERT_EQ(TestChannel::ConfigureFD(peer_.Get()), Error::Success);
  EXPECT_NE(fcntl(peer_.Get(), F_GETFD) & FD_CLOEXEC, 0);
  EXPECT_NE(fcntl(peer_.Get(), F_GETFL) & O_NONBLOCK, 0);
  EXPECT_EQ(TestChannel::ConfigureFD(9'999), Error::Unknown);
  EXPECT_TRUE(lines_.Has(Poco::Message::PRIO_ERROR, "IOChannel::ConfigureFD: Bad file descriptor (9)"));
}

TEST_F(IOChannelTest, AStdChannelNeedsSomethingToRead) {
  try {
    StdIOChannel channel(-1, ours_.Get(), 10);
    FAIL() << "built";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "StdIOChannel: Read FD cannot be negative");
  }
  EXPECT_EQ(ErrorOf([&] { StdIOChannel channel(9'999, -1, 10); }), Error::Unknown);
}

TEST_F(IOChannelTest, AStdChannelReadsAndWritesItsTwoDescriptors) {
  fakes::ChannelLog log;
  {
    StdIOChannel channel(peer_.Get(), peer_.Get(), 16);
    log.ListenTo(channel);
    channel.Start();
    channel_.Send(ToBytes("to the std channel"));
    EXPECT_EQ(log.messages.Take(), "to the std channel");
    channel_.Start();
    channel.Send(ToBytes("and back"));
    EXPECT_EQ(log_.messages.Take(), "and back");
  }
  EXPECT_GE(fcntl(peer_.Get(), F_GETFD), 0) << "it closed a descriptor that is not its own";
}

TEST_F(IOChannelTest, AStdChannelMayBeReadOnly) {
  StdIOChannel channel(peer_.Get(), -1, 16);
  EXPECT_EQ(ErrorOf([&] { channel.Send(ToBytes("x")); }), Error::InvalidState);
}

TEST_F(IOChannelTest, BehindWhatItReadItLetsMoreGatherOnceAndThenSleeps) {
  std::atomic<int> gathered{0};
  channel_.LetGather([&] {
    if (++gathered == 1) PeerWrites("second");
  });
  channel_.Start();
  PeerWrites("first");
  EXPECT_EQ(log_.messages.Take(), "first");
  EXPECT_EQ(log_.messages.Take(), "second");
  EXPECT_TRUE(fakes::Eventually([&] { return gathered == 2; })) << "behind the second one, too";
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(gathered, 2) << "nothing came: it sleeps";
  channel_.Stop();
}

}  // namespace
}  // namespace zagent::audit

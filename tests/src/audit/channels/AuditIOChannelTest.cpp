#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libaudit.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <string>

#include "src/audit/channels/DispatcherIOChannel.h"
#include "src/audit/channels/KernelIOChannel.h"
#include "src/audit/channels/UnixServerStreamSockIOChannel.h"
#include "tests/fakes/ChannelLog.h"
#include "tests/fakes/EventTrace.h"
#include "tests/fakes/FakeClock.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/ScriptedAuditSource.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::audit {
namespace {

using fakes::ToBytes;
using testing::ElementsAre;
using Error = IOChannel::Error;

Error ErrorOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const IOChannelException& exception) {
    return exception.GetError();
  }
  return Error::Success;
}

// A rule as bytes, with a key of its own behind it.
IOChannel::Bytes RuleBytes(const std::string& key) {
  audit_rule_data rule{};
  rule.field_count = 1;
  rule.buflen = static_cast<__u32>(key.size());
  IOChannel::Bytes bytes(sizeof(rule) + key.size());
  std::memcpy(bytes.data(), &rule, sizeof(rule));
  std::memcpy(bytes.data() + sizeof(rule), key.data(), key.size());
  return bytes;
}

class KernelIOChannelTest : public testing::Test {
 protected:
  KernelIOChannelTest() { log_.ListenTo(channel_); }

  fakes::EventTrace trace_;
  fakes::LogCapture lines_;
  fakes::ScriptedAuditSource kernel_;
  fakes::ChannelLog log_;
  KernelIOChannel channel_{kernel_};
};

TEST_F(KernelIOChannelTest, BecomesTheKernelsConsumerAndLetsGoAtTheEnd) {
  channel_.Start();
  channel_.Stop();
  EXPECT_THAT(kernel_.Calls(), ElementsAre("Open", "SetEnabled 1", "SetPid " + std::to_string(getpid()), "Close"));
  EXPECT_TRUE(lines_.Has("KernelIOChannel: Starting..."));
  EXPECT_TRUE(lines_.Has("KernelIOChannel: Started."));
}

TEST_F(KernelIOChannelTest, MakesALogLineOfEachRecord) {
  channel_.Start();
  kernel_.Push(AUDIT_CWD, "audit(1795162409.200:13): cwd=\"/watch\"");
  kernel_.Push(AUDIT_EOE, "audit(1795162409.200:13): ");
  EXPECT_EQ(log_.messages.Take(), "type=CWD msg=audit(1795162409.200:13): cwd=\"/watch\"\n");
  EXPECT_EQ(log_.messages.Take(), "type=EOE msg=audit(1795162409.200:13): \n");
  EXPECT_TRUE(lines_.Has(Poco::Message::PRIO_TRACE, "KernelIOChannel: received 38 bytes."));
  EXPECT_TRUE(trace_.Has("Audit event: type=CWD msg=audit(1795162409.200:13): cwd=\"/watch\""));
}

TEST_F(KernelIOChannelTest, PassesTheLongestRecordWhole) {
  channel_.Start();
  const std::string text = "audit(1.000:1): " + std::string(MAX_AUDIT_MESSAGE_LENGTH - 16, 'x');
  kernel_.Push(AUDIT_PATH, text);
  EXPECT_EQ(log_.messages.Take(), "type=PATH msg=" + text + "\n");
}

TEST_F(KernelIOChannelTest, ARecordOfAnUnknownTypeLeavesNoTrace) {
  channel_.Start();
  kernel_.Push(9'999, "audit(1.000:1): from a newer kernel");
  kernel_.Push(2, "an acknowledgement");
  kernel_.Push(AUDIT_CWD, "audit(1.000:2): cwd=\"/\"");
  EXPECT_EQ(log_.messages.Take(), "type=CWD msg=audit(1.000:2): cwd=\"/\"\n");
}

TEST_F(KernelIOChannelTest, ALineBreakInsideARecordCannotBeginAnotherOne) {
  channel_.Start();
  kernel_.Push(AUDIT_USER, "audit(1.000:1): msg='a\ntype=SYSCALL msg=audit(1.000:1): syscall=0'");
  EXPECT_EQ(log_.messages.Take(), "type=USER msg=audit(1.000:1): msg='a type=SYSCALL msg=audit(1.000:1): syscall=0'\n");
}

TEST_F(KernelIOChannelTest, TheTextEndsAtItsFirstNul) {
  channel_.Start();
  kernel_.Push(AUDIT_USER, std::string("audit(1.000:1): op=x\0hidden", 27));
  EXPECT_EQ(log_.messages.Take(), "type=USER msg=audit(1.000:1): op=x\n");
}

TEST_F(KernelIOChannelTest, AFailedReadIsLoggedAndTheNextRecordStillComes) {
  channel_.Start();
  kernel_.PushFailure(ENOBUFS);
  kernel_.Push(AUDIT_CWD, "audit(1.000:2): cwd=\"/\"");
  EXPECT_EQ(log_.messages.Take(), "type=CWD msg=audit(1.000:2): cwd=\"/\"\n");
  EXPECT_TRUE(lines_.Has(Poco::Message::PRIO_ERROR, "KernelIOChannel::Read: Failed to read audit reply."));
  EXPECT_TRUE(log_.errors.IsEmpty());
}

TEST_F(KernelIOChannelTest, AReadThatASignalInterruptsIsTriedAgain) {
  kernel_.PushFailure(EINTR);
  kernel_.Push(AUDIT_CWD, "audit(1.000:2): cwd=\"/\"");
  channel_.Start();
  EXPECT_EQ(log_.messages.Take(), "type=CWD msg=audit(1.000:2): cwd=\"/\"\n");
  EXPECT_FALSE(lines_.Has("KernelIOChannel::Read: Failed to read audit reply.")) << lines_.All();
}

TEST_F(KernelIOChannelTest, WithoutASocketStartIsDeniedAndStopHarmless) {
  kernel_.open_errno = EPERM;
  EXPECT_EQ(ErrorOf([&] { channel_.Start(); }), Error::AccessDenied);
  EXPECT_TRUE(lines_.Has(Poco::Message::PRIO_ERROR, "KernelIOChannel::CreateSocket: Operation not permitted (1)"));
  channel_.Stop();
  channel_.Stop();
  EXPECT_EQ(kernel_.CountOf("Close"), 0);
}

TEST_F(KernelIOChannelTest, AnAuditThatCannotBeEnabledIsDenied) {
  kernel_.set_enabled_errno = EPERM;
  EXPECT_EQ(ErrorOf([&] { channel_.Start(); }), Error::AccessDenied);
  channel_.Stop();
  EXPECT_EQ(kernel_.CountOf("Close"), 1);
}

TEST_F(KernelIOChannelTest, ASecondConsumerIsDeniedAndMayTryAgain) {
  kernel_.set_pid_errno = EEXIST;
  EXPECT_EQ(ErrorOf([&] { channel_.Start(); }), Error::AccessDenied);
  EXPECT_TRUE(lines_.Has("KernelIOChannel::CreateSocket: File exists (17)"));
  kernel_.set_pid_errno = 0;
  channel_.Start();
  EXPECT_EQ(ErrorOf([&] { channel_.Start(); }), Error::InvalidState);
}

TEST_F(KernelIOChannelTest, TellsOfAFailingClose) {
  channel_.Start();
  kernel_.close_errno = EIO;
  channel_.Stop();
  EXPECT_TRUE(lines_.Has(Poco::Message::PRIO_ERROR, "KernelIOChannel::CloseSocket: Input/output error (5)"));
}

TEST_F(KernelIOChannelTest, SendsRulesForTheExitListWithTheActionAlways) {
  const IOChannel::Bytes rule = RuleBytes("some-key");
  EXPECT_EQ(ErrorOf([&] { channel_.Send(rule); }), Error::InvalidState) << "not started";
  channel_.Start();
  channel_.Send(rule);
  ASSERT_EQ(kernel_.Rules().size(), 1U);
  EXPECT_EQ(kernel_.Rules()[0].bytes, rule);
  EXPECT_EQ(kernel_.Rules()[0].flags, 4);
  EXPECT_EQ(kernel_.Rules()[0].action, 2);
  EXPECT_TRUE(lines_.Has(Poco::Message::PRIO_DEBUG,
                         "KernelIOChannel: Sending audit rule data. [" + std::to_string(rule.size()) + " bytes ]"));
  EXPECT_TRUE(lines_.Has(Poco::Message::PRIO_DEBUG, "KernelIOChannel: Audit rule sent."));
}

TEST_F(KernelIOChannelTest, ARefusedRuleIsUnknown) {
  channel_.Start();
  kernel_.add_rule_errno = EINVAL;
  EXPECT_EQ(ErrorOf([&] { channel_.Send(RuleBytes("key")); }), Error::Unknown);
  EXPECT_TRUE(lines_.Has(Poco::Message::PRIO_ERROR, "KernelIOChannel::Send: Invalid argument (22)"));
}

TEST_F(KernelIOChannelTest, ARuleThatIsShorterThanItClaimsIsNotSent) {
  channel_.Start();
  IOChannel::Bytes cut = RuleBytes("a-key-of-some-length");
  cut.pop_back();
  EXPECT_EQ(ErrorOf([&] { channel_.Send(cut); }), Error::Unknown);
  EXPECT_EQ(ErrorOf([&] { channel_.Send(ToBytes("stub")); }), Error::Unknown);
  EXPECT_TRUE(kernel_.Rules().empty());
}

class DispatcherIOChannelTest : public testing::Test {
 protected:
  DispatcherIOChannelTest() {
    log_.ListenTo(channel_);
    channel_.SetReconnectCallback([this] { reconnections_.Put(true); });
    dispatcher_.SetClientCallback([this](bool present) { clients_.Put(present); });
    dispatcher_.Start();
  }
  void StartChannel() {
    channel_.Start();
    ASSERT_EQ(clients_.Take(), true);
  }

  fakes::EventTrace trace_;
  fakes::LogCapture lines_;
  fakes::TempFolder folder_;
  fakes::FakeClock clock_;
  fakes::ScriptedAuditSource kernel_;
  fakes::ChannelLog log_;
  fakes::Mailbox<bool> clients_;
  fakes::Mailbox<bool> reconnections_;
  UnixServerStreamSockIOChannel dispatcher_{folder_ / "audispd_events", 0700};
  DispatcherIOChannel channel_{kernel_, folder_ / "audispd_events", clock_};
};

TEST_F(DispatcherIOChannelTest, LeavesTheAuditDaemonItsPlaceAtTheKernel) {
  StartChannel();
  channel_.Stop();
  EXPECT_THAT(kernel_.Calls(), ElementsAre("Open", "Close")) << "neither SetPid nor SetEnabled";
  EXPECT_TRUE(lines_.Has(Poco::Message::PRIO_DEBUG, "DispatcherIOChannel: Starting..."));
  EXPECT_TRUE(lines_.Has(Poco::Message::PRIO_DEBUG, "DispatcherIOChannel: Started."));
  EXPECT_TRUE(lines_.Has("DispatcherIOChannel: Stopping..."));
  EXPECT_TRUE(lines_.Has("DispatcherIOChannel: Stopped."));
}

TEST_F(DispatcherIOChannelTest, PassesTheDispatchersBytesOnAsTheyAre) {
  StartChannel();
  const std::string piece = "type=CWD msg=audit(1.000:1): cwd=\"/\"\ntype=PA";
  dispatcher_.Send(ToBytes(piece));
  EXPECT_EQ(log_.messages.Take(), piece);
  EXPECT_TRUE(lines_.Has(Poco::Message::PRIO_TRACE,
                         "DispatcherIOChannel: Received " + std::to_string(piece.size()) + " bytes."));
  EXPECT_TRUE(trace_.Has("Audit Event: type=CWD msg=audit(1.000:1)"));
}

TEST_F(DispatcherIOChannelTest, WithoutADispatcherStartIsInvalidAndLeavesNothingOpen) {
  dispatcher_.Stop();
  EXPECT_EQ(ErrorOf([&] { channel_.Start(); }), Error::InvalidData);
  EXPECT_THAT(kernel_.Calls(), ElementsAre("Open", "Close"));
  channel_.Stop();
  dispatcher_.Start();
  StartChannel();
}

TEST_F(DispatcherIOChannelTest, WithoutANetlinkSocketStartIsDenied) {
  kernel_.open_errno = EPROTONOSUPPORT;
  EXPECT_EQ(ErrorOf([&] { channel_.Start(); }), Error::AccessDenied);
  EXPECT_TRUE(lines_.Has(Poco::Message::PRIO_ERROR, "DispatcherIOChannel::CreateSocket: Protocol not supported (93)"));
}

TEST_F(DispatcherIOChannelTest, ComesBackAfterEachRestartAndSaysSoOnce) {
  StartChannel();
  for (int restart = 0; restart < 2; ++restart) {
    dispatcher_.Stop();
    clock_.AwaitWaiters(1);
    dispatcher_.Start();
    clock_.Advance(std::chrono::seconds(1));
    EXPECT_EQ(reconnections_.Take(), true);
    EXPECT_EQ(clients_.Take(), true);
    EXPECT_TRUE(reconnections_.IsEmpty());
  }
  dispatcher_.Send(ToBytes("type=EOE msg=audit(1.000:1): \n"));
  EXPECT_EQ(log_.messages.Take(), "type=EOE msg=audit(1.000:1): \n");
  EXPECT_EQ(kernel_.CountOf("Open"), 1) << "the netlink socket stays";
}

TEST_F(DispatcherIOChannelTest, SendsRulesToTheKernelAndNotToTheDispatcher) {
  EXPECT_EQ(ErrorOf([&] { channel_.Send(RuleBytes("key")); }), Error::InvalidState);
  StartChannel();
  channel_.Send(RuleBytes("key"));
  ASSERT_EQ(kernel_.Rules().size(), 1U);
  EXPECT_EQ(kernel_.Rules()[0].flags, 4);
  EXPECT_EQ(kernel_.Rules()[0].action, 2);
  channel_.Send({});
  ASSERT_EQ(kernel_.Rules().size(), 2U);
  EXPECT_TRUE(kernel_.Rules()[1].null) << "no bytes, no rule";
  kernel_.add_rule_errno = EEXIST;
  EXPECT_EQ(ErrorOf([&] { channel_.Send(RuleBytes("key")); }), Error::Unknown);
  EXPECT_TRUE(lines_.Has(Poco::Message::PRIO_ERROR, "DispatcherIOChannel::Send: File exists (17)"));
}

TEST_F(DispatcherIOChannelTest, TellsOfAFailingClose) {
  StartChannel();
  kernel_.close_errno = EIO;
  channel_.Stop();
  EXPECT_TRUE(lines_.Has(Poco::Message::PRIO_ERROR, "DispatcherIOChannel::CloseSocket: Input/output error (5)"));
}

}  // namespace
}  // namespace zagent::audit

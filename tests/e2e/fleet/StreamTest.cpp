// What a receiver says and does while it publishes: to an engine that is well, away, full, closed to it or too small.
#include <gmock/gmock.h>

#include <cstdlib>
#include <filesystem>
#include <future>

#include "tests/e2e/fleet/EngineAccount.h"
#include "tests/e2e/fleet/StreamFixture.h"
#include "tools/event-stream/StreamMessage.h"

namespace zagent::e2e {
namespace {

using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;
using tools::StreamSink;

constexpr const char* kDocument =
    R"({"events":[{"eventAction":"Write","imagePath":"/a","eventId":1}],"timestamp":"x"})";

class StreamTest : public StreamFixture {
 protected:
  // A sink that has found its engine.
  std::unique_ptr<StreamSink> Sink(const tools::StreamOptions& stream) {
    auto sink = std::make_unique<StreamSink>(stream, [this](const std::string& line) {
      const std::lock_guard lock(mutex_);
      lines_.push_back(line);
    });
    const std::size_t unknown = std::numeric_limits<std::size_t>::max();
    EXPECT_TRUE(fakes::Eventually([&] { return sink->MaxSize() != unknown; }));
    return sink;
  }
  // A file that nobody else can read.
  std::string WriteSecret(const std::string& name, const std::string& text) {
    const std::string file = folder_.Write(name, text);
    using std::filesystem::perms;
    std::filesystem::permissions(file, perms::owner_read | perms::owner_write);
    return file;
  }
  // Makes <name>.key and <name>.pem, a certificate of 127.0.0.1 that signs itself, for each of the names.
  void MakeCertificates(const std::string& names) {
    const std::string make = "cd " + folder_.Path() + " && for name in " + names +
                             "; do openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=$name "
                             "-addext subjectAltName=IP:127.0.0.1 -keyout $name.key -out $name.pem 2>/dev/null; done";
    ASSERT_EQ(0, std::system(make.c_str()));  // NOLINT(concurrency-mt-unsafe)
  }
  // For nats.conf.
  std::string TlsOf(const std::string& name, const std::string& more = "") const {
    return "tls { cert_file: \"" + (folder_ / (name + ".pem")) + "\", key_file: \"" + (folder_ / (name + ".key")) +
           "\"" + more + " }\n";
  }

  NatsServer server_;
};

TEST_F(StreamTest, PublishesWhatItAcceptsAndSaysWhoseItIs) {
  server_.Start();
  StartPublishing(server_);
  ASSERT_TRUE(AwaitLine("stream: connected to "));
  const auto uploader = Uploader();
  ASSERT_EQ(0, uploader->Upload("application/json", BytesOf(kDocument)));
  const auto messages = ReadAll(StreamAt(server_));
  ASSERT_THAT(messages, SizeIs(1));
  EXPECT_EQ(kDocument, messages[0].text);
  EXPECT_EQ(std::string("edr.") + kCustomer + "." + kAgent + ".fim", messages[0].subject);
  EXPECT_EQ(uploader->LastCorrelationId(), messages[0].Header(tools::kIdHeader));
  EXPECT_EQ("application/json", messages[0].Header(tools::kTypeHeader));
  EXPECT_EQ(kCustomer, messages[0].Header(tools::kCustomerHeader));
  EXPECT_EQ(kAgent, messages[0].Header(tools::kAgentHeader));
  EXPECT_THAT(messages[0].Header(tools::kReceivedHeader), ::testing::MatchesRegex("20..-..-..T..:..:..Z"));
  EXPECT_THAT(Lines(), Contains(StartsWith("event Write /a ")));
}

TEST_F(StreamTest, TellsTheKindsApartByTheirPaths) {
  server_.Start();
  StartPublishing(server_);
  ASSERT_TRUE(AwaitLine("stream: connected to "));
  EXPECT_EQ(200, StatusOf(R"({"status":[]})", std::string("/v1/customer/") + kCustomer + "/agent/x/status?a=b"));
  // What is no document is kept for whoever can make something of it.
  EXPECT_EQ(200, StatusOf("no document\n", "/v1/fim", "text/plain"));
  const auto messages = ReadAll(StreamAt(server_));
  ASSERT_THAT(messages, SizeIs(2));
  EXPECT_THAT(messages[0].subject, ::testing::EndsWith(".status"));
  EXPECT_THAT(messages[1].subject, ::testing::EndsWith(".fim"));
  EXPECT_THAT(Lines(), Contains("payload 12 bytes type=text/plain"));
}

TEST_F(StreamTest, RefusesABatchThatIsNone) {
  server_.Start();
  StartPublishing(server_);
  ASSERT_TRUE(AwaitLine("stream: connected to "));
  EXPECT_EQ(400, StatusOf("no batch", std::string("/linuxagentevent/v1/customer/") + kCustomer + "/agent/" + kAgent,
                          "application/octet-stream"));
  EXPECT_THAT(ReadAll(StreamAt(server_)), IsEmpty());
}

TEST_F(StreamTest, KnowsAnUploadAgainWhicheverReceiverItComesTo) {
  server_.Start();
  const auto first = Sink(StreamAt(server_));
  const auto second = Sink(StreamAt(server_));
  EXPECT_TRUE(first->Add(Payload("{}", "id-1"), {}));
  EXPECT_FALSE(second->Add(Payload("{}", "id-1"), {}));
  EXPECT_FALSE(first->Add(Payload("{}", "id-1"), {}));
  EXPECT_TRUE(second->Add(Payload("{}", "id-2"), {}));
  EXPECT_TRUE(first->Add(Payload("{}", ""), {}));
  EXPECT_TRUE(first->Add(Payload("{}", ""), {})) << "without an id it is never taken for another";
  EXPECT_THAT(ReadAll(StreamAt(server_)), SizeIs(4));
}

TEST_F(StreamTest, AnUploadWhoseFirstTryWasAnsweredTooLateIsNewAndThereOnce) {
  server_.Start();
  tools::StreamOptions stream = StreamAt(server_);
  stream.ack_wait = std::chrono::seconds(30);
  const auto sink = Sink(stream);
  server_.Halt();
  auto added = std::async(std::launch::async, [&] { return sink->Add(Payload("{}", "id-1"), {}); });
  EXPECT_EQ(std::future_status::timeout, added.wait_for(std::chrono::seconds(2))) << "its first try has ended";
  server_.GoOn();
  EXPECT_TRUE(added.get());
  EXPECT_FALSE(sink->Add(Payload("{}", "id-1"), {}));
  EXPECT_THAT(ReadAll(stream), SizeIs(1));
}

TEST_F(StreamTest, RefusesWithout503NothingThatTheEngineHasNotTaken) {
  tools::StreamOptions stream = StreamAt(server_);
  stream.ack_wait = std::chrono::milliseconds(300);
  StartPublishing(stream);
  ASSERT_TRUE(AwaitLine("error: stream: cannot connect"));
  // Meanwhile the engine is looked for again and again, each second.
  for (int i = 0; i < 8; ++i) EXPECT_EQ(503, StatusOf(kDocument));
  EXPECT_THAT(Lines(), Contains("rejected: not kept: the engine is away"));
  EXPECT_EQ(1U, CountLines("error: ")) << "one line for an outage, whatever comes";
  server_.Start();
  ASSERT_TRUE(AwaitLine("stream: connected to "));
  EXPECT_EQ(200, StatusOf(kDocument));
  EXPECT_THAT(ReadAll(StreamAt(server_)), SizeIs(1));
}

TEST_F(StreamTest, GoesOnWhenTheEngineHasBeenAway) {
  server_.Start();
  tools::StreamOptions stream = StreamAt(server_);
  stream.ack_wait = std::chrono::milliseconds(500);
  StartPublishing(stream);
  ASSERT_TRUE(AwaitLine("stream: connected to "));
  EXPECT_EQ(200, StatusOf(kDocument));
  server_.Kill();
  EXPECT_EQ(503, StatusOf(kDocument));
  ASSERT_TRUE(AwaitLine("error: stream: the connection is lost"));
  server_.Start();
  ASSERT_TRUE(AwaitLine("stream: connected again"));
  EXPECT_TRUE(fakes::Eventually([&] { return StatusOf(kDocument) == 200; }));
  EXPECT_EQ(1U, CountLines("error: "));
  EXPECT_THAT(ReadAll(StreamAt(server_)), SizeIs(2));
}

TEST_F(StreamTest, MakesAStreamAgainThatSomebodyHasDeleted) {
  server_.Start();
  tools::StreamOptions stream = StreamAt(server_);
  stream.ack_wait = std::chrono::milliseconds(300);
  const auto sink = Sink(stream);
  const tools::StreamSession session(stream);
  jsErrCode code{};
  ASSERT_EQ(NATS_OK, js_DeleteStream(session.JetStream(), "EDR", nullptr, &code));
  EXPECT_THROW(sink->Add(Payload("{}", "1"), {}), std::runtime_error);
  EXPECT_TRUE(fakes::Eventually([&] {
    EXPECT_NE(std::numeric_limits<std::size_t>::max(), sink->MaxSize()) << "it stays with its server meanwhile";
    try {
      return sink->Add(Payload("{}", "1"), {});
    } catch (const std::runtime_error&) {
      return false;
    }
  }));
}

TEST_F(StreamTest, RefusesWhatAFullStreamCannotTake) {
  server_.Start();
  tools::StreamOptions stream = StreamAt(server_);
  stream.max_bytes = 64 * 1024;
  const auto sink = Sink(stream);
  const std::string large(20'000, 'x');
  for (const char* id : {"1", "2", "3"}) EXPECT_TRUE(sink->Add(Payload(large, id), {}));
  try {
    sink->Add(Payload(large, "4"), {});
    FAIL() << "it was kept";
  } catch (const std::runtime_error& error) {
    EXPECT_THAT(error.what(), HasSubstr("the stream is full"));
  }
  EXPECT_THAT(ReadAll(stream), SizeIs(3)) << "what is there stays";
}

TEST_F(StreamTest, MakesTheStreamThatItIsToldToAndUsesOneThatIsThereAsItIs) {
  using std::chrono::nanoseconds;
  server_.Start();
  tools::StreamOptions stream = StreamAt(server_);
  stream.name = "FIRST";
  Sink(stream);
  const tools::StreamSession session(stream);
  const auto made = [&](const char* name) {
    jsStreamInfo* info = nullptr;
    jsErrCode code{};
    EXPECT_EQ(NATS_OK, js_GetStreamInfo(&info, session.JetStream(), name, nullptr, &code));
    return tools::NatsPtr<jsStreamInfo>(info);
  };
  auto info = made("FIRST");
  ASSERT_EQ(1, info->Config->SubjectsLen);
  EXPECT_STREQ("edr.>", info->Config->Subjects[0]);
  EXPECT_EQ(js_FileStorage, info->Config->Storage);
  EXPECT_EQ(js_LimitsPolicy, info->Config->Retention) << "what was read stays for others";
  EXPECT_EQ(js_DiscardNew, info->Config->Discard);
  EXPECT_EQ(64LL << 20U, info->Config->MaxBytes);
  EXPECT_EQ(nanoseconds(std::chrono::days(7)).count(), info->Config->MaxAge);
  EXPECT_EQ(nanoseconds(std::chrono::hours(1)).count(), info->Config->Duplicates);

  stream.max_age = std::chrono::hours(2);
  Sink(stream);
  EXPECT_EQ(nanoseconds(std::chrono::days(7)).count(), made("FIRST")->Config->MaxAge) << "it was there";
  jsErrCode code{};
  ASSERT_EQ(NATS_OK, js_DeleteStream(session.JetStream(), "FIRST", nullptr, &code));

  // A window cannot be longer than what the stream keeps.
  stream.name = "SECOND";
  stream.duplicate_window = std::chrono::hours(3);
  Sink(stream);
  info = made("SECOND");
  EXPECT_EQ(nanoseconds(std::chrono::hours(2)).count(), info->Config->MaxAge);
  EXPECT_EQ(nanoseconds(std::chrono::hours(2)).count(), info->Config->Duplicates);
}

TEST_F(StreamTest, LetsTheOldestGiveWayWhenAskedTo) {
  server_.Start();
  tools::StreamOptions stream = StreamAt(server_);
  stream.max_bytes = 64 * 1024;
  stream.drop_oldest = true;
  const auto sink = Sink(stream);
  for (const char* id : {"1", "2", "3", "4", "5"}) EXPECT_TRUE(sink->Add(Payload(std::string(20'000, *id), id), {}));
  const auto messages = ReadAll(stream);
  ASSERT_THAT(messages, SizeIs(3));
  EXPECT_EQ("5", messages.back().Header(tools::kIdHeader));
}

TEST_F(StreamTest, AnswersWith413WhatIsLargerThanTheEnginesLargestMessage) {
  NatsServer small("max_payload: 65536\n");
  small.Start();
  StartPublishing(small);
  ASSERT_TRUE(AwaitLine("stream: connected to "));
  EXPECT_EQ(413, StatusOf(std::string(100'000, 'x')));
  EXPECT_EQ(413, StatusOf(std::string(65'536, 'x'))) << "there is no room for its headers";
  EXPECT_EQ(200, StatusOf(std::string(65'000, 'x')));
}

TEST_F(StreamTest, SaysOnceThatItsLoginIsWrongAndTakesTheRightOne) {
  NatsServer closed("authorization { user: receiver, password: secret }\n");
  closed.Start();
  tools::StreamOptions stream = StreamAt(closed);
  stream.ack_wait = std::chrono::milliseconds(300);
  stream.login_file = WriteSecret("login", "receiver wrong\n");
  StartPublishing(stream);
  ASSERT_TRUE(AwaitLine("error: stream: "));
  EXPECT_EQ(503, StatusOf(kDocument));
  EXPECT_EQ(1U, CountLines("error: "));
  EXPECT_THAT(Lines(), Contains(HasSubstr("uthorization")));
  EXPECT_THAT(Lines(), Not(Contains(HasSubstr("wrong"))));
  folder_.Write("login", "receiver secret\n");
  ASSERT_TRUE(AwaitLine("stream: connected to "));
  EXPECT_EQ(200, StatusOf(kDocument));
}

TEST_F(StreamTest, NeverShowsThePasswordOfAnAddress) {
  NatsServer closed("authorization { user: receiver, password: secret }\n");
  closed.Start();
  tools::StreamOptions stream = StreamAt(closed);
  stream.urls = "nats://receiver:secret@" + closed.Address();
  StartPublishing(stream);
  ASSERT_TRUE(AwaitLine("stream: connected to "));
  EXPECT_THAT(Lines(), Contains(StartsWith("stream: connected to ")));
  EXPECT_THAT(Lines(), Not(Contains(HasSubstr("secret"))));
}

TEST_F(StreamTest, UsesNoLoginThatOthersCanRead) {
  server_.Start();
  tools::StreamOptions stream = StreamAt(server_);
  stream.login_file = folder_.Write("login", "receiver secret\n");
  std::filesystem::permissions(stream.login_file, static_cast<std::filesystem::perms>(0644));
  StartPublishing(stream);
  ASSERT_TRUE(AwaitLine("error: stream: "));
  EXPECT_THAT(Lines(), Contains(HasSubstr("open to others than its owner")));
}

TEST_F(StreamTest, TrustsOnlyAnEngineOfItsCertificate) {
  MakeCertificates("engine other");
  NatsServer secret(TlsOf("engine"));
  secret.Start();
  tools::StreamOptions stream = StreamAt(secret);
  stream.ca_file = folder_ / "other.pem";
  stream.ack_wait = std::chrono::milliseconds(300);
  StartPublishing(stream);
  ASSERT_TRUE(AwaitLine("error: stream: cannot connect"));
  EXPECT_EQ(503, StatusOf(kDocument));
  stream.ca_file = folder_ / "engine.pem";
  StartPublishing(stream);
  ASSERT_TRUE(AwaitLine("stream: connected to "));
  EXPECT_EQ(200, StatusOf(kDocument));
}

TEST_F(StreamTest, ShowsItsCertificateToAnEngineThatAsksForOne) {
  MakeCertificates("engine receiver stranger");
  NatsServer strict(TlsOf("engine", ", verify: true, ca_file: \"" + (folder_ / "receiver.pem") + "\""));
  strict.Start();
  tools::StreamOptions stream = StreamAt(strict);
  stream.ca_file = folder_ / "engine.pem";
  stream.ack_wait = std::chrono::milliseconds(300);
  stream.certificate_file = folder_ / "stranger.pem";
  stream.key_file = folder_ / "stranger.key";
  StartPublishing(stream);
  ASSERT_TRUE(AwaitLine("error: stream: "));
  EXPECT_EQ(503, StatusOf(kDocument));
  EXPECT_EQ(0U, CountLines("stream: connected"));

  // A key that is not the certificate's, or is missing, is said by the name of the file.
  stream.certificate_file = folder_ / "receiver.pem";
  for (const std::string& key : {folder_ / "stranger.key", folder_ / "none.key", std::string()}) {
    stream.key_file = key;
    StartPublishing(stream);
    ASSERT_TRUE(AwaitLine("error: stream: " + stream.certificate_file)) << key;
  }

  stream.key_file = folder_ / "receiver.key";
  StartPublishing(stream);
  ASSERT_TRUE(AwaitLine("stream: connected to "));
  EXPECT_EQ(200, StatusOf(kDocument));
}

TEST_F(StreamTest, ProvesItselfByACredentialsFile) {
  const EngineAccount account;
  NatsServer closed(account.Configuration());
  closed.Start();
  tools::StreamOptions stream = StreamAt(closed);
  stream.ack_wait = std::chrono::milliseconds(300);
  stream.credentials_file = WriteSecret("user.creds", account.ForeignCredentials());
  StartPublishing(stream);
  ASSERT_TRUE(AwaitLine("error: stream: "));
  EXPECT_EQ(503, StatusOf(kDocument));
  EXPECT_THAT(Lines(), Contains(HasSubstr("uthorization")));
  EXPECT_EQ(1U, CountLines("error: "));
  WriteSecret("user.creds", account.Credentials());
  ASSERT_TRUE(AwaitLine("stream: connected to ")) << "the file is read again at each try";
  EXPECT_EQ(200, StatusOf(kDocument));
  EXPECT_THAT(ReadAll(stream), SizeIs(1));
}

TEST_F(StreamTest, SaysWhatIsWrongWithItsCredentialsFile) {
  server_.Start();
  tools::StreamOptions stream = StreamAt(server_);
  stream.credentials_file = folder_.Write("user.creds", EngineAccount().Credentials());
  std::filesystem::permissions(stream.credentials_file, static_cast<std::filesystem::perms>(0644));
  StartPublishing(stream);
  ASSERT_TRUE(AwaitLine("error: stream: " + stream.credentials_file + ": open to others than its owner"));
  std::filesystem::remove(stream.credentials_file);
  ASSERT_TRUE(AwaitLine("error: stream: " + stream.credentials_file + ": No such file"));
}

TEST_F(StreamTest, AnswersWith503WhatAFullStreamCannotTakeAndTakesItWhenThereIsRoom) {
  server_.Start();
  tools::StreamOptions stream = StreamAt(server_);
  stream.max_bytes = 64 * 1024;
  StartPublishing(stream);
  ASSERT_TRUE(AwaitLine("stream: connected to "));
  const std::string large(40'000, 'x');
  EXPECT_EQ(200, StatusOf(large));
  EXPECT_EQ(503, StatusOf(large));
  EXPECT_THAT(Lines(), Contains(StartsWith("rejected: not kept: the stream is full")));
  EXPECT_EQ(200, StatusOf(kDocument)) << "what still fits is taken";
  const tools::StreamSession session(stream);
  jsErrCode code{};
  ASSERT_EQ(NATS_OK, js_PurgeStream(session.JetStream(), "EDR", nullptr, &code));
  EXPECT_EQ(200, StatusOf(large));
}

TEST_F(StreamTest, AsksForNoMoreReplicasThanThereAreServers) {
  server_.Start();
  tools::StreamOptions stream = StreamAt(server_);
  stream.replicas = 3;
  StartPublishing(stream);
  ASSERT_TRUE(AwaitLine("error: stream: stream EDR: "));
  EXPECT_THAT(Lines(), Contains(HasSubstr("replicas")));
}

TEST_F(StreamTest, TakesNoIdentityOrIdThatCannotStandInAMessage) {
  server_.Start();
  const auto sink = Sink(StreamAt(server_));
  for (const char* id : {"a.b", "a b", "*", ">", "", "\xc3\xa4"}) {
    tools::AcceptedPayload payload = Payload("{}", "1");
    payload.sender.customer_id = id;
    EXPECT_THROW(sink->Add(payload, {}), tools::UnfitPayloadException) << id;
  }
  EXPECT_THROW(sink->Add(Payload("{}", std::string(201, 'x')), {}), tools::UnfitPayloadException);
  EXPECT_THROW(sink->Add(Payload("{}", "a\r\nNats-Rollup: all"), {}), tools::UnfitPayloadException);
  tools::AcceptedPayload payload = Payload("{}", "1");
  payload.headers["content-type"] = "a\nb";
  EXPECT_TRUE(sink->Add(payload, {}));
  const auto messages = ReadAll(StreamAt(server_));
  ASSERT_THAT(messages, SizeIs(1));
  EXPECT_EQ("", messages[0].Header(tools::kTypeHeader));
}

TEST_F(StreamTest, EndsAtOnceWhileTheEngineIsAway) {
  tools::StreamOptions stream = StreamAt(server_);
  stream.ack_wait = std::chrono::seconds(50);
  StreamSink sink(stream, {});
  std::thread ender([&] { sink.Stop(); });
  EXPECT_THROW(sink.Add(Payload("{}", "1"), {}), std::runtime_error);
  ender.join();
}

TEST_F(StreamTest, GoesToFilesOrToAStream) {
  tools::ReceiverOptions options = PublishingTo(StreamAt(server_));
  options.store_folder = folder_ / "store";
  EXPECT_THROW(StartReceiver(options), std::invalid_argument);
}

TEST(StreamOptionsTest, AreAsDocumentedWhenNothingIsSaid) {
  const tools::StreamOptions options;
  EXPECT_EQ("EDR", options.name);
  EXPECT_EQ(3U, options.replicas);
  EXPECT_EQ(10LL << 30U, options.max_bytes);
  EXPECT_EQ(std::chrono::days(7), options.max_age);
  EXPECT_EQ(std::chrono::hours(1), options.duplicate_window);
  EXPECT_FALSE(options.drop_oldest);
  EXPECT_EQ(std::chrono::seconds(5), options.ack_wait);
}

TEST(StreamOptionsTest, TakeEachSwitchInItsUnit) {
  tools::StreamOptions options;
  for (const auto& [name, value] : {std::pair{"stream", "nats://a,b"},
                                    {"stream-name", "N"},
                                    {"stream-login", "login"},
                                    {"stream-credentials", "credentials"},
                                    {"stream-ca", "ca"},
                                    {"stream-cert", "certificate"},
                                    {"stream-key", "key"},
                                    {"stream-replicas", "5"},
                                    {"stream-size", "2"},
                                    {"stream-age", "3"},
                                    {"stream-window", "4"},
                                    {"stream-ack", "700"}}) {
    EXPECT_TRUE(tools::ApplyStreamSwitch(options, name, value)) << name;
  }
  EXPECT_EQ("nats://a,b", options.urls);
  EXPECT_EQ("N", options.name);
  EXPECT_EQ("login", options.login_file);
  EXPECT_EQ("credentials", options.credentials_file);
  EXPECT_EQ("ca", options.ca_file);
  EXPECT_EQ("certificate", options.certificate_file);
  EXPECT_EQ("key", options.key_file);
  EXPECT_EQ(5U, options.replicas);
  EXPECT_EQ(2LL << 20U, options.max_bytes);
  EXPECT_EQ(std::chrono::hours(3), options.max_age);
  EXPECT_EQ(std::chrono::minutes(4), options.duplicate_window);
  EXPECT_EQ(std::chrono::milliseconds(700), options.ack_wait);
}

TEST(StreamOptionsTest, SaysWhatIsWrongWithAValue) {
  tools::StreamOptions options;
  EXPECT_TRUE(tools::ApplyStreamSwitch(options, "stream-size", "100"));
  EXPECT_EQ(100LL << 20U, options.max_bytes);
  EXPECT_TRUE(tools::ApplyStreamSwitch(options, "stream-full", "drop-oldest"));
  EXPECT_TRUE(options.drop_oldest);
  EXPECT_FALSE(tools::ApplyStreamSwitch(options, "port", "1"));
  for (const auto& [name, value] : {std::pair{"stream-size", "0"},
                                    {"stream-replicas", "6"},
                                    {"stream-age", "1h"},
                                    {"stream-full", "x"},
                                    {"stream-name", "A.B"},
                                    {"stream-ack", ""}}) {
    EXPECT_THROW(tools::ApplyStreamSwitch(options, name, value), std::invalid_argument) << name;
  }
  for (const tools::StreamSwitch& entry : tools::kStreamSwitches) {
    const std::string value = std::string(entry.name) == "stream-full" ? "refuse" : "1";
    const std::string good = std::string(entry.name) == "stream-ack" ? "1000" : value;
    EXPECT_TRUE(tools::ApplyStreamSwitch(options, entry.name, good)) << entry.name;
  }
}

}  // namespace
}  // namespace zagent::e2e

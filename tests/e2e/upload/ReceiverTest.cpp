// What the receiver refuses: requests that no honest client sends, made by hand and changed after signing.
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/HTTPSClientSession.h>
#include <Poco/Net/SSLException.h>
#include <Poco/URI.h>
#include <gmock/gmock.h>
#include <sys/socket.h>

#include <ctime>
#include <filesystem>
#include <thread>

#include "common/src/http/interceptors/AuthHttpInterceptor.h"
#include "common/src/http/interceptors/LzmaCompression.h"
#include "tests/e2e/upload/UploadFixture.h"
#include "tests/fakes/FakeClock.h"
#include "tools/reference-receiver/EventLines.h"
#include "tools/reference-receiver/UploadHandler.h"

namespace zagent::e2e {
namespace {

using common::HmacVersion;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

struct RawRequest {
  std::string method = "POST";
  std::string target = "/v1/fim";
  common::HttpHeaders headers;
  std::vector<unsigned char> body;
};

class ReceiverTest : public UploadFixture {
 protected:
  void SetUp() override { StartReceiver(Options()); }

  // A request as the daemon would send it, signed at the given distance from now.
  RawRequest Signed(HmacVersion version, std::chrono::seconds shift = std::chrono::seconds(0)) {
    const fakes::FakeClock clock(std::chrono::system_clock::now() + shift);
    RawRequest request;
    request.headers = {{"Content-Type", "application/json"}, {"Content-Encoding", "LZMA"}};
    request.body = common::LzmaCompression().Compress(BytesOf(R"({"events":[]})"));
    Sign(request, version, clock);
    return request;
  }

  void Sign(RawRequest& request, HmacVersion version,
            const common::util::Clock& clock = common::util::Clock::Real()) const {
    std::string url = receiver_->GetUrl() + request.target;
    common::AuthHttpInterceptor(Keys(version), common::AuthTag::Tag4, common::AuthTag::None, clock)
        .ProcessRequest(url, request.body, request.headers, request.method);
  }

  int Send(const RawRequest& request) { return SendAnnouncing(request, request.body.size()); }

  // Announces `length` bytes, whatever the body has; with `end` the connection breaks behind it. 0: no answer.
  int SendAnnouncing(const RawRequest& request, std::size_t length, bool end = false) {
    Poco::Net::Context::Params params;
    params.caLocation = receiver_->GetCaFile();
    params.loadDefaultCAs = false;
    const Poco::Net::Context::Ptr context(new Poco::Net::Context(Poco::Net::Context::TLS_CLIENT_USE, params));
    const Poco::URI uri(receiver_->GetUrl());
    Poco::Net::HTTPSClientSession session(uri.getHost(), uri.getPort(), context);
    Poco::Net::HTTPRequest head(request.method, request.target, Poco::Net::HTTPMessage::HTTP_1_1);
    for (const auto& [name, value] : request.headers) head.set(name, value);
    head.setContentLength64(static_cast<Poco::Int64>(length));
    std::ostream& out = session.sendRequest(head);
    out.write(reinterpret_cast<const char*>(request.body.data()), static_cast<std::streamsize>(request.body.size()));
    out.flush();
    if (end) shutdown(session.socket().impl()->sockfd(), SHUT_WR);
    Poco::Net::HTTPResponse response;
    try {
      session.receiveResponse(response);
    } catch (const Poco::Net::SSLException&) {
      // Leaving earlier could end the connection before the receiver has read anything.
      return receiver_->WaitForRequests(1) ? 0 : -1;
    }
    z_srv_ = response.get("Z-SRV", "");
    return response.getStatus();
  }

  void ExpectRefused(const RawRequest& request, int status, const std::string& reason) {
    EXPECT_EQ(status, Send(request));
    EXPECT_THAT(Lines(), Contains("rejected: " + reason));
    EXPECT_THAT(receiver_->GetPayloads(), IsEmpty());
    EXPECT_NE("", z_srv_);
  }

  std::string z_srv_;
};

TEST_F(ReceiverTest, AcceptsWhatIsSignedAsDocumented) {
  EXPECT_EQ(200, Send(Signed(HmacVersion::HmacV1)));
  EXPECT_EQ(200, Send(Signed(HmacVersion::HmacV2)));
  EXPECT_THAT(receiver_->GetPayloads(), SizeIs(2));
}

TEST_F(ReceiverTest, RefusesOneChangedByteUnderV1) {
  RawRequest request = Signed(HmacVersion::HmacV1);
  request.body[request.body.size() / 2] ^= 1;
  ExpectRefused(request, 401, "signature does not match");
}

TEST_F(ReceiverTest, RefusesAChangedContentTypeUnderV1) {
  RawRequest request = Signed(HmacVersion::HmacV1);
  request.headers["Content-Type"] = "text/plain";
  ExpectRefused(request, 401, "signature does not match");
}

TEST_F(ReceiverTest, RefusesAChangedPathUnderV2) {
  RawRequest request = Signed(HmacVersion::HmacV2);
  request.target = "/v1/ioc";
  ExpectRefused(request, 401, "signature does not match");
}

TEST_F(ReceiverTest, AnswersAStrangerWithoutWaitingForItsBody) {
  RawRequest request = Signed(HmacVersion::HmacV2);
  std::string& authorization = request.headers["X-OSTL-Authorization"];
  authorization.replace(authorization.find(kAgent), std::string(kAgent).size(), "stranger");
  EXPECT_EQ(401, SendAnnouncing(request, 100'000'000));
  EXPECT_THAT(Lines(), Contains("rejected: unknown key id"));
  // A body of a usual size is read to its end, so that the sender is there for the answer.
  request.body.resize(500'000);
  ExpectRefused(request, 401, "unknown key id");
}

TEST_F(ReceiverTest, RefusesAnAddedQueryUnderBothVersions) {
  for (const HmacVersion version : {HmacVersion::HmacV1, HmacVersion::HmacV2}) {
    RawRequest request = Signed(version);
    request.target += "?x=1";
    ExpectRefused(request, 401, "signature does not match");
  }
}

TEST_F(ReceiverTest, RefusesARequestWithoutItsHeaders) {
  RawRequest request = Signed(HmacVersion::HmacV1);
  EXPECT_EQ(200, Send(request));
  // Replayed: the body is known, the header is gone.
  RawRequest replay = request;
  replay.headers.erase("X-OSTL-Authorization");
  EXPECT_EQ(401, Send(replay));
  replay = request;
  replay.headers.erase("X-OSTL-Timestamp");
  EXPECT_EQ(401, Send(replay));
  EXPECT_THAT(Lines(), Contains("rejected: missing header X-OSTL-Authorization"));
  EXPECT_THAT(Lines(), Contains("rejected: missing header X-OSTL-Timestamp"));
  EXPECT_THAT(receiver_->GetPayloads(), SizeIs(1));
}

TEST_F(ReceiverTest, RefusesTimesThatAreFarAway) {
  ExpectRefused(Signed(HmacVersion::HmacV2, -std::chrono::minutes(16)), 401, "timestamp outside the allowed window");
  ExpectRefused(Signed(HmacVersion::HmacV2, std::chrono::minutes(16)), 401, "timestamp outside the allowed window");
  EXPECT_EQ(200, Send(Signed(HmacVersion::HmacV2, -std::chrono::minutes(14))));
  EXPECT_EQ(200, Send(Signed(HmacVersion::HmacV2, std::chrono::minutes(14))));
}

TEST_F(ReceiverTest, RefusesTimesThatCountedInNanosecondsComeAroundToNow) {
  RawRequest request = Signed(HmacVersion::HmacV2);
  constexpr time_t kRound = 18'446'744'074;  // 2^64 nanoseconds
  const time_t far = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now()) + kRound;
  std::tm parts{};
  gmtime_r(&far, &parts);
  char text[32];
  ASSERT_NE(0U, std::strftime(text, sizeof(text), "%FT%TZ", &parts));
  for (const std::string& time :
       {std::string(text), std::string("9999-12-31T23:59:59Z"), std::string("0001-01-01T00:00:00Z")}) {
    request.headers["X-OSTL-Timestamp"] = time;
    ExpectRefused(request, 401, "timestamp outside the allowed window");
    const std::lock_guard lock(mutex_);
    lines_.clear();
  }
}

TEST_F(ReceiverTest, RefusesAChangedTime) {
  RawRequest request = Signed(HmacVersion::HmacV2, std::chrono::seconds(-60));
  request.headers["X-OSTL-Timestamp"] = Signed(HmacVersion::HmacV2).headers["X-OSTL-Timestamp"];
  ExpectRefused(request, 401, "signature does not match");
}

TEST_F(ReceiverTest, RefusesHeadersOfAnotherForm) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"", "malformed authorization"},
      {"ZHmacV2Auth", "malformed authorization"},
      {"ZHmacV2Auth:x y", "malformed authorization"},
      {"ZHmacV9Auth agent:sig", "unknown authorization scheme"},
      {"ZHmacV2Auth stranger:sig", "unknown key id"},
      {std::string("ZHmacV2Auth ") + kAgent + ":", "signature does not match"},
  };
  for (const auto& [value, reason] : cases) {
    RawRequest request = Signed(HmacVersion::HmacV2);
    request.headers["X-OSTL-Authorization"] = value;
    ExpectRefused(request, 401, reason);
  }
  for (const char* time : {"", "yesterday", "2024-05-01T10:20:30", "2024-05-01T10:20:30Zx", "2024-13-01T10:20:30Z"}) {
    RawRequest request = Signed(HmacVersion::HmacV2);
    request.headers["X-OSTL-Timestamp"] = time;
    ExpectRefused(request, 401, "malformed timestamp");
  }
}

TEST_F(ReceiverTest, RefusesWhatIsNoUpload) {
  RawRequest get = Signed(HmacVersion::HmacV2);
  get.method = "PUT";
  ExpectRefused(get, 405, "not a POST");
}

TEST_F(ReceiverTest, RefusesPayloadsThatCannotBeRead) {
  RawRequest request = Signed(HmacVersion::HmacV2);  // V2 does not sign the body, so it can be damaged
  request.body.resize(request.body.size() - 4);
  ExpectRefused(request, 400, "payload is not LZMA: Compressed data ends too early");
  request = Signed(HmacVersion::HmacV2);
  request.headers["Content-Encoding"] = "br";
  ExpectRefused(request, 415, "unknown content encoding");
  request = Signed(HmacVersion::HmacV2);
  request.headers["Z-PAYLOADHASH"] = "0000000000000000";
  ExpectRefused(request, 400, "payload hash does not match");
}

TEST_F(ReceiverTest, RefusesAPayloadThatUnfoldsTooFar) {
  RawRequest request;
  request.headers = {{"Content-Encoding", "LZMA"}};
  request.body = common::LzmaCompression().Compress(Bytes(Options().max_body_size + 1, 'x'));
  EXPECT_LT(request.body.size(), 100'000U);
  Sign(request, HmacVersion::HmacV1);
  ExpectRefused(request, 413, "body too large");
}

TEST_F(ReceiverTest, RefusesABodyThatIsAnnouncedTooLargeWithoutReadingIt) {
  RawRequest request = Signed(HmacVersion::HmacV2);
  EXPECT_EQ(413, SendAnnouncing(request, Options().max_body_size + 1));
  EXPECT_THAT(Lines(), Contains("rejected: body too large"));
}

TEST_F(ReceiverTest, RefusesABodyThatEndsBeforeItsAnnouncedLength) {
  RawRequest request;
  request.body = BytesOf("plain");
  Sign(request, HmacVersion::HmacV2);
  EXPECT_EQ(0, SendAnnouncing(request, request.body.size() + 1, true)) << "nobody is there to answer";
  receiver_.reset();  // ends the request
  EXPECT_THAT(Lines(), Contains("rejected: body incomplete"));
  EXPECT_THAT(Lines(), SizeIs(2));
}

TEST_F(ReceiverTest, TakesAPayloadThatIsNotCompressed) {
  RawRequest request;
  request.body = BytesOf("plain");
  Sign(request, HmacVersion::HmacV1);
  EXPECT_EQ(200, Send(request));
  EXPECT_EQ("plain", receiver_->GetPayloads().at(0).text);
  EXPECT_THAT(Lines(), Contains("payload 5 bytes type=-"));
}

TEST_F(ReceiverTest, HoldsDocumentsOfEventsAgainstTheirSchemaWhenAsked) {
  const auto send = [this](const std::string& document) {
    RawRequest request;
    request.headers = {{"Content-Type", "application/json"}};
    request.body = BytesOf(document);
    Sign(request, HmacVersion::HmacV2);
    return Send(request);
  };
  const std::string bad = R"({"events":[{"eventAction":"Write"}],"timestamp":"2024-05-01T10:30:00Z"})";
  EXPECT_EQ(send(bad), 200) << "nobody has asked yet";
  tools::ReceiverOptions options = Options();
  options.validate = true;
  StartReceiver(options);
  EXPECT_EQ(send(bad), 400);
  EXPECT_THAT(Lines(), Contains("rejected: document does not follow its schema: /events/0: required"));
  EXPECT_EQ(send(R"({"events":[],"timestamp":"2024-05-01T10:30:00Z"})"), 200);
  EXPECT_EQ(send(R"({"something":"else"})"), 200) << "no document of events";
}

TEST_F(ReceiverTest, StepsOverFilesOfAnEarlierRun) {
  tools::ReceiverOptions options = Options();
  options.store_folder = folder_ / "store";
  StartReceiver(options);
  EXPECT_EQ(0, Upload("{}"));
  StartReceiver(options);
  EXPECT_EQ(0, Upload("[]"));
  EXPECT_EQ("{}", folder_.Read("store/payload-000001.json"));
  EXPECT_EQ(folder_ / "store/payload-000001.bin", receiver_->GetPayloads().at(0).file);
  EXPECT_EQ(0, Upload("{ }"));
  EXPECT_EQ("{ }", folder_.Read("store/payload-000002.json"));
}

TEST_F(ReceiverTest, RefusesOnlyTheRequestsThatATextSinglesOut) {
  tools::ReceiverOptions options = Options();
  options.status = 503;
  options.only_for = "/elsewhere";
  StartReceiver(options);
  EXPECT_EQ(200, Send(Signed(HmacVersion::HmacV2)));
  options.only_for = "/";
  StartReceiver(options);
  EXPECT_EQ(503, Send(Signed(HmacVersion::HmacV2)));
}

TEST_F(ReceiverTest, AsksTheClientToComeAgainWhenItCannotStore) {
  tools::ReceiverOptions options = Options();
  options.store_folder = folder_ / "store";
  StartReceiver(options);
  std::filesystem::remove(folder_ / "store");
  EXPECT_EQ(503, Send(Signed(HmacVersion::HmacV2)));
  EXPECT_THAT(Lines(), Contains(HasSubstr("rejected: Cannot open ")));
  EXPECT_THAT(receiver_->GetPayloads(), IsEmpty());
}

TEST_F(ReceiverTest, AcceptsAnUploadThatItKnowsWithoutCountingItAgain) {
  RawRequest request = Signed(HmacVersion::HmacV2);
  request.headers["Z-REQID"] = "11111111-2222-5333-8444-555555555555";
  EXPECT_EQ(200, Send(request));
  EXPECT_EQ(200, Send(request));
  EXPECT_THAT(receiver_->GetPayloads(), SizeIs(1));
  EXPECT_THAT(Lines(), Contains("repeated: 11111111-2222-5333-8444-555555555555"));
  request.headers["Z-REQID"] = "11111111-2222-5333-8444-666666666666";
  EXPECT_EQ(200, Send(request));
  EXPECT_THAT(receiver_->GetPayloads(), SizeIs(2));
}

TEST_F(ReceiverTest, TakesAnIdForKnownOnlyFromWhoCanSign) {
  RawRequest request = Signed(HmacVersion::HmacV2);
  request.headers["Z-REQID"] = "11111111-2222-5333-8444-555555555555";
  RawRequest forged = request;
  forged.headers["X-OSTL-Authorization"] += "x";
  EXPECT_EQ(401, Send(forged));
  EXPECT_EQ(200, Send(request));
  EXPECT_THAT(receiver_->GetPayloads(), SizeIs(1));
}

TEST_F(ReceiverTest, RefusesAnIdentityThatIsNotTheSignaturesOwn) {
  for (const char* name : {"Z-CUSTID", "Z-CLNTID"}) {
    RawRequest request = Signed(HmacVersion::HmacV2);
    request.headers["Z-CUSTID"] = kCustomer;
    request.headers["Z-CLNTID"] = kAgent;
    request.headers[name] = "stranger";
    ExpectRefused(request, 401, std::string(name) + " is not that of the key id");
  }
}

TEST_F(ReceiverTest, KeepsPayloadsFromOtherUsersEyes) {
  tools::ReceiverOptions options = Options();
  options.store_folder = folder_ / "store";
  StartReceiver(options);
  EXPECT_EQ(0, Upload("{}"));
  using std::filesystem::perms;
  EXPECT_EQ(perms::owner_all, std::filesystem::status(folder_ / "store").permissions());
  EXPECT_EQ(perms::owner_read | perms::owner_write,
            std::filesystem::status(folder_ / "store/payload-000001.json").permissions());
}

TEST_F(ReceiverTest, KeepsNoPayloadsUnlessAskedTo) {
  tools::ReceiverOptions options = Options();
  options.keep_payloads = false;
  StartReceiver(options);
  EXPECT_EQ(0, Upload("{}"));
  EXPECT_THAT(receiver_->GetPayloads(), IsEmpty());
}

TEST_F(ReceiverTest, KeepsItsCertificateOverARestart) {
  tools::ReceiverOptions options = Options();
  options.cert_folder = folder_ / "certificate";
  StartReceiver(options);
  const std::string first = folder_.Read("ca.pem");
  EXPECT_EQ(first, folder_.Read("certificate/cert.pem"));
  using std::filesystem::perms;
  EXPECT_EQ(perms::owner_read | perms::owner_write,
            std::filesystem::status(folder_ / "certificate/key.pem").permissions());
  StartReceiver(options);
  EXPECT_EQ(first, folder_.Read("ca.pem"));
  EXPECT_EQ(0, Upload("{}"));
  // Half of a pair is none.
  std::filesystem::remove(folder_ / "certificate/cert.pem");
  StartReceiver(options);
  EXPECT_NE(first, folder_.Read("ca.pem"));
  EXPECT_EQ(0, Upload("{}"));
}

TEST(PayloadStoreTest, ForgetsAnUploadAfterAnHourAndTheOldestAtTheBound) {
  fakes::FakeClock clock;
  tools::PayloadStore store("", true, clock);
  const auto add = [&](const std::string& id) { return store.Add({"{}", "/", {{"z-reqid", id}}, ""}); };
  EXPECT_TRUE(add("a"));
  clock.Advance(std::chrono::hours(1));
  EXPECT_FALSE(add("a"));
  clock.Advance(std::chrono::seconds(1));
  EXPECT_TRUE(add("a"));
  for (std::size_t i = 0; i + 1 < tools::PayloadStore::kMaxKnown; ++i) EXPECT_TRUE(add("b" + std::to_string(i)));
  EXPECT_FALSE(add("a")) << "at the bound";
  EXPECT_TRUE(add("c"));
  EXPECT_FALSE(add("b0"));
  EXPECT_TRUE(add("a")) << "it was the oldest";
}

TEST(PayloadStoreTest, WhatFollowsThePayloadsDoesSoInTheirOrder) {
  tools::PayloadStore store("", true);
  std::vector<std::string> followed;
  std::vector<std::thread> senders;
  for (int sender = 0; sender < 4; ++sender) {
    senders.emplace_back([&, sender] {
      for (int i = 0; i < 500; ++i) {
        const std::string target = std::to_string(sender) + "/" + std::to_string(i);
        store.Add({"{}", target, {}, ""}, [&] { followed.push_back(target); });
      }
    });
  }
  for (std::thread& sender : senders) sender.join();
  std::vector<std::string> stored;
  for (const tools::AcceptedPayload& payload : store.Payloads()) stored.push_back(payload.target);
  EXPECT_EQ(followed.size(), 2'000U);
  EXPECT_EQ(followed, stored);
}

TEST(PayloadStoreTest, NeverTakesAnUploadWithoutAnIdForAnotherOne) {
  tools::PayloadStore store("", true);
  EXPECT_TRUE(store.Add({"{}", "/", {}, ""}));
  EXPECT_TRUE(store.Add({"{}", "/", {}, ""}));
}

TEST(PayloadStoreTest, WritesThroughNothingThatSomebodyHasPutInItsPlace) {
  const fakes::TempFolder folder;
  const std::string victim = folder.Write("victim", "mine");
  const std::string store_folder = folder / "store";
  std::filesystem::create_directory(store_folder);
  std::filesystem::create_symlink(victim, store_folder + "/.payload.part");
  tools::PayloadStore store(store_folder, false);
  EXPECT_TRUE(store.Add({"{}", "/", {}, ""}));
  EXPECT_EQ("mine", folder.Read("victim"));
  EXPECT_EQ("{}", folder.Read("store/payload-000001.json"));
  folder.Write("store/.payload.part", "half of what a killed run was to keep");
  EXPECT_TRUE(store.Add({"{}", "/", {}, ""}));
  EXPECT_EQ("{}", folder.Read("store/payload-000002.json"));
}

TEST(EventLinesTest, ShowsBothPathsOfARename) {
  EXPECT_THAT(
      tools::DescribeDocument(
          R"({"timestamp":"x","events":[{"eventAction":"Rename","imagePath":"/a","operation":{"new":"/b","old":"/a"}}]})"),
      ElementsAre("event Rename /a -> /b actor=- pid=- user=- audit-user=- id=-"));
}

TEST(EventLinesTest, EscapesWhatCouldFakeALine) {
  EXPECT_THAT(tools::DescribeDocument(R"({"events":[{"imagePath":"/x\nevent Write /y\u001b[2J\\"}]})"),
              ElementsAre(HasSubstr(R"(/x\x0aevent Write /y\x1b[2J\\ actor=)")));
}

TEST(EventLinesTest, ShowsTheRowsOfAStatusDocument) {
  EXPECT_THAT(tools::DescribeDocument(R"({"status":[
                {"dateTime":"x","contextId":"FIM\n","statusCode":4003,"state":0,"additionalFields":{"httpStatus":"500"}},
                {"dateTime":"x","contextId":"FIM","statusCode":4001,"state":1}]})"),
              ElementsAre(R"(status 4003 FIM\x0a state=0 {"httpStatus":"500"})", "status 4001 FIM state=1 -"));
}

TEST(EventLinesTest, SaysNothingOfOtherDocuments) {
  for (const char* text : {"", "no json", "{}", "[]", R"({"events":{}})", R"({"events":[)"}) {
    EXPECT_THAT(tools::DescribeDocument(text), IsEmpty()) << text;
  }
  EXPECT_THAT(tools::DescribeDocument(R"({"events":[1,null,{"actor":3,"eventId":"7"}]})"), SizeIs(3));
  EXPECT_THAT(tools::DescribeDocument(std::string(1'000'000, '[')), IsEmpty());
}

}  // namespace
}  // namespace zagent::e2e

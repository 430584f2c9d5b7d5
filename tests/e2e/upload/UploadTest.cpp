// Whole uploads: from HttpUploader through compression, signature and TLS to the receiver's folder.
#include <Poco/Crypto/X509Certificate.h>
#include <gmock/gmock.h>
#include <openssl/x509.h>

#include <filesystem>
#include <future>
#include <iomanip>
#include <random>
#include <sstream>

#include "common/src/http/DefaultHttpRetryPolicy.h"
#include "common/src/http/HttpInterceptorBuilder.h"
#include "tests/e2e/upload/UploadFixture.h"

namespace zagent::e2e {
namespace {

using common::HmacVersion;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr const char* kDocument =
    R"({"events":[{"eventId":7,"eventAction":"Write","imagePath":"/etc/passwd","actor":{"imagePath":"/usr/bin/vi",)"
    R"("processID":42,"userName":"root","auditUserName":"jane"}}],"timestamp":"2024-05-01T10:20:30Z"})";

class UploadTest : public UploadFixture {
 protected:
  // The name under which OpenSSL looks a certificate up in a folder.
  static std::string HashNameOf(const std::string& file) {
    const Poco::Crypto::X509Certificate certificate(file);
    std::ostringstream name;
    name << std::hex << std::setfill('0') << std::setw(8)
         << X509_NAME_hash_ex(X509_get_subject_name(certificate.certificate()), nullptr, nullptr, nullptr) << ".0";
    return name.str();
  }

  std::shared_ptr<common::MutableHttpRequest> PostThrough(const std::vector<std::string>& proxies,
                                                          std::uint64_t max_attempts, bool verify_ssl = true) {
    common::HttpInterceptorBuilder chain;
    chain.AddLzma().AddAuth(Keys(HmacVersion::HmacV2), common::AuthTag::Tag4, common::AuthTag::None);
    common::HttpRequestSettings settings;
    settings.verify_ssl = verify_ssl;
    settings.retry_policy = std::make_unique<common::DefaultHttpRetryPolicy>(max_attempts, 0);
    auto request = std::make_shared<common::MutableHttpRequest>(
        common::HttpMethod::Post, receiver_->GetUrl() + "/v1/fim", common::HttpHeaders(), BytesOf(kDocument),
        chain.Build(), std::move(settings), common::HttpProxy(proxies));
    service_->Enqueue(request);
    return request;
  }
};

TEST_F(UploadTest, ArrivesUnderBothVersions) {
  StartReceiver(Options());
  for (const HmacVersion version : {HmacVersion::HmacV1, HmacVersion::HmacV2}) {
    EXPECT_EQ(0, Uploader(version)->Upload("application/json", BytesOf(kDocument)));
  }
  const auto payloads = receiver_->GetPayloads();
  ASSERT_THAT(payloads, SizeIs(2));
  EXPECT_EQ(kDocument, payloads[0].text);
  EXPECT_EQ(kDocument, payloads[1].text);
  EXPECT_THAT(payloads[0].headers.at("x-ostl-authorization"), HasSubstr("ZHmacV1Auth "));
  EXPECT_THAT(payloads[1].headers.at("x-ostl-authorization"), HasSubstr("ZHmacV2Auth "));
  EXPECT_EQ(kCustomer, payloads[0].headers.at("z-custid"));
  EXPECT_EQ(std::string("/v1/fim?agent=") + kAgent, payloads[0].target);
}

TEST_F(UploadTest, ArrivesWhenItIsLargeOrEmpty) {
  StartReceiver(Options());
  // Does not compress, so that the body is large enough for the client to ask before it sends it.
  std::string large(1'300'000, '\0');
  std::mt19937 generator(1);
  for (char& byte : large) byte = static_cast<char>(generator());
  const auto uploader = Uploader(HmacVersion::HmacV1);
  EXPECT_EQ(0, uploader->Upload("application/octet-stream", BytesOf(large)));
  EXPECT_EQ(0, uploader->Upload("application/octet-stream", {}));
  EXPECT_EQ(large, receiver_->GetPayloads().at(0).text);
  EXPECT_EQ("", receiver_->GetPayloads().at(1).text);
}

// What a spool gives at the most when its limits are the ordinary ones, with what the envelope adds.
TEST_F(UploadTest, ArrivesWhenItIsTheLargestFileThatASpoolGives) {
  StartReceiver(Options());
  constexpr std::size_t kLargestRead = 64UL * 1024 * 1024;
  const std::string head = R"({"events":[{"eventAction":"Write","imagePath":"/srv/file","filler":")";
  const std::string tail = R"("}])";
  const std::string filler(kLargestRead - head.size() - tail.size() - 1, 'x');
  EXPECT_EQ(0, Upload(head + filler + tail + R"(,"timestamp":"2024-05-01T10:20:30Z"})"));
  EXPECT_LT(kLargestRead, receiver_->GetPayloads().at(0).text.size());
}

TEST_F(UploadTest, BecomesAFileAndALinePerEvent) {
  tools::ReceiverOptions options = Options();
  options.store_folder = folder_ / "store";
  StartReceiver(options);
  EXPECT_EQ(0, Upload(kDocument));
  EXPECT_THAT(Lines(), ElementsAre("listening on " + receiver_->GetUrl(),
                                   "event Write /etc/passwd actor=/usr/bin/vi pid=42 user=root audit-user=jane id=7"));
  EXPECT_EQ(folder_ / "store/payload-000001.json", receiver_->GetPayloads().at(0).file);
  EXPECT_EQ(kDocument, folder_.Read("store/payload-000001.json"));
}

TEST_F(UploadTest, IsRefusedWithTheKeysOfAnotherActivation) {
  StartReceiver(Options());
  EXPECT_EQ(100021, UploaderWith(Keys(HmacVersion::HmacV2, "other"))->Upload("application/json", BytesOf("{}")));
  EXPECT_THAT(Lines(), Contains("rejected: signature does not match"));
  EXPECT_THAT(receiver_->GetPayloads(), IsEmpty());
  EXPECT_EQ(1U, receiver_->GetRequestCount()) << "a refusal is not repeated";
}

TEST_F(UploadTest, IsStoredOnceAfterTwoBusyAnswers) {
  tools::ReceiverOptions options = Options();
  options.status = 503;
  options.status_requests = 2;
  StartReceiver(options);
  const auto uploader = Uploader(HmacVersion::HmacV1);
  EXPECT_EQ(0, uploader->Upload("application/json", BytesOf(kDocument)));
  EXPECT_EQ(200, uploader->LastHttpStatus());
  EXPECT_EQ(3U, receiver_->GetRequestCount());
  ASSERT_THAT(receiver_->GetPayloads(), SizeIs(1));
  EXPECT_EQ(kDocument, receiver_->GetPayloads().at(0).text) << "compressed once, not three times";
  EXPECT_EQ(uploader->LastCorrelationId(), receiver_->GetPayloads().at(0).headers.at("z-reqid"));
}

TEST_F(UploadTest, ReusesItsConnection) {
  StartReceiver(Options());
  const auto uploader = Uploader();
  for (int i = 0; i < 3; ++i) EXPECT_EQ(0, uploader->Upload("application/json", BytesOf(kDocument)));
  EXPECT_EQ(0, Upload(kDocument)) << "another uploader of the same service";
  EXPECT_THAT(receiver_->GetPayloads(), SizeIs(4));
  EXPECT_EQ(1U, receiver_->GetConnectionCount());
}

TEST_F(UploadTest, GetsNoAnswerWhenTheConnectionIsReset) {
  tools::ReceiverOptions options = Options();
  options.reset = true;
  StartReceiver(options);
  EXPECT_EQ(100022, Upload(kDocument));
  EXPECT_EQ(4U, receiver_->GetRequestCount()) << "a network error is tried again";
  EXPECT_TRUE(log_.Has("Network error with CURL_STATUS_CODE 56 accessing ")) << log_.All();
}

TEST_F(UploadTest, SucceedsWhenOnlyTheAnswersBodyIsCutOff) {
  tools::ReceiverOptions options = Options();
  options.body_fault = tools::ReceiverOptions::BodyFault::Truncate;
  StartReceiver(options);
  EXPECT_EQ(0, Upload(kDocument)) << "the platform has accepted it";
  EXPECT_THAT(Lines(), Contains("answered: truncated"));
  EXPECT_TRUE(log_.Has("Unknown curl error with CURL_STATUS_CODE 18 while accessing ")) << log_.All();
}

TEST_F(UploadTest, SucceedsWhenTheConnectionIsResetInTheAnswersBody) {
  tools::ReceiverOptions options = Options();
  options.body_fault = tools::ReceiverOptions::BodyFault::Reset;
  StartReceiver(options);
  max_attempts_ = 1;
  const auto uploader = Uploader();
  EXPECT_EQ(0, uploader->Upload("application/json", BytesOf(kDocument))) << "the platform has accepted it";
  EXPECT_EQ(200, uploader->LastHttpStatus());
  EXPECT_TRUE(log_.Has("Network error with CURL_STATUS_CODE 56 accessing ")) << log_.All();
  EXPECT_EQ(2U, receiver_->GetRequestCount()) << "a network error is tried again";
  EXPECT_THAT(receiver_->GetPayloads(), SizeIs(1)) << "under the same id";
  EXPECT_THAT(Lines(), Contains("repeated: " + uploader->LastCorrelationId()));
}

TEST_F(UploadTest, SucceedsWhenTheAnswersBodyStalls) {
  tools::ReceiverOptions options = Options();
  options.body_fault = tools::ReceiverOptions::BodyFault::Stall;
  StartReceiver(options);
  request_timeout_ = 1;
  max_attempts_ = 0;
  EXPECT_EQ(0, Upload(kDocument));
  EXPECT_TRUE(log_.Has("Network error with CURL_STATUS_CODE 28 accessing ")) << log_.All();
  EXPECT_THAT(Lines(), Contains("answered: stalled in the body"));
}

TEST_F(UploadTest, IsCountedOnceWhenItsAnswerGotLost) {
  tools::ReceiverOptions options = Options();
  options.lose_answers = 2;
  StartReceiver(options);
  EXPECT_EQ(0, Upload(kDocument));
  EXPECT_EQ(3U, receiver_->GetRequestCount());
  EXPECT_THAT(receiver_->GetPayloads(), SizeIs(1));
}

TEST_F(UploadTest, TrustsAReplacedCertificateFileAtOnce) {
  StartReceiver(Options());
  EXPECT_EQ(0, Upload(kDocument));
  receiver_.reset();
  receiver_ = std::make_unique<tools::ReferenceReceiver>(Options());  // writes its own certificate to the same file
  EXPECT_EQ(0, Upload(kDocument)) << log_.All();
}

TEST_F(UploadTest, GivesUpWhenThePlatformIsTooSlow) {
  tools::ReceiverOptions options = Options();
  options.delay = std::chrono::hours(1);
  StartReceiver(options);
  request_timeout_ = 1;
  max_attempts_ = 0;
  EXPECT_EQ(100022, Upload(kDocument));
  EXPECT_TRUE(log_.Has("Network error with CURL_STATUS_CODE 28 accessing ")) << log_.All();
}

TEST_F(UploadTest, IsNeverSentToAPlatformThatCannotProveWhoItIs) {
  StartReceiver(Options());
  tools::ReceiverOptions other = Options();
  other.ca_file = folder_ / "other.pem";
  const tools::ReferenceReceiver stranger(other);
  StartService(stranger.GetCaFile());
  EXPECT_EQ(100022, Upload(kDocument));
  EXPECT_EQ(0U, receiver_->GetRequestCount());
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "Unknown curl error with CURL_STATUS_CODE 60 while accessing "));
  EXPECT_EQ(0, log_.Count("Retrying HTTP request for "));
}

TEST_F(UploadTest, IsSentToAnybodyWhenVerificationIsOff) {
  StartReceiver(Options());
  tools::ReceiverOptions other = Options();
  other.ca_file = folder_ / "other.pem";
  const tools::ReferenceReceiver stranger(other);
  StartService(stranger.GetCaFile());
  EXPECT_EQ(200, PostThrough({}, 0, false)->GetResponse().GetHttpCode());
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_INFORMATION,
                       "Skip TLS certificate verification for " + receiver_->GetUrl() + "/v1/fim"));
}

TEST_F(UploadTest, TrustsWhatAFolderOfCertificatesHolds) {
  StartReceiver(Options());
  std::filesystem::create_directory(folder_ / "certificates");
  std::filesystem::copy_file(receiver_->GetCaFile(), folder_ / ("certificates/" + HashNameOf(receiver_->GetCaFile())));
  StartService(folder_ / "certificates");
  EXPECT_EQ(0, Upload(kDocument));
}

TEST_F(UploadTest, TrustsAFolderOfCertificatesOnlyForWhatIsInIt) {
  StartReceiver(Options());
  StartService(folder_.Path());  // holds the certificate, but not under the hash by which OpenSSL looks it up
  EXPECT_EQ(100022, Upload(kDocument));
  EXPECT_EQ(0U, receiver_->GetRequestCount());
}

TEST_F(UploadTest, EndsWhenItIsCancelledInFlight) {
  tools::ReceiverOptions options = Options();
  options.delay = std::chrono::hours(1);
  StartReceiver(options);
  const auto uploader = Uploader();
  auto outcome =
      std::async(std::launch::async, [&] { return uploader->Upload("application/json", BytesOf(kDocument)); });
  ASSERT_TRUE(receiver_->WaitForRequests(1));
  uploader->Cancel();
  EXPECT_EQ(100022, outcome.get());
  EXPECT_EQ(0, uploader->LastHttpStatus());
  EXPECT_EQ(1U, receiver_->GetRequestCount()) << "a cancelled upload is not tried again";
}

TEST_F(UploadTest, EndsWhenTheServiceStops) {
  tools::ReceiverOptions options = Options();
  options.delay = std::chrono::hours(1);
  StartReceiver(options);
  const auto uploader = Uploader();
  auto outcome =
      std::async(std::launch::async, [&] { return uploader->Upload("application/json", BytesOf(kDocument)); });
  ASSERT_TRUE(receiver_->WaitForRequests(1));
  service_->Stop();
  EXPECT_EQ(100022, outcome.get());
  EXPECT_EQ(100022, uploader->Upload("application/json", BytesOf(kDocument))) << "and no later one begins";
}

TEST_F(UploadTest, GoesThroughAProxysTunnel) {
  tools::ReceiverOptions options = Options();
  options.proxy_port = 0;
  StartReceiver(options);
  const auto request = PostThrough({receiver_->GetProxyUrl()}, 0);
  EXPECT_EQ(200, request->GetResponse().GetHttpCode());
  EXPECT_EQ(1U, receiver_->GetTunnelCount());
  EXPECT_THAT(receiver_->GetPayloads(), SizeIs(1));
}

TEST_F(UploadTest, BlamesThePlatformForAnErrorWithZSrvBehindAProxy) {
  tools::ReceiverOptions options = Options();
  options.proxy_port = 0;
  options.status = 503;
  StartReceiver(options);
  const auto request = PostThrough({receiver_->GetProxyUrl()}, 1);
  EXPECT_EQ(common::HttpStatus::ServerError, request->GetResponse().GetStatus());
  EXPECT_TRUE(log_.Has("Header Z-SRV is present, go with the retry attempts configured."));
}

TEST_F(UploadTest, BlamesTheProxyForAnErrorWithoutZSrv) {
  tools::ReceiverOptions options = Options();
  options.proxy_port = 0;
  options.status = 503;
  options.z_srv = false;
  StartReceiver(options);
  const auto request = PostThrough({receiver_->GetProxyUrl()}, 1);
  EXPECT_EQ(common::HttpStatus::ProxyError, request->GetResponse().GetStatus());
  EXPECT_TRUE(log_.Has("Header Z-SRV is not present, so failover to next proxy."));
}

TEST_F(UploadTest, MovesOnFromAProxyThatRefusesTheTunnel) {
  tools::ReceiverOptions refusing = Options();
  refusing.ca_file = folder_ / "other.pem";
  refusing.proxy_port = 0;
  refusing.proxy_status = 407;
  const tools::ReferenceReceiver refusing_proxy(refusing);
  tools::ReceiverOptions options = Options();
  options.proxy_port = 0;
  StartReceiver(options);
  const auto request = PostThrough({refusing_proxy.GetProxyUrl(), receiver_->GetProxyUrl()}, 1);
  EXPECT_EQ(200, request->GetResponse().GetHttpCode());
  EXPECT_TRUE(log_.Has("Received proxy connect code: 407"));
  EXPECT_EQ(0U, refusing_proxy.GetTunnelCount());
  EXPECT_EQ(1U, receiver_->GetTunnelCount());
}

}  // namespace
}  // namespace zagent::e2e

// Uploads through real proxies, good and bad ones.
#include <gtest/gtest.h>

#include <cstdlib>

#include "common/src/http/HttpProxyManager.h"
#include "tests/e2e/upload/ProxyProcess.h"
#include "tests/e2e/upload/UploadFixture.h"
#include "tests/fakes/FakeHttpServer.h"
#include "tools/reference-receiver/ServerCertificate.h"
#include "tools/reference-receiver/TunnelProxy.h"

namespace zagent::e2e {
namespace {

using tools::ReferenceReceiver;

class ProxyTest : public UploadFixture {
 protected:
  // A service whose proxies come from a file, behind which the receiver stands.
  void StartBehind(const std::vector<std::string>& proxies, bool fail_open = false,
                   const std::string& more_trust = "") {
    if (!receiver_) receiver_ = std::make_unique<ReferenceReceiver>(Options());
    std::string list;
    for (const std::string& proxy : proxies) list += proxy + "\n";
    common::ProxySources sources{common::EnvironmentProxySource(), common::SystemProxySource(),
                                 common::FileProxySource(folder_.Write("proxy.conf", list))};
    const std::string trust = folder_.Write("trust.pem", folder_.Read("ca.pem") + more_trust);
    service_ = std::make_unique<common::HttpService>(
        trust, std::make_unique<common::HttpProxyManager>(3, fail_open, std::move(sources)));
    service_->Start();
  }
  // A proxy that nobody is behind.
  static std::string Nobody() { return "127.0.0.1:" + std::to_string(FreePort()); }

  void ExpectOneUpload(const std::string& text) {
    const auto payloads = receiver_->GetPayloads();
    ASSERT_EQ(1U, payloads.size());
    EXPECT_EQ(text, payloads[0].text);
  }
};

TEST_F(ProxyTest, UploadsThroughTinyproxy) {
  const auto proxy = ProxyProcess::Tinyproxy();
  StartBehind({"http://" + proxy->Address()});
  EXPECT_EQ(0, Upload("through tinyproxy"));
  ExpectOneUpload("through tinyproxy");
  EXPECT_TRUE(log_.Has("Using http proxy for request to url: " + receiver_->GetUrl()));
  EXPECT_TRUE(log_.Has("Using proxy :http://" + proxy->Address() + " for " + receiver_->GetUrl()));
}

TEST_F(ProxyTest, ShowsItsCredentialsToTinyproxyAndToNoLog) {
  const auto proxy = ProxyProcess::Tinyproxy({.user = "agent", .password = "s3cret", .certificate = "", .key = ""});
  StartBehind({"http://agent:s3cret@" + proxy->Address()});
  EXPECT_EQ(0, Upload("with a password"));
  ExpectOneUpload("with a password");
  EXPECT_FALSE(log_.Has("s3cret")) << log_.All();
}

TEST_F(ProxyTest, GoesOnToTheNextProxyWhenOneDoesNotKnowIt) {
  const auto strict = ProxyProcess::Tinyproxy({.user = "agent", .password = "s3cret", .certificate = "", .key = ""});
  const auto open = ProxyProcess::Tinyproxy();
  StartBehind({"http://agent:wrong@" + strict->Address(), open->Address()});
  EXPECT_EQ(0, Upload("through the second"));
  ExpectOneUpload("through the second");
  EXPECT_TRUE(log_.Has("Received proxy connect code: 40")) << "401 of tinyproxy, 407 of others";
  EXPECT_EQ(1, log_.Count("HttpRetryPolicy::Finish: Moving to next proxy on network/proxy error."));
}

TEST_F(ProxyTest, UploadsThroughSquid) {
  const auto proxy = ProxyProcess::Squid();
  StartBehind({proxy->Address()});
  EXPECT_EQ(0, Upload("through squid"));
  ExpectOneUpload("through squid");
}

TEST_F(ProxyTest, ShowsItsCredentialsToSquid) {
  const auto proxy = ProxyProcess::Squid({.user = "agent", .password = "s3cret", .certificate = "", .key = ""});
  StartBehind({"http://agent:s3cret@" + proxy->Address()});
  EXPECT_EQ(0, Upload("with a password"));
  ExpectOneUpload("with a password");

  max_attempts_ = 1;
  StartBehind({"http://agent:wrong@" + proxy->Address()});
  EXPECT_EQ(100021, Upload("with the wrong one"));
  EXPECT_TRUE(log_.Has("Received proxy connect code: 407"));
  EXPECT_EQ(1U, receiver_->GetRequestCount());
}

class HttpsProxyTest : public ProxyTest {
 protected:
  HttpsProxyTest() : certificate_(folder_ / "proxy", {}) {
    // For squid, which has dropped its rights when it reads them.
    std::filesystem::permissions(folder_.Path(), std::filesystem::perms(0711));
    std::filesystem::permissions(folder_ / "proxy", std::filesystem::perms(0755));
    std::filesystem::permissions(folder_ / "proxy/key.pem", std::filesystem::perms(0644));
    proxy_ = ProxyProcess::Squid(
        {.user = "", .password = "", .certificate = folder_ / "proxy/cert.pem", .key = folder_ / "proxy/key.pem"});
  }

  tools::ServerCertificate certificate_;
  std::unique_ptr<ProxyProcess> proxy_;
};

TEST_F(HttpsProxyTest, UploadsThroughAProxyThatIsSpokenToOverTls) {
  StartBehind({"https://" + proxy_->Address()}, false, folder_.Read("proxy/cert.pem"));
  EXPECT_EQ(0, Upload("tls in tls"));
  ExpectOneUpload("tls in tls");
  EXPECT_TRUE(log_.Has("Using https proxy for request to url: " + receiver_->GetUrl()));
  EXPECT_TRUE(log_.Has("Set CURLOPT_PROXY_CAINFO = " + (folder_ / "trust.pem")));
}

TEST_F(HttpsProxyTest, GoesOnToTheNextProxyWhenTheCertificateIsNotTrusted) {
  const auto plain = ProxyProcess::Tinyproxy();
  StartBehind({"https://" + proxy_->Address(), plain->Address()});
  EXPECT_EQ(0, Upload("through the second"));
  ExpectOneUpload("through the second");
  EXPECT_TRUE(log_.Has("SSL certificate error 60 while accessing " + receiver_->GetUrl()));
}

TEST_F(ProxyTest, WalksOverProxiesThatCannotBeReached) {
  const auto proxy = ProxyProcess::Tinyproxy();
  StartBehind({Nobody(), "http://no-such-proxy.invalid:3128", proxy->Address()});
  EXPECT_EQ(0, Upload("through the third"));
  ExpectOneUpload("through the third");
  EXPECT_TRUE(log_.Has("Network error with CURL_STATUS_CODE 7 "));
  EXPECT_TRUE(log_.Has("Proxy error with CURL_STATUS_CODE 5 while accessing "));
}

TEST_F(ProxyTest, WalksAtMostFourTimesOverAListThatFails) {
  tools::TunnelProxy refusing(0, 503);
  StartBehind({"127.0.0.1:" + std::to_string(refusing.GetPort())});
  EXPECT_EQ(100020, Upload("nowhere"));
  EXPECT_EQ(4, log_.Count("Received proxy connect code: 503"));
  EXPECT_EQ(0U, receiver_->GetRequestCount());
}

TEST_F(ProxyTest, GoesDirectWhenTheListHasFailedAndItFailsOpen) {
  StartBehind({Nobody(), Nobody()}, true);
  EXPECT_EQ(0, Upload("direct"));
  ExpectOneUpload("direct");
  EXPECT_TRUE(log_.Has("Attempting direct connection for failopen"));
  EXPECT_EQ(2, log_.Count("Network error with CURL_STATUS_CODE 7 "));
}

TEST_F(ProxyTest, StaysBehindItsProxiesWhenItFailsClosed) {
  max_attempts_ = 1;
  StartBehind({Nobody()});
  EXPECT_EQ(100022, Upload("nowhere"));
  EXPECT_EQ(0U, receiver_->GetRequestCount());
}

TEST_F(ProxyTest, IsNotBentByTheEnvironmentsProxies) {
  setenv("https_proxy", "http://127.0.0.1:1", 1);
  setenv("no_proxy", "*", 1);
  const auto proxy = ProxyProcess::Tinyproxy();
  StartBehind({proxy->Address()});
  EXPECT_EQ(0, Upload("through the list"));
  EXPECT_TRUE(log_.Has("Using proxy :" + proxy->Address()));
  StartBehind({});
  EXPECT_EQ(0, Upload("direct"));
  EXPECT_TRUE(log_.Has("No proxy configured. Attempting direct connection"));
  unsetenv("https_proxy");
  unsetenv("no_proxy");
}

// What a proxy says itself, and what the platform says through it. Over plain HTTP, where a proxy can speak for the
// platform at all.
class ProxyAnswerTest : public ProxyTest {
 protected:
  static constexpr const char* kBusy = "503 Busy";

  std::int32_t UploadBehind(const std::vector<std::string>& proxies, std::int64_t interval) {
    StartBehind(proxies);
    common::HttpUploader::Settings settings;
    settings.url = "http://platform.invalid/v1/fim";
    settings.customer_id = kCustomer;
    settings.agent_id = kAgent;
    settings.connection_timeout = 10;
    settings.request_timeout = 10;
    settings.retry_interval_seconds = interval;
    return common::HttpUploader(*service_, Keys(common::HmacVersion::HmacV2), settings)
        .Upload("application/json", BytesOf("text"));
  }
};

TEST_F(ProxyAnswerTest, TakesTheNextProxyAtOnceForAnErrorThatIsTheProxysOwn) {
  fakes::FakeHttpServer first({fakes::FakeHttpServer::Answer(kBusy)});
  fakes::FakeHttpServer second({fakes::FakeHttpServer::Answer("200 OK", "Z-SRV: x\r\n")});
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(0, UploadBehind({first.Address(), second.Address()}, 3600));
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(60)) << "and waits for nothing";
  EXPECT_EQ(1U, first.Requests().size());
  EXPECT_EQ(1U, second.Requests().size());
  EXPECT_TRUE(log_.Has("Header Z-SRV is not present, so failover to next proxy."));
}

TEST_F(ProxyAnswerTest, WaitsAndStaysWithTheProxyForAnErrorThatIsThePlatforms) {
  fakes::FakeHttpServer first(
      {fakes::FakeHttpServer::Answer(kBusy, "Z-SRV: x\r\n"), fakes::FakeHttpServer::Answer("200 OK", "Z-SRV: x\r\n")});
  fakes::FakeHttpServer second({fakes::FakeHttpServer::Answer("200 OK", "Z-SRV: x\r\n")});
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(0, UploadBehind({first.Address(), second.Address()}, 1));
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
  EXPECT_EQ(2U, first.Requests().size());
  EXPECT_EQ(0U, second.Requests().size());
  EXPECT_TRUE(log_.Has("Header Z-SRV is present, go with the retry attempts configured."));
}

TEST_F(ProxyAnswerTest, TakesAProxysRefusalForItsOwn) {
  fakes::FakeHttpServer first({fakes::FakeHttpServer::Answer("407 Proxy Authentication Required")});
  fakes::FakeHttpServer second({fakes::FakeHttpServer::Answer("404 Not Found", "Z-SRV: x\r\n")});
  EXPECT_EQ(100016, UploadBehind({first.Address(), second.Address()}, 3600));
  EXPECT_EQ(1U, first.Requests().size());
  EXPECT_EQ(1U, second.Requests().size());
}

}  // namespace
}  // namespace zagent::e2e

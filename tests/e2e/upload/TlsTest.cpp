// Whom the client trusts, what it shows of itself, and what a wire without TLS could see of it.
#include <Poco/Crypto/X509Certificate.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>
#include <gmock/gmock.h>
#include <openssl/x509.h>
#include <sched.h>
#include <sys/mount.h>

#include <cstdlib>
#include <filesystem>
#include <thread>

#include "common/src/http/DefaultHttpRetryPolicy.h"
#include "tests/e2e/PrivateMounts.h"
#include "tests/e2e/upload/UploadFixture.h"

namespace zagent::e2e {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

class TlsTest : public UploadFixture {
 protected:
  void ExpectRefusedCertificate() {
    EXPECT_EQ(100022, Upload("{}"));
    EXPECT_EQ(0U, receiver_->GetRequestCount()) << "nothing must be sent to a stranger";
    EXPECT_EQ(1, log_.Count("Unknown curl error with CURL_STATUS_CODE 60 while accessing ")) << log_.All();
  }

  common::HttpStatus Get(std::optional<common::ClientAuthentication> authentication) {
    common::HttpRequestSettings settings;
    settings.client_authentication = std::move(authentication);
    settings.retry_policy = std::make_unique<common::DefaultHttpRetryPolicy>(0, 0);
    request_ = service_->Get(receiver_->GetUrl() + "/v1", {}, {}, std::move(settings));
    return request_->GetResponse().GetStatus();
  }

  // A key with a certificate of its own, as client.pem and client.p12.
  void MakeClientCertificate() const {
    const std::string folder = folder_.Path();
    const std::string make = "openssl req -x509 -newkey rsa:2048 -nodes -subj /CN=client -days 2 -keyout " + folder +
                             "/client.key -out " + folder +
                             "/client.pem 2>/dev/null && openssl pkcs12 -export -inkey " + folder + "/client.key -in " +
                             folder + "/client.pem -out " + folder + "/client.p12 -passout pass:opens-it";
    ASSERT_EQ(0, std::system(make.c_str()));  // NOLINT(concurrency-mt-unsafe)
  }

  std::shared_ptr<common::HttpRequest> request_;
};

TEST_F(TlsTest, NeverSendsToAHostOfAnotherName) {
  tools::ReceiverOptions options = Options();
  options.cert_names = "DNS:platform.example,IP:127.0.0.2";
  StartReceiver(options);
  ExpectRefusedCertificate();
}

TEST_F(TlsTest, NeverSendsToAHostWhoseCertificateHasExpired) {
  tools::ReceiverOptions options = Options();
  options.cert_days = -1;
  StartReceiver(options);
  ExpectRefusedCertificate();
}

TEST_F(TlsTest, TrustsTheGivenCertificatesAndNotTheSystems) {
  StartReceiver(Options());
  const Poco::Crypto::X509Certificate certificate(receiver_->GetCaFile());
  char hash_name[16];
  std::snprintf(hash_name, sizeof(hash_name), "%08lx.0",
                X509_NAME_hash_ex(X509_get_subject_name(certificate.certificate()), nullptr, nullptr, nullptr));
  tools::ReceiverOptions other = Options();
  other.ca_file = folder_ / "other.pem";
  const tools::ReferenceReceiver stranger(other);
  // In a view of the file system of this thread's own, and of those that it starts, the system trusts the receiver.
  std::thread([&] {
    ASSERT_EQ(0, unshare(CLONE_NEWNS));
    ASSERT_TRUE(e2e::MakeMountsPrivate());
    ASSERT_EQ(0, mount("none", "/etc/ssl/certs", "tmpfs", 0, nullptr));
    std::filesystem::copy_file(receiver_->GetCaFile(), std::string("/etc/ssl/certs/") + hash_name);
    std::filesystem::copy_file(receiver_->GetCaFile(), "/etc/ssl/certs/ca-certificates.crt");
    StartService("");
    EXPECT_EQ(0, Upload("{}")) << "without a path the system's store holds";
    StartService(stranger.GetCaFile());
    EXPECT_EQ(100022, Upload("{}"));
    std::filesystem::create_directory(folder_ / "empty");
    StartService(folder_ / "empty");
    EXPECT_EQ(100022, Upload("{}"));
    service_.reset();
  }).join();
  EXPECT_EQ(1U, receiver_->GetRequestCount());
}

TEST_F(TlsTest, OffersNoOtherProtocolInItsHello) {
  Poco::Net::ServerSocket listener(Poco::Net::SocketAddress("127.0.0.1", 0));
  StartService("");
  common::HttpRequestSettings settings;
  settings.retry_policy = std::make_unique<common::DefaultHttpRetryPolicy>(0, 0);
  const auto request = service_->Get("https://" + listener.address().toString() + "/", {}, {}, std::move(settings));
  Poco::Net::StreamSocket connection = listener.acceptConnection();
  std::string hello;
  const auto is_whole = [&] {  // a record's header tells its length
    return hello.size() >= 5 &&
           hello.size() >= 5U + static_cast<unsigned char>(hello[3]) * 256U + static_cast<unsigned char>(hello[4]);
  };
  while (!is_whole()) {
    char buffer[4096];
    const int count = connection.receiveBytes(buffer, sizeof(buffer));
    ASSERT_GT(count, 0);
    hello.append(buffer, static_cast<std::size_t>(count));
  }
  connection.close();
  request->GetResponse();
  EXPECT_EQ('\x16', hello[0]) << "a handshake";
  EXPECT_THAT(hello, Not(HasSubstr("http/1.1")));
  EXPECT_THAT(hello, Not(HasSubstr("\x02h2")));
}

TEST_F(TlsTest, ProvesItselfByAClientCertificate) {
  MakeClientCertificate();
  tools::ReceiverOptions options = Options();
  options.client_ca_file = folder_ / "client.pem";
  StartReceiver(options);
  EXPECT_EQ(common::HttpStatus::ClientError, Get(common::ClientAuthentication{folder_ / "client.p12", "opens-it"}))
      << "unsigned, but heard: " << log_.All();
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_INFORMATION,
                       "Added Client Certificate Details to URL: " + receiver_->GetUrl() + "/v1"));
  EXPECT_EQ(1U, receiver_->GetRequestCount());
  StartService(receiver_->GetCaFile());  // no connection is left over
  EXPECT_NE(common::HttpStatus::ClientError, Get(std::nullopt));
  EXPECT_EQ(1U, receiver_->GetRequestCount());
  EXPECT_FALSE(log_.Has("opens-it"));
}

TEST_F(TlsTest, SaysWhatIsWrongWithAClientCertificate) {
  StartReceiver(Options());
  const std::string url = receiver_->GetUrl() + "/v1";
  EXPECT_EQ(common::HttpStatus::NotStarted, Get(common::ClientAuthentication{folder_ / "missing.p12", ""}));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR,
                       "Client certificate file path: " + (folder_ / "missing.p12") + " does not exist for " + url));
  EXPECT_EQ(common::HttpStatus::NotStarted, Get(common::ClientAuthentication{folder_.Path(), ""}));
  EXPECT_TRUE(
      log_.Has(Poco::Message::PRIO_ERROR, "Client certificate file: " + folder_.Path() + " is invalid for " + url));
  EXPECT_EQ(2, log_.Count("Failed to add Client Certificates to HTTP request for " + url));
  EXPECT_EQ(0U, receiver_->GetRequestCount());
}

}  // namespace
}  // namespace zagent::e2e

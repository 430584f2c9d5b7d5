// What really goes over the wire, checked with other programs: openssl and xz on the command line.
#include <gtest/gtest.h>

#include "tests/e2e/upload/UploadFixture.h"
#include "tests/fakes/FakeHttpServer.h"
#include "tests/fakes/LineProcess.h"

namespace zagent::e2e {
namespace {

using common::HmacVersion;
using fakes::FakeHttpServer;

class WireTest : public UploadFixture {
 protected:
  // One upload as a server saw it that only listens.
  FakeHttpServer::Request Capture(HmacVersion version, const std::string& path, const std::string& text) {
    FakeHttpServer server({FakeHttpServer::Answer("200 OK", "Z-SRV: x\r\n")});
    StartService("");
    common::HttpUploader::Settings settings;
    settings.url = server.Url(path);
    settings.customer_id = kCustomer;
    settings.agent_id = kAgent;
    settings.connection_timeout = 10;
    settings.request_timeout = 10;
    EXPECT_EQ(0, common::HttpUploader(*service_, Keys(version), settings).Upload("application/json", BytesOf(text)));
    return server.Requests().at(0);
  }
  // What a line of shell says, in the test's folder.
  std::string Shell(const std::string& line) {
    fakes::LineProcess shell({"sh", "-c", "cd " + folder_.Path() + " && " + line});
    const std::string said = shell.AwaitLine("");
    EXPECT_EQ(0, shell.AwaitExit());
    return said;
  }
  std::string Secret(const std::string& version, const std::string& constant) {
    return Shell("printf %s 'HmacV" + version + ";" + kCustomer + ";" + kAgent + ";" + kActivation +
                 "' | openssl dgst -sha256 -hmac " + constant + " -r | cut -d ' ' -f 1");
  }
  std::string Signature(const std::string& secret, const std::string& message) {
    folder_.Write("message", message);
    return Shell("openssl dgst -sha256 -binary -hmac " + secret + " message | base64 -w0; echo");
  }
  static std::string SignatureOf(const FakeHttpServer::Request& request) {
    const std::string value = request.Header("X-OSTL-Authorization");
    return value.substr(value.rfind(':') + 1);
  }
};

TEST_F(WireTest, CarriesASignatureOfVersionOneThatOpensslFindsToo) {
  const auto request = Capture(HmacVersion::HmacV1, "/v1/fim?part=%2F", "a payload");
  const std::string secret = Secret("1", "c90933e69a3e9d72b271a7c9809b644765dbdaf28369fa7e");
  EXPECT_EQ(Signature(secret, "POST;" + request.body + ";application/json;" + request.Header("X-OSTL-Timestamp") + ";" +
                                  request.target),
            SignatureOf(request));
}

TEST_F(WireTest, CarriesASignatureOfVersionTwoThatOpensslFindsToo) {
  const auto request = Capture(HmacVersion::HmacV2, "//v1/../fim?a=b c&d", "a payload");
  EXPECT_EQ("//v1/../fim?a=b%20c&d", request.target);
  const std::string secret = Secret("2", "12f76251f53ba76746e0c6112777014cce0e7c876efa86cc");
  EXPECT_EQ(Signature(secret, "POST;" + request.Header("X-OSTL-Timestamp") + ";" + kAgent + ";" + request.target),
            SignatureOf(request));
}

TEST_F(WireTest, SignsTheAuthenticatedUrlOfAModule) {
  FakeHttpServer server(
      {FakeHttpServer::Answer("404 Not Found", "Z-SRV: x\r\n"), FakeHttpServer::Answer("200 OK", "Z-SRV: x\r\n")});
  StartService("");
  common::HttpUploader::Settings settings;
  settings.url = server.Url("/HostWarden/fim/events");
  settings.agent_id = kAgent;
  settings.connection_timeout = 10;
  settings.request_timeout = 10;
  settings.url_states = std::make_shared<common::ModuleUrlStateTable>(kAgent);
  common::HttpUploader uploader(*service_, Keys(HmacVersion::HmacV2), settings);
  EXPECT_EQ(100016, uploader.Upload("application/json", BytesOf("a payload")));
  EXPECT_EQ(0, uploader.Upload("application/json", BytesOf("a payload")));
  const auto requests = server.Requests();
  ASSERT_EQ(2U, requests.size());
  EXPECT_EQ("/Ostl/HostWarden/fim/events", requests[0].target);
  EXPECT_EQ("/HostWarden/fim/events", requests[1].target);
  const std::string secret = Secret("2", "12f76251f53ba76746e0c6112777014cce0e7c876efa86cc");
  for (const auto& request : requests) {
    EXPECT_EQ(Signature(secret, "POST;" + request.Header("X-OSTL-Timestamp") + ";" + kAgent + ";" + request.target),
              SignatureOf(request))
        << request.target;
  }
}

TEST_F(WireTest, CarriesABodyThatXzUnfolds) {
  std::string text;
  for (int i = 0; i < 20'000; ++i) text += "line " + std::to_string(i * 7919) + "\n";
  const auto request = Capture(HmacVersion::HmacV2, "/v1/fim", text);
  EXPECT_LT(request.body.size(), text.size());
  folder_.Write("body.lzma", request.body);
  EXPECT_EQ("unfolded", Shell("xz --format=lzma --decompress --stdout body.lzma >body && echo unfolded"));
  EXPECT_EQ(text, folder_.Read("body"));
}

}  // namespace
}  // namespace zagent::e2e

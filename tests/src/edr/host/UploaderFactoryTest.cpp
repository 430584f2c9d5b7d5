#include "src/edr/host/UploaderFactory.h"

#include <gtest/gtest.h>

#include "src/edr/host/SigningKeys.h"
#include "src/fim/Config.h"
#include "src/health/AHSSettings.h"
#include "tests/fakes/FakeHttpServer.h"
#include "tests/fakes/LogCapture.h"

namespace zagent::edr::host {
namespace {

class UploaderFactoryTest : public ::testing::Test {
 protected:
  static common::CommonConfig MakeConfig(const std::string& hmac_version,
                                         const std::string& service_url = "https://p") {
    rapidjson::Document json;
    common::util::ParseJson(json,
                            R"({"agent_id":"agent-1","agent_version":"4.2","ca_cert_path":"","connection_timeout":5,
      "customer_id":"customer-1","log_config_file":"","proxy_order":0,"request_timeout":20,"service_url":")" +
                                service_url +
                                R"(",
      "activation_id":"activation-1","environment_variables":{},"agent_effective_uid":0,"agent_effective_gid":0,
      "ipv4":"","ipv6":"","osname":"","platform":"","agent_install_path":"","sudo_command":"","use_sudo":false,
      "hmac_version":")" + hmac_version +
                                "\"}");
    return common::CommonConfig(json);
  }

  fakes::LogCapture log_;
  common::CommonConfig config_{MakeConfig("V1")};
  common::HttpService service_{""};
  UploaderFactory factory_{config_, service_, TakeSigningKeys(config_)};
};

TEST_F(UploaderFactoryTest, MakesUploadersWithTheIdentityOfTheConfiguration) {
  fakes::FakeHttpServer server({fakes::FakeHttpServer::Answer("200 OK")});
  service_.Start();
  const auto uploader = factory_.Make(server.Url("/ioc"), "IOC");
  EXPECT_EQ(server.Url("/ioc"), uploader->GetTarget());
  EXPECT_EQ(0, uploader->Upload("application/json", {'{', '}'}));
  const auto sent = server.Requests().at(0);
  EXPECT_EQ("customer-1", sent.Header("Z-CUSTID"));
  EXPECT_EQ("agent-1", sent.Header("Z-CLNTID"));
  EXPECT_EQ("4.2", sent.Header("Z-AGENTVER"));
  EXPECT_EQ(0U, sent.Header("X-OSTL-Authorization").find("ZHmacV1Auth agent-1:"));
}

TEST_F(UploaderFactoryTest, WarnsOnceThatPlainHttpIsNotPrivate) {
  (void)factory_.Make("https://platform.example/fim", "FIM");
  EXPECT_FALSE(log_.Has("without TLS"));
  (void)factory_.Make("HTTP://platform.example/ioc", "IOC");
  (void)factory_.Make("http://platform.example/health", "health status");
  EXPECT_EQ(1, log_.Count("without TLS"));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_WARNING,
                       "Uploads of IOC go to HTTP://platform.example/ioc without TLS: nothing is private, and under V2 "
                       "the body is not signed"));
}

TEST_F(UploaderFactoryTest, SharesOneSetOfAlarms) {
  fakes::FakeHttpServer server(
      {fakes::FakeHttpServer::Answer("401 Unauthorized", "Date: Wed, 01 May 2019 10:15:29 GMT\r\n")});
  service_.Start();
  for (const char* type : {"FIM", "IOC"}) {
    EXPECT_EQ(100021, factory_.Make(server.Url(), type)->Upload("application/json", {'{', '}'}));
  }
  EXPECT_EQ(1, log_.Count("HttpUploader: The clock of this host is "));
}

// The URLs that the components make of a configuration, on a platform with the base of the authenticated ones.
TEST_F(UploaderFactoryTest, TriesTheAuthenticatedUrlsOfTheComponents) {
  fakes::FakeHttpServer server({fakes::FakeHttpServer::Answer("200 OK")});
  service_.Start();
  const common::CommonConfig config = MakeConfig("V1", server.Url("/HostWarden"));
  rapidjson::Document section;
  common::util::ParseJson(section, R"({"upload_interval":1,"service_url":"/v1/fim/events","max_file_size_kb":1,
      "max_file_age_sec":1,"max_disk_size_mb":1,"manifests":[],"event_file_path":"x","event_file_name":"fim"})");
  for (const std::string& target :
       {health::AHSSettings(config).GetUploadUrl(), fim::Config(config, section).GetUploadUrl()}) {
    EXPECT_EQ(0, factory_.Make(target, "some type")->Upload("application/json", {'{', '}'}));
  }
  const auto requests = server.Requests();
  EXPECT_EQ("/Ostl/HostWarden/v1/customer/customer-1/agent/agent-1/status", requests.at(0).target);
  EXPECT_EQ("/Ostl/HostWarden/v1/fim/events", requests.at(1).target);
}

TEST_F(UploaderFactoryTest, SharesWhatThePlatformHasNoAuthenticatedUrlFor) {
  fakes::FakeHttpServer server(
      {fakes::FakeHttpServer::Answer("404 Not Found"), fakes::FakeHttpServer::Answer("200 OK")});
  service_.Start();
  const std::string path = "/HostWarden/v1/customer/customer-1/agent/agent-1/status";
  EXPECT_EQ(100016, factory_.Make(server.Url(path), "health status")->Upload("application/json", {'{', '}'}));
  EXPECT_EQ(0, factory_.Make(server.Url(path), "health status")->Upload("application/json", {'{', '}'}));
  const auto requests = server.Requests();
  ASSERT_EQ(2U, requests.size());
  EXPECT_EQ("/Ostl" + path, requests[0].target);
  EXPECT_EQ(path, requests[1].target);
}

TEST(SigningKeysTest, ReplacesAVersionThatThisProcessDoesNotSupport) {
  const fakes::LogCapture log;
  const auto version_of = [](const std::string& version, bool fedramp) {
    rapidjson::Document json;
    common::util::ParseJson(
        json, R"({"agent_id":"a","agent_version":"","ca_cert_path":"","connection_timeout":5,"customer_id":"c",
      "log_config_file":"","proxy_order":0,"request_timeout":20,"service_url":"","activation_id":"x",
      "environment_variables":{},"agent_effective_uid":0,"agent_effective_gid":0,"ipv4":"","ipv6":"","osname":"",
      "platform":"","agent_install_path":"","sudo_command":"","use_sudo":false,"hmac_version":")" +
                  version + R"(","fedramp":)" + (fedramp ? "true" : "false") + "}");
    common::CommonConfig config(json);
    return TakeSigningKeys(config)->GetVersion();
  };
  EXPECT_EQ(common::HmacVersion::HmacV1, version_of("HmacV1", false));
  EXPECT_EQ(common::HmacVersion::HmacV2, version_of("V2", true));
  EXPECT_FALSE(log.Has("EDR subprocess only supports"));
  EXPECT_EQ(common::HmacVersion::HmacV2, version_of("V3", false));
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_WARNING, "EDR subprocess only supports HmacV1/V2 - using HmacV2"));
  EXPECT_EQ(common::HmacVersion::HmacV1, version_of("unheard of", true));
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_WARNING, "EDR subprocess only supports HmacV1/V2 - using HmacV1"));
}

}  // namespace
}  // namespace zagent::edr::host

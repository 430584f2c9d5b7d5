#include "common/src/config/CommonConfig.h"

#include <gtest/gtest.h>

#include <vector>

#include "tests/fakes/LogCapture.h"

namespace zagent::common {
namespace {

constexpr const char* kComplete = R"({
  "agent_id": "a-1", "agent_version": "5.2", "ca_cert_path": "/etc/ca.pem", "connection_timeout": 10,
  "customer_id": "c-1", "log_config_file": "/etc/log.properties", "proxy_order": 0, "request_timeout": 60,
  "service_url": "https://platform", "activation_id": "x-1", "environment_variables": {"https_proxy": "http://p:1"},
  "agent_effective_uid": 0, "agent_effective_gid": 7, "ipv4": "10.0.0.1", "ipv6": "::1", "osname": "Debian",
  "platform": "LINUX", "agent_install_path": "/opt/agent", "sudo_command": "sudo", "use_sudo": false})";

class CommonConfigTest : public testing::Test {
 protected:
  CommonConfigTest() { util::ParseJson(json_, kComplete); }

  void Set(const char* key, rapidjson::Value value) {
    json_.RemoveMember(key);
    json_.AddMember(rapidjson::Value(key, json_.GetAllocator()), value, json_.GetAllocator());
  }
  void ExpectInvalid() {
    try {
      const CommonConfig config(json_);
      ADD_FAILURE() << "accepted " << util::WriteJson(json_);
    } catch (const std::invalid_argument& error) {
      EXPECT_STREQ(error.what(), "CommonConfig: Invalid json");
    }
  }

  rapidjson::Document json_;
};

TEST_F(CommonConfigTest, ReadsEveryMandatoryKey) {
  const CommonConfig config(json_);
  EXPECT_EQ(config.GetAgentId(), "a-1");
  EXPECT_EQ(config.GetAgentVersion(), "5.2");
  EXPECT_EQ(config.GetCaCertPath(), "/etc/ca.pem");
  EXPECT_EQ(config.GetConnectionTimeout(), 10U);
  EXPECT_EQ(config.GetCustomerId(), "c-1");
  EXPECT_EQ(config.GetLogConfigFile(), "/etc/log.properties");
  EXPECT_EQ(config.GetProxyOrder(), 0U);
  EXPECT_EQ(config.GetRequestTimeout(), 60U);
  EXPECT_EQ(config.GetServiceUrl(), "https://platform");
  EXPECT_EQ(config.GetActivationId(), "x-1");
  EXPECT_EQ(config.GetAgentEffectiveUid(), 0U);
  EXPECT_EQ(config.GetAgentEffectiveGid(), 7U);
  EXPECT_EQ(config.GetIpv4(), "10.0.0.1");
  EXPECT_EQ(config.GetIpv6(), "::1");
  EXPECT_EQ(config.GetOsName(), "Debian");
  EXPECT_EQ(config.GetPlatform(), "LINUX");
  EXPECT_EQ(config.GetAgentInstallPath(), "/opt/agent");
  EXPECT_EQ(config.GetSudoCommand(), "sudo");
  EXPECT_FALSE(config.UseSudo());
}

TEST_F(CommonConfigTest, FillsInTheDefaultsOfTheOptionalKeys) {
  const CommonConfig config(json_);
  EXPECT_EQ(config.GetBlackoutEvents(), "[]");
  EXPECT_FALSE(config.IsProxyFailOpen());
  EXPECT_FALSE(config.IsFedramp());
  EXPECT_EQ(config.GetCApiVersion(), "1.6");
  EXPECT_EQ(config.GetHmacVersion(), "V2");
  EXPECT_FALSE(config.IsCgroupEnabled());
}

TEST_F(CommonConfigTest, RefusesADocumentThatLacksAnyMandatoryKey) {
  std::vector<std::string> keys;
  for (const auto& member : json_.GetObject()) keys.push_back(util::ToString(member.name));
  ASSERT_EQ(keys.size(), 20U);
  for (const std::string& key : keys) {
    util::ParseJson(json_, kComplete);
    json_.RemoveMember(key.c_str());
    SCOPED_TRACE(key);
    ExpectInvalid();
  }
}

TEST_F(CommonConfigTest, RefusesAnyMandatoryKeyOfTheWrongType) {
  std::vector<std::string> keys;
  for (const auto& member : json_.GetObject()) keys.push_back(util::ToString(member.name));
  for (const std::string& key : keys) {
    util::ParseJson(json_, kComplete);
    Set(key.c_str(), rapidjson::Value(rapidjson::kNullType));
    SCOPED_TRACE(key);
    ExpectInvalid();
  }
}

TEST_F(CommonConfigTest, RefusesWhatIsNoObject) {
  util::ParseJson(json_, "[]");
  ExpectInvalid();
}

TEST_F(CommonConfigTest, RefusesANegativeOrTooLargeUnsigned) {
  Set("request_timeout", rapidjson::Value(-1));
  ExpectInvalid();
  util::ParseJson(json_, kComplete);
  Set("request_timeout", rapidjson::Value(std::int64_t{4294967296}));
  ExpectInvalid();
}

TEST_F(CommonConfigTest, RefusesAServiceUrlOfAForeignScheme) {
  Set("service_url", rapidjson::Value("ftp://platform"));
  ExpectInvalid();
  Set("service_url", rapidjson::Value("http://platform"));
  EXPECT_EQ(CommonConfig(json_).GetServiceUrl(), "http://platform");
}

TEST_F(CommonConfigTest, ForgetsTheActivationIdWhenToldTo) {
  CommonConfig config(json_);
  config.ForgetActivationId();
  EXPECT_EQ(config.GetActivationId(), "");
}

TEST_F(CommonConfigTest, RefusesUseSudoThatIsNoBoolean) {
  Set("use_sudo", rapidjson::Value(1));
  ExpectInvalid();
}

TEST_F(CommonConfigTest, UseSudoIsTrueForTheJsonValueTrue) {
  Set("use_sudo", rapidjson::Value(true));
  EXPECT_TRUE(CommonConfig(json_).UseSudo());
}

TEST_F(CommonConfigTest, AcceptsAnUnsupportedHmacVersionHere) {
  Set("hmac_version", rapidjson::Value("V3"));
  EXPECT_EQ(CommonConfig(json_).GetHmacVersion(), "V3");
}

TEST_F(CommonConfigTest, AcceptsNoEnvironmentVariablesAtAll) {
  Set("environment_variables", rapidjson::Value(rapidjson::kObjectType));
  EXPECT_TRUE(CommonConfig(json_).GetEnvironmentVariables().empty());
}

TEST_F(CommonConfigTest, AnswersForEnvironmentVariablesByName) {
  const CommonConfig config(json_);
  EXPECT_TRUE(config.HasEnvironmentVariable("https_proxy"));
  EXPECT_FALSE(config.HasEnvironmentVariable("http_proxy"));
  EXPECT_EQ(config.GetEnvironmentVariable("https_proxy"), "http://p:1");
  try {
    (void)config.GetEnvironmentVariable("http_proxy");
    ADD_FAILURE();
  } catch (const std::invalid_argument& error) {
    EXPECT_STREQ(error.what(), "Environment variable (http_proxy) not set.");
  }
}

struct OptionalKey {
  const char* key;
  const char* line;
};

class CommonConfigOptionalKeyTest : public CommonConfigTest, public testing::WithParamInterface<OptionalKey> {};

TEST_P(CommonConfigOptionalKeyTest, OfTheWrongTypeLogsItsLineAndFailsTheWholeSection) {
  const fakes::LogCapture log;
  Set(GetParam().key, rapidjson::Value(5));
  ExpectInvalid();
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_ERROR, GetParam().line)) << log.All();
}

INSTANTIATE_TEST_SUITE_P(
    All, CommonConfigOptionalKeyTest,
    testing::Values(OptionalKey{"Blackout_Events", "Invalid Blackout_Events key, it should be array"},
                    OptionalKey{"proxy_fail_open", "Invalid proxy_fail_open key, it should be boolean"},
                    OptionalKey{"fedramp", "Invalid fedramp key, it should be boolean"},
                    OptionalKey{"capi_version", "Invalid capi_version key, it should be string"},
                    OptionalKey{"hmac_version", "Invalid hamc_version key, it should be string"},
                    OptionalKey{"enable_cgroup", "Invalid enable_cgroup key, it should be boolean"}),
    [](const auto& param) { return std::string(param.param.key); });

}  // namespace
}  // namespace zagent::common

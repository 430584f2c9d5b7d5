#include "src/edr/host/ProxyEnvironment.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "tests/fakes/LogCapture.h"

namespace zagent::edr::host {
namespace {

constexpr const char* kVariables[] = {
    "ostrel_https_tls_proxy", "ostrel_https_proxy", "https_proxy", "http_proxy", "no_proxy", "LD_PRELOAD"};

class ProxyEnvironmentTest : public ::testing::Test {
 protected:
  ProxyEnvironmentTest() { Unset(); }
  ~ProxyEnvironmentTest() override { Unset(); }

  static void Unset() {
    for (const char* name : kVariables) unsetenv(name);  // NOLINT(concurrency-mt-unsafe)
  }

  static std::string ValueOf(const char* name) {
    const char* const value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe)
    return value != nullptr ? value : "not set";
  }

  // `variables`: members of a JSON object.
  static void SetFrom(const std::string& variables) {
    rapidjson::Document json;
    common::util::ParseJson(json,
                            R"({"agent_id":"a","agent_version":"1","ca_cert_path":"","connection_timeout":5,
      "customer_id":"c","log_config_file":"","proxy_order":0,"request_timeout":20,"service_url":"https://p",
      "activation_id":"x","environment_variables":{)" +
                                variables +
                                R"(},"agent_effective_uid":0,"agent_effective_gid":0,"ipv4":"","ipv6":"","osname":"",
      "platform":"","agent_install_path":"","sudo_command":"","use_sudo":false})");
    SetProxyEnvironment(common::CommonConfig(json));
  }

  fakes::LogCapture log_;
};

TEST_F(ProxyEnvironmentTest, SetsTheFourProxyVariablesAndNoOther) {
  SetFrom(R"("ostrel_https_tls_proxy":"a:1","ostrel_https_proxy":"b:2","https_proxy":"c:3","http_proxy":"d:4",
             "no_proxy":"*","LD_PRELOAD":"/tmp/x.so")");
  EXPECT_EQ(ValueOf("ostrel_https_tls_proxy"), "a:1");
  EXPECT_EQ(ValueOf("ostrel_https_proxy"), "b:2");
  EXPECT_EQ(ValueOf("https_proxy"), "c:3");
  EXPECT_EQ(ValueOf("http_proxy"), "d:4");
  EXPECT_EQ(ValueOf("no_proxy"), "not set");
  EXPECT_EQ(ValueOf("LD_PRELOAD"), "not set");
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_INFORMATION, "]: Setting the proxy environment variables")) << log_.All();
}

TEST_F(ProxyEnvironmentTest, ReplacesWhatTheProcessWasStartedWithAndLeavesTheRestAlone) {
  setenv("https_proxy", "old:1", 1);  // NOLINT(concurrency-mt-unsafe)
  setenv("http_proxy", "old:2", 1);   // NOLINT(concurrency-mt-unsafe)
  SetFrom(R"("https_proxy":"new:1")");
  EXPECT_EQ(ValueOf("https_proxy"), "new:1");
  EXPECT_EQ(ValueOf("http_proxy"), "old:2");
  EXPECT_EQ(ValueOf("ostrel_https_proxy"), "not set");
}

}  // namespace
}  // namespace zagent::edr::host

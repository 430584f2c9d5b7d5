// What stays of the secrets in the process's memory once uploads are signed.
#include <gtest/gtest.h>

#include "src/edr/host/ConfigDocument.h"
#include "src/edr/host/SigningKeys.h"
#include "src/edr/host/UploaderFactory.h"
#include "tests/fakes/FakeHttpServer.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/MaskedSecret.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::edr::host {
namespace {

using fakes::MaskedSecret;

class SecretsTest : public ::testing::Test {
 protected:
  // A configuration file with the activation id in it.
  std::string WriteConfig(const MaskedSecret& activation_id, const std::string& hmac_version) const {
    std::string text;
    text.reserve(4096);
    text +=
        R"({"common_config":{"agent_id":"0b9d8e7f-aaaa-4bbb-8ccc-ddddeeeeffff","agent_version":"1","ca_cert_path":"",
      "connection_timeout":5,"customer_id":"7a3c1f0e-1111-4222-8333-444455556666","log_config_file":"","proxy_order":0,
      "request_timeout":20,"service_url":"https://p","environment_variables":{},"agent_effective_uid":0,
      "agent_effective_gid":0,"ipv4":"","ipv6":"","osname":"","platform":"","agent_install_path":"","sudo_command":"",
      "use_sudo":false,"hmac_version":")";
    text += hmac_version + R"(","activation_id":")";
    activation_id.AppendTo(text);
    text += "\"}}";
    const std::string path = folder_ / "config.json";
    const common::util::UniqueFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    EXPECT_EQ(static_cast<ssize_t>(text.size()), write(fd.Get(), text.data(), text.size()));
    common::util::Cleanse(text);
    return path;
  }

  const fakes::TempFolder folder_;
};

TEST_F(SecretsTest, AreFoundByThisTestWhereTheyAre) {
  const MaskedSecret secret = MaskedSecret::Make(36);
  EXPECT_EQ(0U, secret.CountInMemory());
  std::string text;
  text.reserve(100);
  secret.AppendTo(text);
  EXPECT_EQ(1U, secret.CountInMemory());
  common::util::Cleanse(text);
  EXPECT_EQ(0U, secret.CountInMemory());
}

TEST_F(SecretsTest, AreNowhereInMemoryAfterTwoSignedUploads) {
  for (const std::string version : {"V1", "V2"}) {
    fakes::FakeHttpServer server({fakes::FakeHttpServer::Answer("200 OK")});
    const MaskedSecret activation_id = MaskedSecret::Make(36);
    const std::string path = WriteConfig(activation_id, version);
    const fakes::LogCapture log;
    std::unique_ptr<common::CommonConfig> config;
    {
      const ConfigDocument document = ConfigDocument::Read(path);
      config = std::make_unique<common::CommonConfig>(document.GetSection("common_config"));
    }
    const auto keys = TakeSigningKeys(*config);
    EXPECT_EQ("", config->GetActivationId());
    common::HttpService service("");
    service.Start();
    const auto uploader = UploaderFactory(*config, service, keys).Make(server.Url("/fim"), "FIM");
    for (int i = 0; i < 2; ++i) EXPECT_EQ(0, uploader->Upload("application/json", {'{', '}'}));
    EXPECT_NE("(absent)", server.Requests().at(1).Header("X-OSTL-Authorization"));
    // A later command of the agent reads the file again.
    EXPECT_TRUE(ConfigDocument::Read(path).HasSection("common_config"));

    EXPECT_EQ(0U, activation_id.CountInMemory()) << version;
    for (const char* name : {"HmacV1", "HmacV2"}) {
      std::string secret = keys->GetKeyStore().Get(name);
      EXPECT_EQ(0U, MaskedSecret::Take(secret).CountInMemory()) << name << " under " << version;
    }
  }
}

}  // namespace
}  // namespace zagent::edr::host

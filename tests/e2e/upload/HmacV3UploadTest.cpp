// Version 3 of the signature between the daemon's client and the reference receiver.
#include <gtest/gtest.h>

#include "common/src/http/HttpInterceptorBuilder.h"
#include "common/src/util/Json.h"
#include "tests/e2e/upload/UploadFixture.h"
#include "tests/fakes/TestKeys.h"

namespace zagent::e2e {
namespace {

using common::AuthTag;

class HmacV3UploadTest : public UploadFixture {
 protected:
  static constexpr const char* kSecret = "shared by both";

  void StartWith(const std::string& platform_secret) {
    auto options = Options();
    options.hmac_v3_file = folder_.Write("v3.json", Document({{"HmacV3", platform_secret},
                                                              {"AgentRsaPubKey", agent_.public_pem},
                                                              {"PlatformRsaPvtKey", platform_.private_pem},
                                                              {"PlatformKeyID", "platform-1"}}));
    StartReceiver(std::move(options));
  }
  // The agent's side, from a document as the platform would hand it out.
  [[nodiscard]] std::shared_ptr<const common::HmacConfig> Config() const {
    const std::string keys = Document({{"HmacV3", kSecret},
                                       {"AgentRsaPubKey", agent_.public_pem},
                                       {"AgentRsaPvtKey", agent_.private_pem},
                                       {"PlatformPubKey", platform_.public_pem},
                                       {"PlatformKeyID", "platform-1"}});
    return std::make_shared<common::HmacConfig>(
        common::HmacConfig::FromJson(R"({"hmacVersion":"V3","keys":)" + keys + "}"));
  }
  std::shared_ptr<common::HttpRequest> Post(AuthTag tag, AuthTag answer_tag, const std::string& text) {
    common::HttpInterceptorBuilder chain;
    chain.AddLzma().AddAuth(Config(), tag, answer_tag);
    auto request = service_->Post(receiver_->GetUrl() + "/v1/fim?part=%2F", {}, BytesOf(text), chain.Build(), {});
    request->GetResponse();
    return request;
  }

  static std::string Document(const std::vector<std::pair<std::string, std::string>>& members) {
    rapidjson::Document json(rapidjson::kObjectType);
    for (const auto& [name, value] : members) {
      json.AddMember(rapidjson::Value(name, json.GetAllocator()), rapidjson::Value(value, json.GetAllocator()),
                     json.GetAllocator());
    }
    return common::util::WriteJson(json);
  }

  const fakes::RsaPair agent_ = fakes::MakeRsaPair();
  const fakes::RsaPair platform_ = fakes::MakeRsaPair();
};

TEST_F(HmacV3UploadTest, IsAcceptedWithEveryTagAndChecksTheAnswer) {
  StartWith(kSecret);
  for (const AuthTag tag : {AuthTag::Tag1, AuthTag::Tag2, AuthTag::Tag4}) {
    for (const AuthTag answer : {AuthTag::None, AuthTag::Tag1}) {
      const auto request = Post(tag, answer, "payload");
      EXPECT_EQ(200, request->GetResponse().GetHttpCode()) << ToString(tag);
      EXPECT_EQ(common::HttpRequest::State::Completed, request->GetState()) << log_.All();
    }
  }
  EXPECT_EQ(6U, receiver_->GetPayloads().size());
  EXPECT_EQ(3, log_.Count("AuthHttpInterceptor: response processing successful for url: "));
}

TEST_F(HmacV3UploadTest, IsRefusedWithAnotherSecret) {
  StartWith("somebody else's");
  EXPECT_EQ(401, Post(AuthTag::Tag4, AuthTag::None, "payload")->GetResponse().GetHttpCode());
  EXPECT_EQ(401, Post(AuthTag::Tag2, AuthTag::None, "payload")->GetResponse().GetHttpCode());
  EXPECT_EQ("rejected: signature does not match", Lines().back());
  EXPECT_EQ(200, Post(AuthTag::Tag1, AuthTag::None, "payload")->GetResponse().GetHttpCode())
      << "the first tag needs none";
}

TEST_F(HmacV3UploadTest, IsRefusedByAPlatformThatDoesNotSpeakIt) {
  StartReceiver(Options());
  EXPECT_EQ(401, Post(AuthTag::Tag4, AuthTag::None, "payload")->GetResponse().GetHttpCode());
  EXPECT_EQ("rejected: malformed authorization", Lines().back());
}

TEST_F(HmacV3UploadTest, BelievesNoAnswerThatIsNotSigned) {
  StartReceiver(Options());
  common::HttpInterceptorBuilder chain;
  // Signed under version 2 by a helper in the middle, so that the platform accepts it and signs nothing.
  chain.AddAuth(Config(), AuthTag::Tag4, AuthTag::Tag1)
      .AddAuth(Keys(common::HmacVersion::HmacV2), AuthTag::Tag4, AuthTag::None);
  const auto request = service_->Post(receiver_->GetUrl() + "/v1/fim", {}, BytesOf("x"), chain.Build(), {});
  EXPECT_EQ(200, request->GetResponse().GetHttpCode());
  EXPECT_EQ(common::HttpRequest::State::Failed, request->GetState());
  EXPECT_TRUE(log_.Has("Failed to process HMAC V3 response, error code: 6"));
}

}  // namespace
}  // namespace zagent::e2e

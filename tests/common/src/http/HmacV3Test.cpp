// Version 3 of the signature, against a platform that is written here from docs/PROTOCOL.md.
#include "common/src/http/interceptors/HmacV3.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "common/src/http/InMemoryHttpResponse.h"
#include "common/src/http/interceptors/AuthHttpInterceptor.h"
#include "common/src/util/Base64.h"
#include "common/src/util/Digest.h"
#include "common/src/util/Hmac.h"
#include "common/src/util/RsaKey.h"
#include "tests/fakes/FakeClock.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TestKeys.h"

namespace zagent::common {
namespace {

using util::Base64Decode;
using util::Base64Encode;
using util::HmacSha256;

constexpr const char* kUrl = "https://platform.example/v1/fim?part=2";
constexpr const char* kSecret = "a secret that both sides share";

std::vector<std::string> Split(const std::string& text, char separator) {
  std::vector<std::string> parts(1);
  for (const char c : text) {
    if (c == separator) {
      parts.emplace_back();
    } else {
      parts.back() += c;
    }
  }
  return parts;
}

class HmacV3Test : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    agent_ = fakes::MakeRsaPair();
    platform_ = fakes::MakeRsaPair();
  }

  // The keys of an agent, but for those that a test leaves out.
  static std::shared_ptr<const HmacConfig> Config(const std::vector<std::string>& missing = {},
                                                  const std::map<std::string, std::string>& other = {}) {
    auto keys = std::make_unique<util::KeyStore>();
    keys->Add("HmacV3", kSecret);
    keys->Add("PlatformPubKey", platform_.public_pem);
    keys->Add("PlatformKeyID", "platform-7");
    keys->Add("AgentRsaPubKey", agent_.public_pem);
    keys->Add("AgentRsaPvtKey", agent_.private_pem);
    for (const auto& [name, value] : other) keys->Add(name, value);
    for (const std::string& name : missing) keys->Remove(name);
    return std::make_shared<HmacConfig>(std::move(keys), false, HmacVersion::HmacV3);
  }

  AuthHttpInterceptor Interceptor(AuthTag tag, AuthTag response_tag = AuthTag::None,
                                  const std::shared_ptr<const HmacConfig>& config = Config()) {
    return {config, tag, response_tag, clock_, HmacRequestAction::RotateSecret};
  }
  // The parts of the value that the request carries.
  std::vector<std::string> Sign(AuthHttpInterceptor& interceptor, const std::string& method = "POST",
                                const std::string& payload = "payload") {
    std::string url = kUrl;
    std::vector<unsigned char> bytes(payload.begin(), payload.end());
    headers_.clear();
    interceptor.ProcessRequest(url, bytes, headers_, method);
    const std::string value = headers_["X-OSTL-Authorization"];
    EXPECT_TRUE(value.starts_with("ZAuthV3 ")) << value;
    return Split(value.substr(8), '#');
  }
  // The key that signs, as the platform finds it.
  static std::string SigningKey(const std::vector<std::string>& parts) {
    if (parts[0] == "4") return kSecret;
    const std::string fresh = util::RsaKey::FromPrivatePem(platform_.private_pem).Open(Base64Decode(parts[6]));
    return parts[0] == "1" ? fresh : HmacSha256(kSecret, fresh);
  }
  static std::string ExpectedSignature(const std::vector<std::string>& parts, const std::string& method_number,
                                       const std::string& payload) {
    std::string message = "HmacV3;request";
    for (std::size_t i = 0; i < 7; ++i) message += ";" + parts[i];
    message += ";" + method_number + ";2024-05-01T10:20:30Z;" + util::Sha256Hex(payload) + ";/v1/fim?part=2";
    return Base64Encode(HmacSha256(SigningKey(parts), message));
  }
  // A signed answer to the request with these parts.
  static HttpHeaders Answer(const std::vector<std::string>& parts, const std::string& payload,
                            const std::string& agent_pem = agent_.public_pem) {
    const std::string fresh(32, 'r');
    const std::string sealed = Base64Encode(util::RsaKey::FromPublicPem(agent_pem).Seal(fresh));
    const std::string message =
        "HmacV3;response;1;platform-7;2024-05-01T10:20:31Z;" + parts[5] + ";" + sealed + ";" + util::Sha256Hex(payload);
    const std::string signature = Base64Encode(HmacSha256(HmacSha256(SigningKey(parts), fresh), message));
    return {{"X-OSTL-Authorization", "ZAuthV3 1#platform-7#" + sealed + "#" + signature},
            {"X-OSTL-Timestamp", "2024-05-01T10:20:31Z"}};
  }
  static std::string Check(AuthHttpInterceptor& interceptor, const HttpHeaders& headers, const std::string& payload) {
    InMemoryHttpResponse response;
    response.UpdatePayload({payload.begin(), payload.end()});
    for (const auto& [name, value] : headers) response.AddHeader(name, value);
    return ErrorOf([&] { interceptor.ProcessResponse(kUrl, response); });
  }

  template <typename Call>
  static std::string ErrorOf(Call&& call) {
    try {
      call();
    } catch (const HttpInterceptorException& error) {
      return error.what();
    }
    return "no error";
  }

  static inline fakes::RsaPair agent_;
  static inline fakes::RsaPair platform_;
  fakes::LogCapture log_;
  fakes::FakeClock clock_{util::Clock::SystemTime(std::chrono::seconds(1'714'558'830))};  // 2024-05-01T10:20:30Z
  HttpHeaders headers_;
};

TEST_F(HmacV3Test, SignsSoThatThePlatformCanVerify) {
  for (const AuthTag tag : {AuthTag::Tag1, AuthTag::Tag2, AuthTag::Tag4}) {
    auto interceptor = Interceptor(tag);
    const auto parts = Sign(interceptor);
    ASSERT_EQ(8U, parts.size());
    EXPECT_EQ(std::to_string(static_cast<int>(tag)), parts[0]);
    EXPECT_EQ("0", parts[1]);
    EXPECT_EQ("RotateSecret", parts[2]);
    EXPECT_EQ(util::RsaKey::FromPublicPem(agent_.public_pem).Fingerprint(), parts[3]);
    EXPECT_EQ("platform-7", parts[4]);
    EXPECT_EQ(16U, Base64Decode(parts[5]).size());
    EXPECT_EQ(tag == AuthTag::Tag4, parts[6] == "-") << "only tag 4 carries no fresh key";
    EXPECT_EQ(ExpectedSignature(parts, "1", "payload"), parts[7]);
    EXPECT_EQ("2024-05-01T10:20:30Z", headers_["X-OSTL-Timestamp"]);
    EXPECT_TRUE(log_.Has("AuthHttpInterceptor: updated request with url: " + std::string(kUrl) +
                         " for auth-tag: " + ToString(tag)));
  }
}

TEST_F(HmacV3Test, SignsMethodAndPayload) {
  auto interceptor = Interceptor(AuthTag::Tag4);
  auto parts = Sign(interceptor, "GET", "");
  EXPECT_EQ(ExpectedSignature(parts, "0", ""), parts[7]);
  parts = Sign(interceptor, "PUT", "other");
  EXPECT_EQ(ExpectedSignature(parts, "2", "other"), parts[7]);
  EXPECT_NE(ExpectedSignature(parts, "2", "Other"), parts[7]);
}

TEST_F(HmacV3Test, NeverSignsTheSameTwice) {
  auto interceptor = Interceptor(AuthTag::Tag2);
  const auto first = Sign(interceptor);
  const auto second = Sign(interceptor);
  EXPECT_NE(first[5], second[5]);
  EXPECT_NE(first[6], second[6]);
  EXPECT_NE(first[7], second[7]);
}

TEST_F(HmacV3Test, NeedsNoSecretForTheFirstTag) {
  auto interceptor = Interceptor(AuthTag::Tag1, AuthTag::None, Config({"HmacV3", "AgentRsaPvtKey"}));
  const auto parts = Sign(interceptor);
  EXPECT_EQ(ExpectedSignature(parts, "1", "payload"), parts[7]);
}

TEST_F(HmacV3Test, NamesAMissingKey) {
  for (const char* name : {"HmacV3", "PlatformPubKey", "PlatformKeyID", "AgentRsaPubKey"}) {
    auto interceptor = Interceptor(AuthTag::Tag2, AuthTag::None, Config({name}));
    EXPECT_EQ(std::string("Failed to set auth headers, error: Failed to fetch hmac key: ") + name,
              ErrorOf([&] { Sign(interceptor); }));
    EXPECT_TRUE(headers_.empty()) << "a request must not leave half signed";
  }
}

TEST_F(HmacV3Test, TellsByACodeWhatCannotBeUsed) {
  const auto error_with = [&](const std::map<std::string, std::string>& other) {
    auto interceptor = Interceptor(AuthTag::Tag2, AuthTag::None, Config({}, other));
    return ErrorOf([&] { Sign(interceptor); });
  };
  EXPECT_EQ("Failed to prepare HMAC V3 request, error code: 1", error_with({{"PlatformPubKey", "no key"}}));
  EXPECT_EQ("Failed to prepare HMAC V3 request, error code: 1", error_with({{"AgentRsaPubKey", "no key"}}));
  for (const char* id : {"", "a#b", "a;b", "a b", "a\nb"}) {
    EXPECT_EQ("Failed to prepare HMAC V3 request, error code: 2", error_with({{"PlatformKeyID", id}})) << id;
  }
}

TEST_F(HmacV3Test, RefusesOtherMethodsAndTags) {
  const HmacKeySource none = [](const char*) -> std::string { throw util::KeyStoreException("not asked"); };
  HmacV3RequestContext context(AuthTag::Tag4, AuthTag::None, HmacRequestAction::None);
  EXPECT_EQ("Unsupported HTTP method: DELETE", ErrorOf([&] {
              context.Prepare({"DELETE", "/", "", "2024-05-01T10:20:30Z"}, none);
            }));
  HmacV3RequestContext third(AuthTag::Tag3, AuthTag::None, HmacRequestAction::None);
  EXPECT_EQ("Unsupported AuthTag: 3", ErrorOf([&] { third.Prepare({"GET", "/", "", "2024-05-01T10:20:30Z"}, none); }));
}

TEST_F(HmacV3Test, AcceptsTheAnswerToItsRequest) {
  for (const AuthTag tag : {AuthTag::Tag1, AuthTag::Tag2, AuthTag::Tag4}) {
    auto interceptor = Interceptor(tag, AuthTag::Tag1);
    const auto parts = Sign(interceptor);
    EXPECT_EQ("1", parts[1]) << "the platform learns that it is to sign";
    EXPECT_EQ("no error", Check(interceptor, Answer(parts, "answer"), "answer"));
  }
  EXPECT_EQ(3, log_.Count("AuthHttpInterceptor: response processing successful for url: " + std::string(kUrl) +
                          " with tag: ZAuthV3Tag-1"));
}

TEST_F(HmacV3Test, RefusesAnAnswerThatIsNotToThisRequest) {
  auto interceptor = Interceptor(AuthTag::Tag4, AuthTag::Tag1);
  const auto first = Sign(interceptor);
  const auto second = Sign(interceptor);
  EXPECT_EQ("Failed to process HMAC V3 response, error code: 10",
            Check(interceptor, Answer(first, "answer"), "answer"));
  EXPECT_EQ("Failed to process HMAC V3 response, error code: 10",
            Check(interceptor, Answer(second, "answer"), "Answer"));
  HttpHeaders later = Answer(second, "answer");
  later["X-OSTL-Timestamp"] = "2024-05-01T10:20:32Z";
  EXPECT_EQ("Failed to process HMAC V3 response, error code: 10", Check(interceptor, later, "answer"));
}

TEST_F(HmacV3Test, RefusesAnAnswerThatCannotBeRead) {
  auto interceptor = Interceptor(AuthTag::Tag4, AuthTag::Tag1);
  const auto parts = Sign(interceptor);
  const auto code_of = [&](const std::string& value) {
    const std::string error =
        Check(interceptor, {{"X-OSTL-Authorization", value}, {"X-OSTL-Timestamp", "2024-05-01T10:20:31Z"}}, "");
    const std::string prefix = "Failed to process HMAC V3 response, error code: ";
    EXPECT_TRUE(error.starts_with(prefix)) << error;
    return error.substr(prefix.size());
  };
  EXPECT_EQ("Failed to process HMAC V3 response, error code: 6", Check(interceptor, {}, ""));
  HttpHeaders untimed = Answer(parts, "");
  untimed.erase("X-OSTL-Timestamp");
  EXPECT_EQ("Failed to process HMAC V3 response, error code: 6", Check(interceptor, untimed, ""));
  for (const char* value : {"", "ZHmacV2Auth id:AA==", "ZAuthV3 ", "ZAuthV3 1#platform-7#AA==",
                            "ZAuthV3 1#platform-7#AA==#AA==#", "ZAuthV3 2#platform-7#AA==#AA=="}) {
    EXPECT_EQ("7", code_of(value)) << value;
  }
  EXPECT_EQ("7", code_of("ZAuthV3 1#platform-7#no base64#AA=="));
  EXPECT_EQ("8", code_of("ZAuthV3 1#platform-8#AA==#AA=="));
  EXPECT_EQ("9", code_of("ZAuthV3 1#platform-7#AA==#AA=="));
  EXPECT_EQ("Failed to process HMAC V3 response, error code: 9",
            Check(interceptor, Answer(parts, "", platform_.public_pem), ""))
      << "sealed for somebody else";
}

TEST_F(HmacV3Test, NamesTheKeyThatTheAnswerNeeds) {
  auto interceptor = Interceptor(AuthTag::Tag4, AuthTag::Tag1, Config({"AgentRsaPvtKey"}));
  const auto parts = Sign(interceptor);
  EXPECT_EQ("Failed to fetch hmac key: AgentRsaPvtKey", Check(interceptor, Answer(parts, ""), ""));
}

TEST_F(HmacV3Test, ClonesWithContextsOfItsOwn) {
  const auto original = Interceptor(AuthTag::Tag4, AuthTag::Tag1);
  const auto clone = original.Clone();
  std::string url = kUrl;
  std::vector<unsigned char> payload;
  clone->ProcessRequest(url, payload, headers_, "GET");
  const auto parts = Split(headers_["X-OSTL-Authorization"].substr(8), '#');
  EXPECT_EQ("RotateSecret", parts[2]);
  EXPECT_EQ("no error", Check(dynamic_cast<AuthHttpInterceptor&>(*clone), Answer(parts, "x"), "x"));
}

TEST_F(HmacV3Test, LogsNoSecret) {
  auto interceptor = Interceptor(AuthTag::Tag2, AuthTag::Tag1);
  const auto parts = Sign(interceptor);
  (void)Check(interceptor, Answer(parts, "x"), "x");
  EXPECT_FALSE(log_.Has(kSecret));
  EXPECT_FALSE(log_.Has("PRIVATE KEY"));
}

}  // namespace
}  // namespace zagent::common

#include "common/src/http/interceptors/AuthHttpInterceptor.h"

#include <gtest/gtest.h>

#include "common/src/http/InMemoryHttpResponse.h"
#include "common/src/http/interceptors/XAuth.h"
#include "common/src/util/Base64.h"
#include "common/src/util/Hmac.h"
#include "tests/fakes/FakeClock.h"
#include "tests/fakes/LogCapture.h"

namespace zagent::common {
namespace {

constexpr const char* kCustomer = "7a3c1f0e-1111-4222-8333-444455556666";
constexpr const char* kAgent = "0b9d8e7f-aaaa-4bbb-8ccc-ddddeeeeffff";
constexpr const char* kActivation = "c0ffee00-1234-4567-89ab-cdef01234567";

// The expected signatures were calculated apart from this code; docs/PROTOCOL.md shows some of them.
class AuthHttpInterceptorTest : public ::testing::Test {
 protected:
  static std::shared_ptr<const HmacConfig> Config(HmacVersion version, bool fedramp = false) {
    return std::make_shared<HmacConfig>(kCustomer, kAgent, kActivation, fedramp, version);
  }

  // The authorization that a request gets; url_ and headers_ keep what it became.
  std::string Sign(HmacVersion version, const std::string& method, const std::string& url,
                   const std::string& payload = "") {
    AuthHttpInterceptor interceptor(Config(version), AuthTag::Tag4, AuthTag::None, clock_);
    url_ = url;
    std::vector<unsigned char> bytes(payload.begin(), payload.end());
    interceptor.ProcessRequest(url_, bytes, headers_, method);
    return headers_["X-OSTL-Authorization"];
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

  fakes::FakeClock clock_{util::Clock::SystemTime(std::chrono::seconds(1'714'558'830))};  // 2024-05-01T10:20:30Z
  std::string url_;
  HttpHeaders headers_;
};

TEST_F(AuthHttpInterceptorTest, SignsAGetUnderV1WithoutAPayloadPart) {
  EXPECT_EQ("ZHmacV1Auth 0b9d8e7f-aaaa-4bbb-8ccc-ddddeeeeffff:2lfbwJ+JLj3GFDD8AKl5ElY9AXmG+rzklGakAVwI9EE=",
            Sign(HmacVersion::HmacV1, "GET", "https://platform.example/v1/status?x=1", "ignored"));
  EXPECT_EQ("2024-05-01T10:20:30Z", headers_["X-OSTL-Timestamp"]);
}

TEST_F(AuthHttpInterceptorTest, SignsPayloadAndContentTypeOfAPostUnderV1) {
  headers_["content-type"] = "application/json";
  EXPECT_EQ("ZHmacV1Auth 0b9d8e7f-aaaa-4bbb-8ccc-ddddeeeeffff:uVEtvgESP8YoBISk6DUZFN9dvsxVSBAsPKPj6cmlMq8=",
            Sign(HmacVersion::HmacV1, "POST", "https://platform.example/v1/fim", "hello"));
}

TEST_F(AuthHttpInterceptorTest, SignsTheWordNullForAPostWithoutContentType) {
  EXPECT_EQ("ZHmacV1Auth 0b9d8e7f-aaaa-4bbb-8ccc-ddddeeeeffff:1zrFK3qV9eqTgT/w9w8zJ38dd35BQCm8LS4RPukBrOQ=",
            Sign(HmacVersion::HmacV1, "POST", "https://platform.example/v1/fim", "hello"));
}

TEST_F(AuthHttpInterceptorTest, SignsTheQueryUnderV2) {
  EXPECT_EQ("ZHmacV2Auth 0b9d8e7f-aaaa-4bbb-8ccc-ddddeeeeffff:K9ldTuspa/wSRUTEHIBpDXAtlk0dH6SujUBQkJiZyFE=",
            Sign(HmacVersion::HmacV2, "POST", "https://platform.example/v1/fim?part=2", "hello"));
}

TEST_F(AuthHttpInterceptorTest, LeavesThePayloadOutUnderV2) {
  EXPECT_EQ(Sign(HmacVersion::HmacV2, "POST", "https://platform.example/v1/fim", "hello"),
            Sign(HmacVersion::HmacV2, "POST", "https://platform.example/v1/fim", "hello, changed"));
}

TEST_F(AuthHttpInterceptorTest, SignsASlashForAnUrlWithoutPathAndSendsIt) {
  EXPECT_EQ("ZHmacV2Auth 0b9d8e7f-aaaa-4bbb-8ccc-ddddeeeeffff:UZrR+WAXY2NgrciLVclUW58MEse5pxvYDHMAg/71Jr8=",
            Sign(HmacVersion::HmacV2, "POST", "https://platform.example"));
  EXPECT_EQ("https://platform.example/", url_);
}

TEST_F(AuthHttpInterceptorTest, BringsTheUrlIntoTheFormThatIsSent) {
  const std::string expected = Sign(HmacVersion::HmacV2, "POST", "https://platform.example/v1/with%20space");
  EXPECT_EQ(expected, Sign(HmacVersion::HmacV2, "POST", "https://platform.example/v1/with space#fragment"));
  EXPECT_EQ("https://platform.example/v1/with%20space", url_);
}

TEST_F(AuthHttpInterceptorTest, SignsAPathAsItWasConfigured) {
  const std::string plain = Sign(HmacVersion::HmacV2, "POST", "https://platform.example/v1/a/b");
  for (const char* url : {"https://platform.example/v1/a%2Fb", "https://platform.example/v1/a//b",
                          "https://platform.example/v1/x/../a/b", "https://platform.example/v1/%61/b"}) {
    EXPECT_NE(plain, Sign(HmacVersion::HmacV2, "POST", url)) << url;
    EXPECT_EQ(url, url_);
  }
}

TEST_F(AuthHttpInterceptorTest, StampsEveryAttemptAnew) {
  const std::string first = Sign(HmacVersion::HmacV2, "POST", "https://platform.example/");
  clock_.Advance(std::chrono::seconds(1));
  EXPECT_NE(first, Sign(HmacVersion::HmacV2, "POST", "https://platform.example/"));
  EXPECT_EQ("2024-05-01T10:20:31Z", headers_["X-OSTL-Timestamp"]);
}

TEST_F(AuthHttpInterceptorTest, SignsTheSameThroughAClone) {
  const AuthHttpInterceptor original(Config(HmacVersion::HmacV2), AuthTag::Tag4, AuthTag::None, clock_);
  std::string url = "https://platform.example/v1/fim";
  std::vector<unsigned char> payload;
  original.Clone()->ProcessRequest(url, payload, headers_, "POST");
  EXPECT_EQ("ZHmacV2Auth 0b9d8e7f-aaaa-4bbb-8ccc-ddddeeeeffff:F/rGX/vQBp/uz9t5betzfrZhRVfv5DnVomEuZWdXyJw=",
            headers_["X-OSTL-Authorization"]);
}

TEST_F(AuthHttpInterceptorTest, RefusesOtherMethods) {
  EXPECT_EQ("Invalid HTTP Method: DELETE",
            ErrorOf([&] { Sign(HmacVersion::HmacV2, "DELETE", "https://platform.example/"); }));
  EXPECT_EQ("Invalid HTTP Method: post",
            ErrorOf([&] { Sign(HmacVersion::HmacV2, "post", "https://platform.example/"); }));
}

TEST_F(AuthHttpInterceptorTest, RefusesAnUrlThatIsNone) {
  EXPECT_EQ(0U, ErrorOf([&] {
                  Sign(HmacVersion::HmacV2, "POST", "https://platform.example:port/");
                }).find("Failed to set auth headers, error: "));
}

TEST_F(AuthHttpInterceptorTest, NamesAMissingKey) {
  const auto config = std::make_shared<HmacConfig>(std::make_unique<util::KeyStore>(), false, HmacVersion::HmacV2);
  AuthHttpInterceptor interceptor(config, AuthTag::Tag4, AuthTag::None, clock_);
  std::vector<unsigned char> payload;
  url_ = "https://platform.example/";
  EXPECT_EQ("Failed to set auth headers, error: Failed to fetch hmac key: KIdV2",
            ErrorOf([&] { interceptor.ProcessRequest(url_, payload, headers_, "POST"); }));
  EXPECT_TRUE(headers_.empty()) << "a request must not leave half signed";
}

TEST_F(AuthHttpInterceptorTest, AcceptsTheRequestTagsOneTwoAndFourOnly) {
  const auto make = [](AuthTag request, AuthTag response) {
    AuthHttpInterceptor(Config(HmacVersion::HmacV2), request, response);
  };
  for (const AuthTag tag : {AuthTag::Tag1, AuthTag::Tag2, AuthTag::Tag4}) EXPECT_NO_THROW(make(tag, AuthTag::None));
  EXPECT_EQ("Auth-Tag: ZAuthV3Tag-3 is not legal in request", ErrorOf([&] { make(AuthTag::Tag3, AuthTag::None); }));
  EXPECT_EQ("Auth-Tag: ZAuthV3Tag-5 is not legal in request", ErrorOf([&] { make(AuthTag::Tag5, AuthTag::None); }));
  EXPECT_EQ("Auth-Tag: None is not legal in request", ErrorOf([&] { make(AuthTag::None, AuthTag::None); }));
}

TEST_F(AuthHttpInterceptorTest, AcceptsTheResponseTagsNoneAndOneOnly) {
  const auto make = [](AuthTag response) { AuthHttpInterceptor(Config(HmacVersion::HmacV2), AuthTag::Tag4, response); };
  EXPECT_NO_THROW(make(AuthTag::Tag1));
  EXPECT_EQ("Auth-Tag: ZAuthV3Tag-2 is not legal in reponse", ErrorOf([&] { make(AuthTag::Tag2); }));
}

TEST_F(AuthHttpInterceptorTest, RefusesVersionThreeForFedrampAtConstruction) {
  const auto make = [](bool fedramp) {
    AuthHttpInterceptor(Config(HmacVersion::HmacV3, fedramp), AuthTag::Tag4, AuthTag::None);
  };
  EXPECT_EQ("Hmac V3 is not supported for fedramp", ErrorOf([&] { make(true); }));
  EXPECT_EQ("no error", ErrorOf([&] { make(false); }));
}

TEST_F(AuthHttpInterceptorTest, SignsUnderNoVersionThatItDoesNotKnow) {
  EXPECT_EQ("Invalid Auth-Version: 9",
            ErrorOf([&] { Sign(static_cast<HmacVersion>(9), "GET", "https://platform.example/"); }));
  EXPECT_TRUE(headers_.empty());
}

TEST_F(AuthHttpInterceptorTest, LogsTheSchemeAndNoSecret) {
  const fakes::LogCapture log;
  (void)Sign(HmacVersion::HmacV1, "POST", "https://platform.example/v1/fim", "hello");
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_TRACE,
                      "AuthHttpInterceptor: updated request with url: https://platform.example/v1/fim with auth: "
                      "ZHmacV1Auth"));
  EXPECT_FALSE(log.Has(Config(HmacVersion::HmacV1)->GetKeyStore().Get("HmacV1")));
}

TEST_F(AuthHttpInterceptorTest, LeavesTheResponseAlone) {
  const fakes::LogCapture log;
  AuthHttpInterceptor interceptor(Config(HmacVersion::HmacV2), AuthTag::Tag4, AuthTag::None, clock_);
  InMemoryHttpResponse response;
  std::vector<unsigned char> output;
  EXPECT_EQ(HttpInterceptor::ChunkResult::Continue, interceptor.ProcessResponseChunk({1, 2}, output));
  interceptor.ProcessResponse("https://platform.example/", response);
  EXPECT_TRUE(log.Has("AuthHttpInterceptor: response processing not required for url: https://platform.example/"));
}

TEST_F(AuthHttpInterceptorTest, PassesNoResponseAsCheckedThatItCannotCheck) {
  AuthHttpInterceptor interceptor(Config(HmacVersion::HmacV2), AuthTag::Tag4, AuthTag::Tag1, clock_);
  InMemoryHttpResponse response;
  EXPECT_EQ("Response context not initialized",
            ErrorOf([&] { interceptor.ProcessResponse("https://platform.example/", response); }));
}

// The paths that a module signs for itself.
class XAuthTest : public AuthHttpInterceptorTest {
 protected:
  static constexpr const char* kId = "0b9d8e7f-aaaa-4bbb-8ccc-ddddeeeeffff";

  static std::string Fragment(const std::string& end) {
    return std::string("/HostWarden/collection/v1/customer/") + kId + "/agent/" + kId + "/manifest/" + kId +
           "/command/" + kId + "/fragment/" + end;
  }
  static std::string Forensic(const std::string& end) {
    return std::string("/HostWarden/edr/forensic/v1/customer/") + kId + "/agent/" + kId + "/manifest/" + kId + end;
  }
  static std::shared_ptr<const HmacConfig> XAuthConfig() {
    return std::make_shared<HmacConfig>(HmacConfig::FromJson(
        R"({"hmacVersion": "V2", "keys": {"KIdV2": "id", "HmacV2": "two", "XauthSM": "sm", "XauthRS": "rs",
            "XauthLC": "lc", "KAVC": "avc"}})"));
  }
  std::string SignPath(const std::string& path) {
    AuthHttpInterceptor interceptor(XAuthConfig(), AuthTag::Tag4, AuthTag::None, clock_);
    url_ = "https://platform.example" + path;
    std::vector<unsigned char> payload;
    headers_.clear();
    interceptor.ProcessRequest(url_, payload, headers_, "POST");
    return headers_["x-auth"];
  }
  static std::string Expected(const std::string& key, const std::string& path) {
    return util::Base64Encode(util::HmacSha256(key, path + ";2024-05-01T10:20:30Z"));
  }
};

// printf %s '/HostWarden/sm/platform/scriptresult;2024-05-01T10:20:30Z' | openssl dgst -sha256 -binary -hmac sm |
// base64
TEST_F(XAuthTest, SignsPathAndTimeWithTheSecretOfTheModule) {
  EXPECT_EQ("rYmaysxZM1BSUGT2Uy2wx11IE5CY68P4nv2TarFv3OE=", SignPath("/HostWarden/sm/platform/scriptresult"));
  EXPECT_EQ("2024-05-01T10:20:30Z", headers_["Date"]);
  EXPECT_FALSE(headers_.contains("X-OSTL-Authorization"));
  EXPECT_FALSE(headers_.contains("X-OSTL-Timestamp"));
}

TEST_F(XAuthTest, KnowsTheModuleOfEachPath) {
  const std::vector<std::pair<std::string, std::string>> rows = {
      {"sm", "/HostWarden/sm/platform/scriptresult"},
      {"rs", "/HostWarden/edr_rs_linux/command_execution"},
      {"lc", "/HostWarden/collection/v1/ca/actkeychange"},
      {"lc", "/HostWarden/collection/v1/ca/actkeychange/status"},
      {"lc", Fragment("17")},
      {"lc", Fragment("17/finalize")},
      {"avc", std::string("/HostWarden/avc/customer/") + kId + "/certificateDetails/" + kId},
  };
  for (const auto& [key, path] : rows) EXPECT_EQ(Expected(key, path), SignPath(path)) << path;
  EXPECT_EQ(15, FindXAuthModule(Forensic("/result")));
  EXPECT_EQ("Failed to set auth headers, error: Failed to fetch hmac key: KFORENSIC",
            ErrorOf([&] { SignPath(Forensic("/result")); }));
}

TEST_F(XAuthTest, SignsEveryOtherPathAsBefore) {
  for (const std::string& path :
       {std::string("/HostWarden/sm/platform/scriptresult?x=1"), std::string("/HostWarden/sm/platform/scriptresult/"),
        std::string("/HostWarden/sm%2Fplatform/scriptresult"),
        std::string("/x/HostWarden/edr_rs_linux/command_execution"), Fragment(""), Fragment("x"),
        Fragment("17/finalize/"), Forensic("/"), Forensic(""),
        std::string("/HostWarden/avc/customer/") + kId + "/certificateDetails/" +
            "0B9D8E7F-aaaa-4bbb-8ccc-ddddeeeeffff",
        Forensic("/" + std::string(4096, 'x'))}) {
    EXPECT_EQ("", SignPath(path)) << path;
    EXPECT_TRUE(headers_["X-OSTL-Authorization"].starts_with("ZHmacV2Auth id:")) << path;
  }
}

TEST_F(XAuthTest, IsOfVersionTwoAlone) {
  (void)Sign(HmacVersion::HmacV1, "POST", "https://platform.example/HostWarden/sm/platform/scriptresult");
  EXPECT_TRUE(headers_["X-OSTL-Authorization"].starts_with("ZHmacV1Auth "));
  EXPECT_FALSE(headers_.contains("x-auth"));
}

TEST_F(XAuthTest, RefusesAModuleThatDoesNotSignForItself) {
  EXPECT_STREQ("XauthSM", XAuthKeyName(11));
  EXPECT_STREQ("KFORENSIC", XAuthKeyName(15));
  EXPECT_EQ("Invalid X-Auth module: 10", ErrorOf([] { XAuthKeyName(10); }));
  EXPECT_EQ("Invalid X-Auth module: 16", ErrorOf([] { XAuthKeyName(16); }));
}

}  // namespace
}  // namespace zagent::common

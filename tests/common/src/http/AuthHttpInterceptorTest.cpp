#include "common/src/http/interceptors/AuthHttpInterceptor.h"

#include <gtest/gtest.h>

#include "common/src/http/InMemoryHttpResponse.h"
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
  const std::string expected = Sign(HmacVersion::HmacV2, "POST", "https://platform.example/v1/fim");
  EXPECT_EQ(expected, Sign(HmacVersion::HmacV2, "POST", "https://platform.example/v1/x/../fim#fragment"));
  EXPECT_EQ("https://platform.example/v1/fim", url_);
  (void)Sign(HmacVersion::HmacV2, "POST", "https://platform.example/with space/%41");
  EXPECT_EQ("https://platform.example/with%20space/A", url_);
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

TEST_F(AuthHttpInterceptorTest, RefusesVersionThreeAtConstruction) {
  const auto make = [](bool fedramp) {
    AuthHttpInterceptor(Config(HmacVersion::HmacV3, fedramp), AuthTag::Tag4, AuthTag::None);
  };
  EXPECT_EQ("Hmac V3 is not supported for fedramp", ErrorOf([&] { make(true); }));
  EXPECT_EQ("Hmac V3 is not available, use V1 or V2", ErrorOf([&] { make(false); }));
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

}  // namespace
}  // namespace zagent::common

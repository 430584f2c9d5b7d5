#include "common/src/http/HmacConfig.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "common/src/http/HmacRequestAction.h"
#include "common/src/http/interceptors/AuthTag.h"
#include "tests/fakes/LogCapture.h"

namespace zagent::common {
namespace {

constexpr const char* kCustomer = "7a3c1f0e-1111-4222-8333-444455556666";
constexpr const char* kAgent = "0b9d8e7f-aaaa-4bbb-8ccc-ddddeeeeffff";
constexpr const char* kActivation = "c0ffee00-1234-4567-89ab-cdef01234567";

template <typename Call>
std::string InvalidArgumentOf(Call&& call) {
  try {
    call();
  } catch (const std::invalid_argument& error) {
    return error.what();
  }
  return "no error";
}

TEST(HmacVersionTest, TakesTheShortAndTheLongName) {
  EXPECT_EQ(HmacVersion::HmacV1, ParseHmacVersion("V1"));
  EXPECT_EQ(HmacVersion::HmacV2, ParseHmacVersion("V2"));
  EXPECT_EQ(HmacVersion::HmacV3, ParseHmacVersion("V3"));
  EXPECT_EQ(HmacVersion::HmacV1, ParseHmacVersion("HmacV1"));
  EXPECT_EQ(HmacVersion::HmacV2, ParseHmacVersion("HmacV2"));
  EXPECT_EQ(HmacVersion::HmacV3, ParseHmacVersion("HmacV3"));
}

TEST(HmacVersionTest, RefusesOtherTexts) {
  EXPECT_EQ("Invalid HmacVersion: V4", InvalidArgumentOf([] { ParseHmacVersion("V4"); }));
  EXPECT_EQ("Invalid HmacVersion: v2", InvalidArgumentOf([] { ParseHmacVersion("v2"); }));
  EXPECT_EQ("Invalid HmacVersion: ", InvalidArgumentOf([] { ParseHmacVersion(""); }));
  EXPECT_EQ("Invalid HmacVersion value: 9", InvalidArgumentOf([] { (void)ToString(static_cast<HmacVersion>(9)); }));
}

TEST(HmacVersionTest, NamesItself) {
  EXPECT_EQ("HmacV1", ToString(HmacVersion::HmacV1));
  EXPECT_EQ("HmacV3", ToString(HmacVersion::HmacV3));
}

// The worked example of docs/PROTOCOL.md, calculated apart from this code.
TEST(HmacConfigTest, DerivesTheDocumentedKeys) {
  const HmacConfig config(kCustomer, kAgent, kActivation, false, HmacVersion::HmacV2);
  EXPECT_EQ("ad3ff6d314fdae8dcd70bbcf19c356004b2db076741122493852d47fa780edc5", config.GetKeyStore().Get("HmacV1"));
  EXPECT_EQ("f90121e1155ddf6984e41937cca89c171b10cadef2594bbeae26fe0367ab6ea3", config.GetKeyStore().Get("HmacV2"));
  EXPECT_EQ(kAgent, config.GetKeyStore().Get("KIdV1"));
  EXPECT_EQ(kAgent, config.GetKeyStore().Get("KIdV2"));
}

TEST(HmacConfigTest, KeepsVersionAndRegion) {
  const HmacConfig config(kCustomer, kAgent, kActivation, true, HmacVersion::HmacV1);
  EXPECT_EQ(HmacVersion::HmacV1, config.GetVersion());
  EXPECT_TRUE(config.IsFedramp());
}

TEST(HmacConfigTest, GivesEveryIdentityKeysOfItsOwn) {
  const auto keys = DeriveKeys(kCustomer, kAgent, kActivation);
  EXPECT_NE(keys->Get("HmacV2"), DeriveKeys("other", kAgent, kActivation)->Get("HmacV2"));
  EXPECT_NE(keys->Get("HmacV2"), DeriveKeys(kCustomer, "other", kActivation)->Get("HmacV2"));
  EXPECT_NE(keys->Get("HmacV2"), DeriveKeys(kCustomer, kAgent, "other")->Get("HmacV2"));
}

TEST(HmacConfigTest, RefusesAnIncompleteIdentity) {
  constexpr const char* kText = "Invalid customer id, agent id or activation id";
  EXPECT_EQ(kText, InvalidArgumentOf([] { DeriveKeys("", kAgent, kActivation); }));
  EXPECT_EQ(kText, InvalidArgumentOf([] { DeriveKeys(kCustomer, "", kActivation); }));
  EXPECT_EQ(kText, InvalidArgumentOf([] { HmacConfig(kCustomer, kAgent, "", false, HmacVersion::HmacV1); }));
}

TEST(HmacConfigTest, LogsNoSecret) {
  const fakes::LogCapture log;
  const HmacConfig config(kCustomer, kAgent, kActivation, false, HmacVersion::HmacV1);
  EXPECT_TRUE(log.Has("KeyStore: Added Key with id: HmacV1"));
  EXPECT_FALSE(log.Has(config.GetKeyStore().Get("HmacV1")));
  EXPECT_FALSE(log.Has(kActivation));
}

TEST(HmacConfigTest, ReadsVersionRegionAndKeysFromJson) {
  const fakes::LogCapture log;
  const HmacConfig config = HmacConfig::FromJson(
      R"({"hmacVersion": "V3", "fedramp": true, "keys": {"HmacV3": "very-secret", "PlatformPubKey": "-----BEGIN\n",
          "XauthSM": "another"}, "comment": "others are ignored"})");
  EXPECT_EQ(HmacVersion::HmacV3, config.GetVersion());
  EXPECT_TRUE(config.IsFedramp());
  EXPECT_EQ("very-secret", config.GetKeyStore().Get("HmacV3"));
  EXPECT_EQ("-----BEGIN\n", config.GetKeyStore().Get("PlatformPubKey"));
  EXPECT_EQ("another", config.GetKeyStore().Get("XauthSM"));
  EXPECT_FALSE(log.Has("very-secret"));
}

TEST(HmacConfigTest, TakesAVersionByNameOrNumber) {
  const auto version_of = [](const std::string& text) {
    return HmacConfig::FromJson(R"({"keys": {}, "hmacVersion": )" + text + "}").GetVersion();
  };
  EXPECT_EQ(HmacVersion::HmacV1, version_of("\"HmacV1\""));
  EXPECT_EQ(HmacVersion::HmacV2, version_of("1"));
  EXPECT_EQ(HmacVersion::HmacV3, version_of("2"));
  EXPECT_EQ("Invalid HmacVersion: V9", InvalidArgumentOf([&] { version_of("\"V9\""); }));
  EXPECT_EQ("Invalid HmacVersion value: 3", InvalidArgumentOf([&] { version_of("3"); }));
  EXPECT_EQ("Invalid HmacVersion value: -1", InvalidArgumentOf([&] { version_of("-1"); }));
}

TEST(HmacConfigTest, RefusesATextThatIsNoJson) {
  for (const std::string& text : {std::string(), std::string("{"), std::string("{} {}"), std::string("text"),
                                  std::string("{\"keys\":{},\"hmacVersion\":1}\0", 29)}) {
    EXPECT_EQ("Invalid HmacConfig json", InvalidArgumentOf([&] { HmacConfig::FromJson(text); })) << text;
  }
}

TEST(HmacConfigTest, RefusesADocumentOfAnotherShape) {
  for (const char* text :
       {"[]", "7", "{}", R"({"hmacVersion": 1})", R"({"keys": {}})", R"({"hmacVersion": 1, "keys": []})",
        R"({"hmacVersion": 1.5, "keys": {}})", R"({"hmacVersion": null, "keys": {}})",
        R"({"hmacVersion": 1, "keys": {"HmacV1": 7}})", R"({"hmacVersion": 1, "keys": {"HmacV4": "x"}})",
        R"({"hmacVersion": 1, "keys": {"": "x"}})", R"({"hmacVersion": 1, "fedramp": "no", "keys": {}})"}) {
    EXPECT_EQ("HmacConfig data malformed", InvalidArgumentOf([&] { HmacConfig::FromJson(text); })) << text;
  }
}

TEST(HmacRequestActionTest, ConvertsBothWays) {
  EXPECT_EQ("None", ToString(HmacRequestAction::None));
  EXPECT_EQ("RegisterPublicKey", ToString(HmacRequestAction::RegisterPublicKey));
  EXPECT_EQ(HmacRequestAction::Activate, ParseHmacRequestAction("Activate"));
  EXPECT_EQ(HmacRequestAction::RotateSecret, ParseHmacRequestAction("RotateSecret"));
  EXPECT_EQ("Invalid HmacRequestAction: 4",
            InvalidArgumentOf([] { (void)ToString(static_cast<HmacRequestAction>(4)); }));
  EXPECT_EQ("Invalid HmacRequestAction string: none", InvalidArgumentOf([] { ParseHmacRequestAction("none"); }));
}

TEST(AuthTagTest, ConvertsBothWays) {
  EXPECT_EQ("None", ToString(AuthTag::None));
  EXPECT_EQ("ZAuthV3Tag-5", ToString(AuthTag::Tag5));
  EXPECT_EQ(AuthTag::Tag4, ParseAuthTag("ZAuthV3Tag-4"));
  EXPECT_EQ("Invalid AuthTag Enum: 6", InvalidArgumentOf([] { (void)ToString(static_cast<AuthTag>(6)); }));
  EXPECT_EQ("Invalid AuthTag: ZAuthV3Tag-6", InvalidArgumentOf([] { ParseAuthTag("ZAuthV3Tag-6"); }));
}

}  // namespace
}  // namespace zagent::common

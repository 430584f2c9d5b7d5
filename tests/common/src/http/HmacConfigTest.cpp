#include "common/src/http/HmacConfig.h"

#include <gtest/gtest.h>

#include <stdexcept>

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

TEST(AuthTagTest, ConvertsBothWays) {
  EXPECT_EQ("None", ToString(AuthTag::None));
  EXPECT_EQ("ZAuthV3Tag-5", ToString(AuthTag::Tag5));
  EXPECT_EQ(AuthTag::Tag4, ParseAuthTag("ZAuthV3Tag-4"));
  EXPECT_EQ("Invalid AuthTag Enum: 6", InvalidArgumentOf([] { (void)ToString(static_cast<AuthTag>(6)); }));
  EXPECT_EQ("Invalid AuthTag: ZAuthV3Tag-6", InvalidArgumentOf([] { ParseAuthTag("ZAuthV3Tag-6"); }));
}

}  // namespace
}  // namespace zagent::common

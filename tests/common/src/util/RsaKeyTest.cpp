#include "common/src/util/RsaKey.h"

#include <gtest/gtest.h>

#include "tests/fakes/TestKeys.h"

namespace zagent::common::util {
namespace {

template <typename Call>
std::string ErrorOf(Call&& call) {
  try {
    call();
  } catch (const RsaException& error) {
    return error.what();
  }
  return "no error";
}

TEST(RsaKeyTest, OpensWhatWasSealedForIt) {
  const fakes::RsaPair pair = fakes::MakeRsaPair();
  const RsaKey open = RsaKey::FromPublicPem(pair.public_pem);
  const RsaKey secret = RsaKey::FromPrivatePem(pair.private_pem);
  const std::string bytes("\0\x01key\xff", 6);
  EXPECT_EQ(bytes, secret.Open(open.Seal(bytes)));
  EXPECT_EQ("", secret.Open(open.Seal("")));
  EXPECT_NE(open.Seal(bytes), open.Seal(bytes)) << "nobody sees that it is the same";
}

TEST(RsaKeyTest, ReadsThePkcs1FormToo) {
  const fakes::RsaPair pair = fakes::MakeRsaPair();
  EXPECT_NE(std::string::npos, pair.public_pkcs1_pem.find("BEGIN RSA PUBLIC KEY"));
  EXPECT_NE(std::string::npos, pair.private_pkcs1_pem.find("BEGIN RSA PRIVATE KEY"));
  const RsaKey secret = RsaKey::FromPrivatePem(pair.private_pkcs1_pem);
  EXPECT_EQ("key", secret.Open(RsaKey::FromPublicPem(pair.public_pkcs1_pem).Seal("key")));
  EXPECT_EQ(RsaKey::FromPublicPem(pair.public_pem).Fingerprint(),
            RsaKey::FromPublicPem(pair.public_pkcs1_pem).Fingerprint());
  EXPECT_EQ(64U, secret.Fingerprint().size());
}

TEST(RsaKeyTest, OpensNothingElse) {
  const fakes::RsaPair pair = fakes::MakeRsaPair();
  const RsaKey secret = RsaKey::FromPrivatePem(pair.private_pem);
  std::string sealed = RsaKey::FromPublicPem(pair.public_pem).Seal("key");
  EXPECT_EQ("RSA decryption failed",
            ErrorOf([&] { (void)RsaKey::FromPrivatePem(fakes::MakeRsaPair().private_pem).Open(sealed); }));
  sealed[10] = static_cast<char>(sealed[10] ^ 1);
  EXPECT_EQ("RSA decryption failed", ErrorOf([&] { (void)secret.Open(sealed); }));
  EXPECT_EQ("RSA decryption failed", ErrorOf([&] { (void)secret.Open(""); }));
  EXPECT_EQ("RSA decryption failed",
            ErrorOf([&] { (void)RsaKey::FromPublicPem(pair.public_pem).Open(std::string(256, 'x')); }))
      << "the public half opens nothing";
}

TEST(RsaKeyTest, RefusesMoreThanTheKeyTakes) {
  const RsaKey key = RsaKey::FromPublicPem(fakes::MakeRsaPair().public_pem);
  EXPECT_EQ(256U, key.Seal(std::string(190, 'x')).size());
  EXPECT_EQ("RSA encryption failed", ErrorOf([&] { (void)key.Seal(std::string(191, 'x')); }));
}

TEST(RsaKeyTest, RefusesWhatIsNoUsableKey) {
  constexpr const char* kNone = "No RSA key in PEM form";
  const fakes::RsaPair pair = fakes::MakeRsaPair();
  EXPECT_EQ(kNone, ErrorOf([] { RsaKey::FromPublicPem(""); }));
  EXPECT_EQ(kNone,
            ErrorOf([] { RsaKey::FromPublicPem("-----BEGIN PUBLIC KEY-----\nAAAA\n-----END PUBLIC KEY-----\n"); }));
  EXPECT_EQ(kNone, ErrorOf([&] { RsaKey::FromPrivatePem(pair.public_pem); }));
  EXPECT_EQ(kNone, ErrorOf([&] { RsaKey::FromPrivatePem(pair.encrypted_private_pem); }))
      << "nobody asks for a password";
  EXPECT_EQ("RSA key is too small", ErrorOf([] { RsaKey::FromPublicPem(fakes::MakeRsaPair(1024).public_pem); }));
}

}  // namespace
}  // namespace zagent::common::util

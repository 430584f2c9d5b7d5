#include "src/ioc/engines/Hash.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include "common/src/util/Digest.h"

namespace zagent::ioc {
namespace {

constexpr const char* kEmptySha256 = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
constexpr const char* kAbcSha256 = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";

class HashTest : public testing::Test {
 protected:
  std::string Final() {
    std::string digest = "what was there before";
    hash_.Final(digest);
    return digest;
  }

  Sha256Hash sha256_;
  Hash& hash_ = sha256_;
};

TEST_F(HashTest, TheDigestOfNothingIsThatOfTheEmptyInput) {
  EXPECT_EQ(Final(), kEmptySha256);
  hash_.Update(std::string());
  hash_.Update(nullptr);
  hash_.Update(reinterpret_cast<const unsigned char*>("abc"), 0);
  EXPECT_EQ(Final(), kEmptySha256);
}

TEST_F(HashTest, PiecesOfAllKindsAddUp) {
  const std::vector<unsigned char> bytes = {'b'};
  hash_.Update(std::string("a"));
  hash_.Update(&bytes);
  hash_.Update(reinterpret_cast<const unsigned char*>("cde"), 1);
  EXPECT_EQ(Final(), kAbcSha256);
}

TEST_F(HashTest, ManyPiecesHaveTheDigestOfTheWhole) {
  std::string whole;
  for (int piece = 0; piece < 1'000; ++piece) {
    const std::string text(static_cast<std::size_t>(piece % 131), static_cast<char>(piece));
    hash_.Update(text);
    whole += text;
  }
  EXPECT_EQ(Final(), common::util::Sha256Hex(whole));
}

TEST_F(HashTest, AfterItsEndItBeginsAnew) {
  hash_.Update(std::string("something else"));
  (void)Final();
  hash_.Update(std::string("abc"));
  EXPECT_EQ(Final(), kAbcSha256);
}

TEST_F(HashTest, InitForgetsWhatHasCome) {
  hash_.Update(std::string("something else"));
  hash_.Init();
  hash_.Update(std::string("abc"));
  EXPECT_EQ(Final(), kAbcSha256);
}

TEST_F(HashTest, TellsWhenOpenSslRefuses) {
  ASSERT_EQ(EVP_set_default_properties(nullptr, "provider=nobody"), 1);
  EXPECT_THROW(hash_.Init(), common::util::DigestException);
  EXPECT_THROW(Sha256Hash(), common::util::DigestException);
  ASSERT_EQ(EVP_set_default_properties(nullptr, ""), 1);
  hash_.Init();
  EXPECT_EQ(Final(), kEmptySha256);
}

}  // namespace
}  // namespace zagent::ioc

#include "common/src/util/BlockCipherEvp.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/fakes/LogCapture.h"

namespace zagent::common::util::cipher {
namespace {

using Bytes = BlockCipher::Bytes;

Bytes BytesOf(const std::string& text) {
  return {text.begin(), text.end()};
}

Bytes FromHex(const std::string& hex) {
  Bytes bytes;
  for (std::size_t i = 0; i < hex.size(); i += 2) {
    bytes.push_back(static_cast<unsigned char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
  }
  return bytes;
}

class BlockCipherEvpTest : public ::testing::Test {
 protected:
  static BlockCipherEvp Aes() { return {"aes-256-cbc", Bytes(32, 0x11), Bytes(16, 0x22)}; }

  template <typename Call>
  static std::string ErrorOf(Call&& call) {
    try {
      call();
    } catch (const BlockCipherException& error) {
      return error.what();
    }
    return "no error";
  }

  fakes::LogCapture log_;
};

// From NIST SP 800-38A, F.2.5: the first block of CBC-AES256; the block of padding behind it is this cipher's own.
TEST_F(BlockCipherEvpTest, EnciphersAsTheStandardSays) {
  BlockCipherEvp cipher("aes-256-cbc", FromHex("603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4"),
                        FromHex("000102030405060708090a0b0c0d0e0f"));
  const Bytes enciphered = cipher.Encipher(FromHex("6bc1bee22e409f96e93d7e117393172a"));
  ASSERT_EQ(32U, enciphered.size());
  EXPECT_EQ(FromHex("f58c4c04d6e5f1ba779eabfb5f7bfbd6"), Bytes(enciphered.begin(), enciphered.begin() + 16));
}

TEST_F(BlockCipherEvpTest, DeciphersWhatItEnciphered) {
  for (const std::size_t size : {0U, 1U, 15U, 16U, 17U, 100'000U}) {
    const Bytes plain(size, 0x5a);
    BlockCipherEvp cipher = Aes();
    const Bytes enciphered = cipher.Encipher(plain);
    EXPECT_EQ((size / 16 + 1) * 16, enciphered.size());
    EXPECT_EQ(plain, cipher.Decipher(enciphered)) << size;
  }
}

TEST_F(BlockCipherEvpTest, DeciphersInPiecesOfAnySize) {
  const std::string text = "a text that is longer than two of the blocks of this cipher";
  BlockCipherEvp cipher = Aes();
  const Bytes enciphered = cipher.Encipher(BytesOf(text));
  for (const std::size_t step : {1U, 7U, 16U, 1000U}) {
    Bytes plain;
    const auto append = [&](const Bytes& part) { plain.insert(plain.end(), part.begin(), part.end()); };
    cipher.DecipherInit();
    for (std::size_t i = 0; i < enciphered.size(); i += step) {
      append(cipher.DecipherUpdate(std::span(enciphered).subspan(i, std::min(step, enciphered.size() - i))));
    }
    append(cipher.DecipherFinalize());
    EXPECT_EQ(text, std::string(plain.begin(), plain.end())) << step;
  }
}

TEST_F(BlockCipherEvpTest, BeginsAnewInTheMiddleOfARun) {
  BlockCipherEvp cipher = Aes();
  const Bytes enciphered = cipher.Encipher(BytesOf("short"));
  cipher.DecipherInit();
  (void)cipher.DecipherUpdate(BytesOf("something else that stays"));
  cipher.DecipherInit();
  Bytes plain = cipher.DecipherUpdate(enciphered);
  const Bytes rest = cipher.DecipherFinalize();
  plain.insert(plain.end(), rest.begin(), rest.end());
  EXPECT_EQ(BytesOf("short"), plain);
}

TEST_F(BlockCipherEvpTest, RefusesAnUnknownName) {
  EXPECT_EQ("Unable to find a matching cipher", ErrorOf([] { BlockCipherEvp("rot13", {}, {}); }));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "ERROR: EVP_get_cipherbyname failed. OpenSSL error: "));
}

TEST_F(BlockCipherEvpTest, RefusesAKeyOfMoreThanSixtyFourBytes) {
  EXPECT_EQ("key.size() <= 64", ErrorOf([] { BlockCipherEvp("bf-cbc", Bytes(65), Bytes(8)); }));
  EXPECT_EQ("no error", ErrorOf([] { BlockCipherEvp("aes-256-xts", Bytes(64, 1), Bytes(16)); }));
}

// OpenSSL would read behind the end of a key that is too short.
TEST_F(BlockCipherEvpTest, RefusesAKeyOrVectorOfTheWrongSize) {
  constexpr const char* kText = "Key or initial vector does not fit the cipher";
  EXPECT_EQ(kText, ErrorOf([] { BlockCipherEvp("aes-256-cbc", Bytes(31), Bytes(16)); }));
  EXPECT_EQ(kText, ErrorOf([] { BlockCipherEvp("aes-256-cbc", Bytes(33), Bytes(16)); }));
  EXPECT_EQ(kText, ErrorOf([] { BlockCipherEvp("aes-256-cbc", Bytes(32), Bytes(15)); }));
  EXPECT_EQ(kText, ErrorOf([] { BlockCipherEvp("aes-256-cbc", Bytes(32), Bytes(17)); }));
  EXPECT_EQ(kText, ErrorOf([] { BlockCipherEvp("bf-cbc", Bytes(), Bytes(8)); }));
}

TEST_F(BlockCipherEvpTest, RefusesModesThatNeedMoreThanAKeyAndAVector) {
  EXPECT_EQ("Given cipher context/type is not valid",
            ErrorOf([] { BlockCipherEvp("aes-256-gcm", Bytes(32), Bytes(12)); }));
  EXPECT_EQ("Given cipher context/type is not valid",
            ErrorOf([] { BlockCipherEvp("id-aes256-wrap", Bytes(32), Bytes(8)); }));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "ERROR: Given cipher context/type is not valid"));
}

// Known by name, but its code is in a provider that nobody loads.
TEST_F(BlockCipherEvpTest, FailsWithACipherThatCannotRun) {
  BlockCipherEvp cipher("bf-cbc", Bytes(16, 1), Bytes(8, 2));
  EXPECT_EQ("EVP_CipherInit_ex failed", ErrorOf([&] { (void)cipher.Encipher(BytesOf("text")); }));
  EXPECT_EQ("EVP_CipherInit_ex failed", ErrorOf([&] { (void)cipher.Decipher(BytesOf("text")); }));
  EXPECT_EQ("EVP_CipherInit_ex failed", ErrorOf([&] { cipher.DecipherInit(); }));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "ERROR: EVP_CipherInit_ex failed. OpenSSL error: error:"));
}

TEST_F(BlockCipherEvpTest, FailsAtTheEndOfWhatIsNoWholeBlock) {
  BlockCipherEvp cipher = Aes();
  Bytes enciphered = cipher.Encipher(BytesOf("text"));
  enciphered.pop_back();
  EXPECT_EQ("EVP_CipherFinal_ex failed", ErrorOf([&] { (void)cipher.Decipher(enciphered); }));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "ERROR: EVP_CipherFinal_ex failed. OpenSSL error: error:"));
  EXPECT_EQ("EVP_CipherFinal_ex failed", ErrorOf([&] { (void)cipher.Decipher({}); })) << "not even the padding";
}

// A data unit of XTS has at least one block.
TEST_F(BlockCipherEvpTest, TellsWhatTheCipherRefusesToTake) {
  BlockCipherEvp cipher(
      "aes-256-xts",
      [] {
        Bytes key(64, 1);
        key[0] = 2;  // the two halves must differ
        return key;
      }(),
      Bytes(16, 3));
  EXPECT_EQ("EVP_CipherUpdate failed", ErrorOf([&] { (void)cipher.Encipher(BytesOf("short")); }));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "ERROR: EVP_CipherUpdate failed. OpenSSL error: "));
}

TEST_F(BlockCipherEvpTest, RefusesAPieceWithoutARun) {
  BlockCipherEvp cipher = Aes();
  EXPECT_EQ("Given cipher context/type is not valid", ErrorOf([&] { (void)cipher.DecipherUpdate({}); }));
  EXPECT_EQ("Given cipher context/type is not valid", ErrorOf([&] { (void)cipher.DecipherFinalize(); }));
  cipher.DecipherInit();
  EXPECT_NE("no error", ErrorOf([&] { (void)cipher.DecipherFinalize(); }));
  EXPECT_EQ("Given cipher context/type is not valid", ErrorOf([&] { (void)cipher.DecipherFinalize(); }))
      << "the failed run is over";
}

// The view is longer than what is there: it must be refused before a byte of it is read.
TEST_F(BlockCipherEvpTest, RefusesMoreThanOpenSslCanCount) {
  const unsigned char byte = 0;
  BlockCipherEvp cipher = Aes();
  EXPECT_EQ("Unable to reserve sufficient capacity in output buffer", ErrorOf([&] {
              (void)cipher.Encipher({&byte, BlockCipherEvp::kMaxSize + 1});
            }));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "ERROR: Unable to reserve sufficient capacity in output buffer"));
}

}  // namespace
}  // namespace zagent::common::util::cipher

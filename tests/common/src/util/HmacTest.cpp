#include "common/src/util/Hmac.h"

#include <gtest/gtest.h>

#include "common/src/util/Cleanse.h"
#include "common/src/util/Digest.h"
#include "common/src/util/Fnv.h"

namespace zagent::common::util {
namespace {

std::uint64_t Fnv(const std::string& text) {
  return Fnv1a64(reinterpret_cast<const unsigned char*>(text.data()), text.size());
}

// Test cases 1, 2 and 6 of RFC 4231.
TEST(HmacTest, AgreesWithThePublishedVectors) {
  EXPECT_EQ("b0344c61d8db38535ca8afceaf0bf12b881dc200c9833da726e9376c2e32cff7",
            HmacSha256Hex(std::string(20, '\x0b'), "Hi There"));
  EXPECT_EQ("5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843",
            HmacSha256Hex("Jefe", "what do ya want for nothing?"));
  EXPECT_EQ("60e431591ee0b67f0d8a26aacbf5b77f8e0bc6213728c5140546040f0ee37f54",
            HmacSha256Hex(std::string(131, '\xaa'), "Test Using Larger Than Block-Size Key - Hash Key First"));
}

TEST(HmacTest, GivesTheRawBytesBehindTheHexadecimalText) {
  const std::string raw = HmacSha256("key", "message");
  EXPECT_EQ(32U, raw.size());
  EXPECT_EQ(HmacSha256Hex("key", "message"), ToHex(raw));
}

TEST(HmacTest, TakesAnEmptyMessage) {
  EXPECT_EQ("5d5d139563c95b5967b9bd9a8c9b233a9dedb45072794cd232dc1b74832607d0", HmacSha256Hex("key", ""));
}

TEST(DigestTest, AgreesWithThePublishedVectors) {
  EXPECT_EQ("e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855", Sha256Hex(""));
  EXPECT_EQ("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad", Sha256Hex("abc"));
}

TEST(DigestTest, WritesTwoLowerCaseDigitsForEveryByte) {
  EXPECT_EQ("000fa0ff", ToHex(std::string("\x00\x0f\xa0\xff", 4)));
}

TEST(FnvTest, AgreesWithThePublishedVectors) {
  EXPECT_EQ(0xcbf29ce484222325U, Fnv(""));
  EXPECT_EQ(0xaf63dc4c8601ec8cU, Fnv("a"));
  EXPECT_EQ(0x85944171f73967e8U, Fnv("foobar"));
}

TEST(CleanseTest, OverwritesTheWholeBufferAndLeavesItEmpty) {
  std::string secret = "a secret that is long enough to live on the heap";
  secret.resize(20);  // its second half stays in the buffer behind the end
  const char* const buffer = secret.data();
  Cleanse(secret);
  EXPECT_TRUE(secret.empty());
  ASSERT_EQ(buffer, secret.data());
  EXPECT_EQ(std::string(48, '\0'), std::string(buffer, 48));
}

TEST(CleanseTest, CleansesAtTheEndOfItsScope) {
  std::string secret = "short";
  { const ScopedCleanse cleanse(secret); }
  EXPECT_TRUE(secret.empty());
  EXPECT_EQ('\0', secret.data()[0]);
}

}  // namespace
}  // namespace zagent::common::util

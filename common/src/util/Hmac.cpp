#include "common/src/util/Hmac.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <limits>

#include "common/src/util/Cleanse.h"
#include "common/src/util/Digest.h"

namespace zagent::common::util {

std::string HmacSha256(std::string_view key, std::string_view message) {
  std::string digest(EVP_MAX_MD_SIZE, '\0');
  unsigned size = 0;
  if (key.size() > static_cast<std::size_t>(std::numeric_limits<int>::max()) ||
      HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
           reinterpret_cast<const unsigned char*>(message.data()), message.size(),
           reinterpret_cast<unsigned char*>(digest.data()), &size) == nullptr) {
    throw HmacDigestException("HMAC-SHA-256 calculation failed");
  }
  digest.resize(size);
  return digest;
}

std::string HmacSha256Hex(std::string_view key, std::string_view message) {
  std::string digest = HmacSha256(key, message);
  const ScopedCleanse cleanse(digest);  // a derived key is made this way
  return ToHex(digest);
}

}  // namespace zagent::common::util

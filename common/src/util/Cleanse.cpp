#include "common/src/util/Cleanse.h"

#include <openssl/crypto.h>

namespace zagent::common::util {

void Cleanse(std::string& text) {
  // What an earlier, longer value left behind the end is overwritten too; this never reallocates.
  text.resize(text.capacity());
  OPENSSL_cleanse(text.data(), text.size());
  text.clear();
}

void Cleanse(std::vector<unsigned char>& bytes) {
  bytes.resize(bytes.capacity());
  OPENSSL_cleanse(bytes.data(), bytes.size());
  bytes.clear();
}

}  // namespace zagent::common::util

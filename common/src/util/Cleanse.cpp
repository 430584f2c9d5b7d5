#include "common/src/util/Cleanse.h"

#include <openssl/crypto.h>

namespace zagent::common::util {

void Cleanse(std::string& text) {
  // What an earlier, longer value left behind the end is overwritten too; this never reallocates.
  text.resize(text.capacity());
  OPENSSL_cleanse(text.data(), text.size());
  text.clear();
}

}  // namespace zagent::common::util

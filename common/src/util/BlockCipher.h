#pragma once

#include <span>
#include <stdexcept>
#include <vector>

namespace zagent::common::util::cipher {

class BlockCipherException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A cipher with its key and initial vector. Every operation throws BlockCipherException, and a run that has failed must
// be begun anew. One thread at a time.
class BlockCipher {
 public:
  using Bytes = std::vector<unsigned char>;
  using View = std::span<const unsigned char>;

  BlockCipher() = default;
  BlockCipher(const BlockCipher&) = delete;
  BlockCipher& operator=(const BlockCipher&) = delete;
  virtual ~BlockCipher() = default;

  // The whole of it at once.
  [[nodiscard]] virtual Bytes Encipher(View plain) = 0;
  [[nodiscard]] virtual Bytes Decipher(View enciphered) = 0;

  // The same in pieces of any size: what the three steps give, joined, is what Decipher gives. DecipherInit ends a run
  // that is open.
  virtual void DecipherInit() = 0;
  [[nodiscard]] virtual Bytes DecipherUpdate(View piece) = 0;
  [[nodiscard]] virtual Bytes DecipherFinalize() = 0;
};

}  // namespace zagent::common::util::cipher

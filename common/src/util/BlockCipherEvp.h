#pragma once

#include <openssl/evp.h>

#include <memory>
#include <string>

#include "common/src/util/BlockCipher.h"

namespace zagent::common::util::cipher {

// Any cipher that OpenSSL knows by name ("aes-256-cbc"), with padding where its mode has blocks to fill. Modes that
// need more than a key and an initial vector (an authentication tag, a wrapped key) are refused.
//
// Each failure logs one Error line "ERROR: <what failed>. OpenSSL error: <its text>" and throws.
class BlockCipherEvp final : public BlockCipher {
 public:
  static constexpr std::size_t kMaxKeySize = 64;
  // OpenSSL counts in int; what it gives may be longer by a block.
  static constexpr std::size_t kMaxSize = 1UL << 30;

  // Throws "Unable to find a matching cipher" for an unknown name, "key.size() <= 64" for a longer key, and
  // "Key or initial vector does not fit the cipher" when their sizes are not those of the cipher. A cipher that OpenSSL
  // knows by name but cannot run (a legacy one without its provider) fails at its first use.
  BlockCipherEvp(const std::string& name, Bytes key, Bytes initial_vector);
  BlockCipherEvp(const BlockCipherEvp&) = delete;
  BlockCipherEvp& operator=(const BlockCipherEvp&) = delete;
  ~BlockCipherEvp() override;

  [[nodiscard]] Bytes Encipher(View plain) override;
  [[nodiscard]] Bytes Decipher(View enciphered) override;
  void DecipherInit() override;
  [[nodiscard]] Bytes DecipherUpdate(View piece) override;
  [[nodiscard]] Bytes DecipherFinalize() override;

 private:
  struct ContextDeleter {
    void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
  };
  using Context = std::unique_ptr<EVP_CIPHER_CTX, ContextDeleter>;

  [[nodiscard]] Context Begin(bool encipher) const;
  [[nodiscard]] static Bytes Update(EVP_CIPHER_CTX* context, View piece);
  [[nodiscard]] static Bytes Finalize(EVP_CIPHER_CTX* context);
  [[nodiscard]] Bytes RunWhole(bool encipher, View data) const;

  const EVP_CIPHER* cipher_;
  Bytes key_;
  Bytes initial_vector_;
  Context run_;
};

}  // namespace zagent::common::util::cipher

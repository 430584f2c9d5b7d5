#include "common/src/util/RsaKey.h"

#include <openssl/core_names.h>
#include <openssl/decoder.h>
#include <openssl/err.h>
#include <openssl/params.h>
#include <openssl/x509.h>

#include <array>

#include "common/src/util/Digest.h"

namespace zagent::common::util {
namespace {

constexpr int kMinBits = 2048;

struct DecoderDeleter {
  void operator()(OSSL_DECODER_CTX* context) const { OSSL_DECODER_CTX_free(context); }
};
struct ContextDeleter {
  void operator()(EVP_PKEY_CTX* context) const { EVP_PKEY_CTX_free(context); }
};
using Context = std::unique_ptr<EVP_PKEY_CTX, ContextDeleter>;

// OpenSSL would ask at the terminal.
int NoPassword(char*, int, int, void*) {
  return -1;
}

[[noreturn]] void Fail(const char* what) {
  ERR_clear_error();
  throw RsaException(what);
}

std::array<OSSL_PARAM, 4> OaepParameters() {
  static char mode[] = OSSL_PKEY_RSA_PAD_MODE_OAEP;
  static char digest[] = "SHA2-256";
  return {OSSL_PARAM_construct_utf8_string(OSSL_ASYM_CIPHER_PARAM_PAD_MODE, mode, 0),
          OSSL_PARAM_construct_utf8_string(OSSL_ASYM_CIPHER_PARAM_OAEP_DIGEST, digest, 0),
          OSSL_PARAM_construct_utf8_string(OSSL_ASYM_CIPHER_PARAM_MGF1_DIGEST, digest, 0), OSSL_PARAM_construct_end()};
}

const unsigned char* BytesOf(std::string_view text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

}  // namespace

RsaKey RsaKey::Decode(const std::string& pem, int selection) {
  EVP_PKEY* decoded = nullptr;
  const std::unique_ptr<OSSL_DECODER_CTX, DecoderDeleter> decoder(
      OSSL_DECODER_CTX_new_for_pkey(&decoded, "PEM", nullptr, "RSA", selection, nullptr, nullptr));
  const unsigned char* data = BytesOf(pem);
  std::size_t size = pem.size();
  const bool ok = decoder && OSSL_DECODER_CTX_set_pem_password_cb(decoder.get(), NoPassword, nullptr) == 1 &&
                  OSSL_DECODER_from_data(decoder.get(), &data, &size) == 1;
  Key key(decoded);
  if (!ok || !key) Fail("No RSA key in PEM form");
  if (EVP_PKEY_get_bits(key.get()) < kMinBits) Fail("RSA key is too small");
  return RsaKey(std::move(key));
}

RsaKey RsaKey::FromPublicPem(const std::string& pem) {
  return Decode(pem, EVP_PKEY_PUBLIC_KEY);
}

RsaKey RsaKey::FromPrivatePem(const std::string& pem) {
  return Decode(pem, EVP_PKEY_KEYPAIR);
}

std::string RsaKey::Seal(std::string_view bytes) const {
  const Context context(EVP_PKEY_CTX_new_from_pkey(nullptr, key_.get(), nullptr));
  const auto parameters = OaepParameters();
  std::string sealed(static_cast<std::size_t>(EVP_PKEY_get_size(key_.get())), '\0');
  std::size_t size = sealed.size();
  if (!context || EVP_PKEY_encrypt_init_ex(context.get(), parameters.data()) != 1 ||
      EVP_PKEY_encrypt(context.get(), reinterpret_cast<unsigned char*>(sealed.data()), &size, BytesOf(bytes),
                       bytes.size()) != 1) {
    Fail("RSA encryption failed");
  }
  sealed.resize(size);
  return sealed;
}

std::string RsaKey::Open(std::string_view sealed) const {
  const Context context(EVP_PKEY_CTX_new_from_pkey(nullptr, key_.get(), nullptr));
  const auto parameters = OaepParameters();
  std::string bytes(static_cast<std::size_t>(EVP_PKEY_get_size(key_.get())), '\0');
  std::size_t size = bytes.size();
  if (!context || EVP_PKEY_decrypt_init_ex(context.get(), parameters.data()) != 1 ||
      EVP_PKEY_decrypt(context.get(), reinterpret_cast<unsigned char*>(bytes.data()), &size, BytesOf(sealed),
                       sealed.size()) != 1) {
    Fail("RSA decryption failed");
  }
  bytes.resize(size);
  return bytes;
}

std::string RsaKey::Fingerprint() const {
  unsigned char* der = nullptr;
  const int size = i2d_PUBKEY(key_.get(), &der);
  if (size <= 0) Fail("RSA key cannot be written");
  const std::unique_ptr<unsigned char, void (*)(unsigned char*)> owner(der, [](unsigned char* p) { OPENSSL_free(p); });
  return Sha256Hex({reinterpret_cast<const char*>(der), static_cast<std::size_t>(size)});
}

}  // namespace zagent::common::util

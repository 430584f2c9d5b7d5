#include "common/src/util/BlockCipherEvp.h"

#include <openssl/crypto.h>
#include <openssl/err.h>

#include <array>
#include <new>

#include "common/src/util/Log.h"

namespace zagent::common::util::cipher {
namespace {

// Takes what OpenSSL has to say off its queue, which belongs to the thread: nobody later reads an old error.
std::string OpenSslError() {
  std::array<char, 256> text{};
  ERR_error_string_n(ERR_get_error(), text.data(), text.size());
  ERR_clear_error();
  return text.data();
}

bool HasUsableMode(const EVP_CIPHER* cipher) {
  const int mode = EVP_CIPHER_get_mode(cipher);
  return (EVP_CIPHER_get_flags(cipher) & EVP_CIPH_FLAG_AEAD_CIPHER) == 0 && mode != EVP_CIPH_WRAP_MODE;
}

bool FitsKey(const EVP_CIPHER* cipher, std::size_t size) {
  if (size == static_cast<std::size_t>(EVP_CIPHER_get_key_length(cipher))) return true;
  return size != 0 && (EVP_CIPHER_get_flags(cipher) & EVP_CIPH_VARIABLE_LENGTH) != 0;
}

}  // namespace

BlockCipherEvp::BlockCipherEvp(const std::string& name, Bytes key, Bytes initial_vector)
    : cipher_(EVP_get_cipherbyname(name.c_str())), key_(std::move(key)), initial_vector_(std::move(initial_vector)) {
  if (cipher_ == nullptr) {
    ZLOG_ERROR("ERROR: EVP_get_cipherbyname failed. OpenSSL error: " << OpenSslError());
    throw BlockCipherException("Unable to find a matching cipher");
  }
  if (!HasUsableMode(cipher_)) {
    ZLOG_ERROR("ERROR: Given cipher context/type is not valid");
    throw BlockCipherException("Given cipher context/type is not valid");
  }
  if (key_.size() > kMaxKeySize) throw BlockCipherException("key.size() <= 64");
  if (!FitsKey(cipher_, key_.size()) ||
      initial_vector_.size() != static_cast<std::size_t>(EVP_CIPHER_get_iv_length(cipher_))) {
    throw BlockCipherException("Key or initial vector does not fit the cipher");
  }
}

BlockCipherEvp::~BlockCipherEvp() {
  OPENSSL_cleanse(key_.data(), key_.size());
}

BlockCipherEvp::Context BlockCipherEvp::Begin(bool encipher) const {
  Context context(EVP_CIPHER_CTX_new());
  if (!context) {
    ZLOG_ERROR("ERROR: EVP_CIPHER_CTX_new failed. OpenSSL error: " << OpenSslError());
    throw BlockCipherException("EVP_CIPHER_CTX_new failed");
  }
  const int direction = encipher ? 1 : 0;
  // The length of the key before the key itself: OpenSSL reads as many bytes as it believes to be there.
  if (EVP_CipherInit_ex(context.get(), cipher_, nullptr, nullptr, nullptr, direction) != 1 ||
      EVP_CIPHER_CTX_set_key_length(context.get(), static_cast<int>(key_.size())) != 1 ||
      EVP_CipherInit_ex(context.get(), nullptr, nullptr, key_.data(), initial_vector_.data(), direction) != 1) {
    ZLOG_ERROR("ERROR: EVP_CipherInit_ex failed. OpenSSL error: " << OpenSslError());
    throw BlockCipherException("EVP_CipherInit_ex failed");
  }
  return context;
}

BlockCipherEvp::Bytes BlockCipherEvp::Update(EVP_CIPHER_CTX* context, View piece) {
  Bytes result;
  try {
    if (piece.size() > kMaxSize) throw std::bad_alloc();
    result.resize(piece.size() + EVP_MAX_BLOCK_LENGTH);
  } catch (const std::bad_alloc&) {
    ZLOG_ERROR("ERROR: Unable to reserve sufficient capacity in output buffer");
    throw BlockCipherException("Unable to reserve sufficient capacity in output buffer");
  }
  int size = 0;
  if (EVP_CipherUpdate(context, result.data(), &size, piece.data(), static_cast<int>(piece.size())) != 1) {
    ZLOG_ERROR("ERROR: EVP_CipherUpdate failed. OpenSSL error: " << OpenSslError());
    throw BlockCipherException("EVP_CipherUpdate failed");
  }
  result.resize(static_cast<std::size_t>(size));
  return result;
}

BlockCipherEvp::Bytes BlockCipherEvp::Finalize(EVP_CIPHER_CTX* context) {
  Bytes result(EVP_MAX_BLOCK_LENGTH);
  int size = 0;
  if (EVP_CipherFinal_ex(context, result.data(), &size) != 1) {
    ZLOG_ERROR("ERROR: EVP_CipherFinal_ex failed. OpenSSL error: " << OpenSslError());
    throw BlockCipherException("EVP_CipherFinal_ex failed");
  }
  result.resize(static_cast<std::size_t>(size));
  return result;
}

BlockCipherEvp::Bytes BlockCipherEvp::RunWhole(bool encipher, View data) const {
  const Context context = Begin(encipher);
  Bytes result = Update(context.get(), data);
  const Bytes rest = Finalize(context.get());
  result.insert(result.end(), rest.begin(), rest.end());
  return result;
}

BlockCipherEvp::Bytes BlockCipherEvp::Encipher(View plain) {
  return RunWhole(true, plain);
}

BlockCipherEvp::Bytes BlockCipherEvp::Decipher(View enciphered) {
  return RunWhole(false, enciphered);
}

void BlockCipherEvp::DecipherInit() {
  run_.reset();
  run_ = Begin(false);
}

BlockCipherEvp::Bytes BlockCipherEvp::DecipherUpdate(View piece) {
  if (!run_) {
    ZLOG_ERROR("ERROR: Given cipher context/type is not valid");
    throw BlockCipherException("Given cipher context/type is not valid");
  }
  try {
    return Update(run_.get(), piece);
  } catch (const BlockCipherException&) {
    run_.reset();
    throw;
  }
}

BlockCipherEvp::Bytes BlockCipherEvp::DecipherFinalize() {
  if (!run_) {
    ZLOG_ERROR("ERROR: Given cipher context/type is not valid");
    throw BlockCipherException("Given cipher context/type is not valid");
  }
  const Context run = std::move(run_);
  return Finalize(run.get());
}

}  // namespace zagent::common::util::cipher

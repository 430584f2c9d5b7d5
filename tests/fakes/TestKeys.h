#pragma once

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <memory>
#include <string>

namespace zagent::fakes {

struct RsaPair {
  std::string private_pem;
  std::string public_pem;
  std::string private_pkcs1_pem;
  std::string public_pkcs1_pem;
  std::string encrypted_private_pem;
};

// A fresh key in all the forms in which PEM has it.
inline RsaPair MakeRsaPair(unsigned bits = 2048) {
  const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(EVP_RSA_gen(bits), EVP_PKEY_free);
  const auto write = [](auto&& call) {
    const std::unique_ptr<BIO, decltype(&BIO_free_all)> bio(BIO_new(BIO_s_mem()), BIO_free_all);
    call(bio.get());
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio.get(), &data);
    return std::string(data, static_cast<std::size_t>(size));
  };
  // "RSA PRIVATE KEY" and "RSA PUBLIC KEY" around the same numbers.
  const auto pkcs1 = [&](const char* name, int (*encode)(const EVP_PKEY*, unsigned char**)) {
    unsigned char* der = nullptr;
    const int size = encode(key.get(), &der);
    const std::string pem = write([&](BIO* bio) { PEM_write_bio(bio, name, "", der, size); });
    OPENSSL_free(der);
    return pem;
  };
  RsaPair pair;
  pair.private_pem =
      write([&](BIO* b) { PEM_write_bio_PrivateKey(b, key.get(), nullptr, nullptr, 0, nullptr, nullptr); });
  pair.public_pem = write([&](BIO* b) { PEM_write_bio_PUBKEY(b, key.get()); });
  pair.private_pkcs1_pem =
      pkcs1("RSA PRIVATE KEY", [](const EVP_PKEY* k, unsigned char** der) { return i2d_PrivateKey(k, der); });
  pair.public_pkcs1_pem =
      pkcs1("RSA PUBLIC KEY", [](const EVP_PKEY* k, unsigned char** der) { return i2d_PublicKey(k, der); });
  unsigned char password[] = "password";
  pair.encrypted_private_pem =
      write([&](BIO* b) { PEM_write_bio_PrivateKey(b, key.get(), EVP_aes_256_cbc(), password, 8, nullptr, nullptr); });
  return pair;
}

}  // namespace zagent::fakes

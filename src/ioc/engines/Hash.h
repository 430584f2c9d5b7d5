#pragma once

#include <openssl/types.h>

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace zagent::ioc {

// A digest of content that comes in pieces. Throws common::util::DigestException when OpenSSL refuses.
class Hash {
 public:
  Hash() = default;
  Hash(const Hash&) = delete;
  Hash& operator=(const Hash&) = delete;
  virtual ~Hash() = default;

  // Forgets what has come.
  virtual void Init() = 0;
  virtual void Update(const unsigned char* bytes, std::size_t length) = 0;
  void Update(const std::string& text);
  // Null adds nothing.
  void Update(const std::vector<unsigned char>* bytes);
  // Writes the digest of what has come since Init in lower-case hexadecimal, and begins anew.
  virtual void Final(std::string& digest) = 0;
};

class Sha256Hash final : public Hash {
 public:
  Sha256Hash();

  void Init() override;
  void Update(const unsigned char* bytes, std::size_t length) override;
  using Hash::Update;
  void Final(std::string& digest) override;

 private:
  const std::shared_ptr<EVP_MD_CTX> context_;
};

}  // namespace zagent::ioc

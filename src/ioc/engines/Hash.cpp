#include "src/ioc/engines/Hash.h"

#include <openssl/evp.h>

#include <array>

#include "common/src/util/Digest.h"

namespace zagent::ioc {
namespace {

void Require(int result) {
  if (result != 1) throw common::util::DigestException("SHA-256 calculation failed");
}

}  // namespace

void Hash::Update(const std::string& text) {
  Update(reinterpret_cast<const unsigned char*>(text.data()), text.size());
}

void Hash::Update(const std::vector<unsigned char>* bytes) {
  if (bytes != nullptr) Update(bytes->data(), bytes->size());
}

Sha256Hash::Sha256Hash() : context_(EVP_MD_CTX_new(), &EVP_MD_CTX_free) {
  Require(context_ != nullptr ? 1 : 0);
  Sha256Hash::Init();
}

void Sha256Hash::Init() {
  Require(EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr));
}

void Sha256Hash::Update(const unsigned char* bytes, std::size_t length) {
  Require(EVP_DigestUpdate(context_.get(), bytes, length));
}

void Sha256Hash::Final(std::string& digest) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> bytes{};
  unsigned size = 0;
  Require(EVP_DigestFinal_ex(context_.get(), bytes.data(), &size));
  Init();
  digest = common::util::ToHex({reinterpret_cast<const char*>(bytes.data()), size});
}

}  // namespace zagent::ioc

#include "common/src/http/interceptors/SigValidationHttpInterceptor.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include <array>
#include <filesystem>
#include <stdexcept>
#include <string_view>

#include "common/src/http/MutableHttpResponse.h"
#include "common/src/util/Base64.h"
#include "common/src/util/Json.h"
#include "common/src/util/Log.h"

namespace zagent::common {
namespace {

constexpr const char* kHeader = "security";
constexpr const char* kFailure = "Failed to validate signature for response";
constexpr std::array<const char*, 3> kDigests = {"sha256", "sha1", "sha512"};
constexpr std::size_t kMaxNamedCertificates = 16;

struct BioDeleter {
  void operator()(BIO* bio) const { BIO_free_all(bio); }
};
struct DigestContextDeleter {
  void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

struct SecurityHeader {
  std::string signature;  // raw
  std::string digest;
  std::vector<std::string> certificates;
};

SecurityHeader ParseHeader(const std::string& text) {
  rapidjson::Document document;
  util::ParseJson(document, text);
  const rapidjson::Value* signature = util::FindMember(document, "signature");
  const rapidjson::Value* digest = util::FindMember(document, "digest");
  const rapidjson::Value* names = util::FindMember(document, "certificates");
  if (document.HasParseError() || signature == nullptr || !signature->IsString() || digest == nullptr ||
      !digest->IsString() || names == nullptr || !names->IsArray() || names->Size() > kMaxNamedCertificates) {
    throw HttpInterceptorException(kFailure);
  }
  SecurityHeader header;
  ZLOG_DEBUG("Secuirty header found : " << PrintableText(util::ToString(*signature), 4096));
  try {
    header.signature = util::Base64Decode(util::ToString(*signature));
  } catch (const util::Base64Exception&) {
    throw HttpInterceptorException(kFailure);
  }
  header.digest = util::ToString(*digest);
  for (const rapidjson::Value& name : names->GetArray()) {
    if (name.IsString()) header.certificates.push_back(util::ToString(name));
  }
  return header;
}

const EVP_MD* DigestOf(const std::string& name) {
  for (const char* digest : kDigests) {
    if (name == digest) return EVP_get_digestbyname(digest);
  }
  return nullptr;
}

}  // namespace

SigValidationHttpInterceptor::Certificate SigValidationHttpInterceptor::ReadCertificate(const std::string& file) {
  const std::unique_ptr<BIO, BioDeleter> bio(BIO_new_file(file.c_str(), "re"));
  Certificate certificate(bio ? PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr) : nullptr);
  ERR_clear_error();
  if (!certificate) throw std::runtime_error("no certificate in " + file);
  return certificate;
}

SigValidationHttpInterceptor::Certificates SigValidationHttpInterceptor::ReadFolder(const std::string& folder) {
  Certificates certificates;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    if (entry.path().extension() != ".pem" || !entry.is_regular_file()) continue;
    certificates[entry.path().stem().string()] = ReadCertificate(entry.path().string());
  }
  if (certificates.empty()) throw std::runtime_error("no certificate in " + folder);
  return certificates;
}

SigValidationHttpInterceptor::SigValidationHttpInterceptor(const std::string& certificate_folder) {
  try {
    certificates_ = std::make_shared<const Certificates>(ReadFolder(certificate_folder));
  } catch (const std::exception& error) {
    throw HttpInterceptorException(std::string("Failed to initialize SigValidationHttpInterceptor: ") + error.what());
  }
}

std::unique_ptr<HttpInterceptor> SigValidationHttpInterceptor::Clone() const {
  return std::make_unique<SigValidationHttpInterceptor>(*this);
}

void SigValidationHttpInterceptor::ProcessRequest(std::string&, std::vector<unsigned char>&, HttpHeaders&,
                                                  const std::string&) {}

HttpInterceptor::ChunkResult SigValidationHttpInterceptor::ProcessResponseChunk(const std::vector<unsigned char>&,
                                                                                std::vector<unsigned char>&) {
  return ChunkResult::Continue;
}

bool SigValidationHttpInterceptor::IsValid(const std::string& certificate, const std::string& digest,
                                           const std::string& signature,
                                           const std::vector<unsigned char>& payload) const {
  const auto entry = certificates_->find(certificate);
  const EVP_MD* type = DigestOf(digest);
  EVP_PKEY* key = entry == certificates_->end() ? nullptr : X509_get0_pubkey(entry->second.get());
  const std::unique_ptr<EVP_MD_CTX, DigestContextDeleter> context(EVP_MD_CTX_new());
  const bool valid = key != nullptr && type != nullptr && context &&
                     EVP_DigestVerifyInit(context.get(), nullptr, type, nullptr, key) == 1 &&
                     EVP_DigestVerifyUpdate(context.get(), payload.data(), payload.size()) == 1 &&
                     EVP_DigestVerifyFinal(context.get(), reinterpret_cast<const unsigned char*>(signature.data()),
                                           signature.size()) == 1;
  ERR_clear_error();
  return valid;
}

void SigValidationHttpInterceptor::ProcessResponse(const std::string&, MutableHttpResponse& response) {
  const auto entry = response.GetHeaders().find(kHeader);
  if (entry == response.GetHeaders().end()) {
    ZLOG_ERROR("security header not found");
    throw HttpInterceptorException(kFailure);
  }
  const SecurityHeader header = ParseHeader(entry->second);
  for (const std::string& certificate : header.certificates) {
    if (IsValid(certificate, header.digest, header.signature, response.GetPayload())) {
      ZLOG_INFO("Signature validation check passed for response");
      return;
    }
    ZLOG_ERROR("Failed to validate with cert:" << PrintableText(certificate)
                                               << ", digest type:" << PrintableText(header.digest));
  }
  throw HttpInterceptorException(kFailure);
}

}  // namespace zagent::common

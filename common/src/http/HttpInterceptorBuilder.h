#pragma once

#include <memory>
#include <stdexcept>
#include <string>

#include "common/src/http/HmacConfig.h"
#include "common/src/http/HttpInterceptor.h"
#include "common/src/http/ModuleUrlStateTable.h"
#include "common/src/http/interceptors/AuthTag.h"
#include "common/src/http/interceptors/BlockCipherHttpInterceptor.h"
#include "common/src/http/interceptors/Compression.h"

namespace zagent::common {

class HttpInterceptorBuilderException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Puts together the chain of one request, in the order of the calls.
class HttpInterceptorBuilder {
 public:
  // `compression`: null for the usual one.
  HttpInterceptorBuilder& AddLzma(std::shared_ptr<const Compression> compression = nullptr);
  // With the rows of FIM, IOC and AHS.
  HttpInterceptorBuilder& AddUrlUpgrader(std::shared_ptr<ModuleUrlStateTable> states);
  // Throws HttpInterceptorException for a version or tags that cannot be.
  HttpInterceptorBuilder& AddAuth(std::shared_ptr<const HmacConfig> config, AuthTag request_tag, AuthTag response_tag);
  HttpInterceptorBuilder& AddShaVerification(const std::string& expected_hash);
  // Throws HttpInterceptorException for a folder without certificates.
  HttpInterceptorBuilder& AddSigValidation(const std::string& certificate_folder);
  HttpInterceptorBuilder& AddBlockCipher(BlockCipherHttpInterceptor::CipherFactory make_cipher);
  // Throws HttpInterceptorException for an empty path.
  HttpInterceptorBuilder& AddPayloadDumper(const std::string& request_file, const std::string& chunk_response_file,
                                           const std::string& final_response_file);

  // Hands over the chain. Throws HttpInterceptorBuilderException "HttpInterceptors are already built!" the second time.
  [[nodiscard]] HttpInterceptors Build();

 private:
  HttpInterceptors interceptors_;
  bool built_ = false;
};

}  // namespace zagent::common

#include "common/src/http/HttpInterceptorBuilder.h"

#include "common/src/http/interceptors/AuthHttpInterceptor.h"
#include "common/src/http/interceptors/LzmaHttpInterceptor.h"
#include "common/src/http/interceptors/PayloadDumperHttpInterceptor.h"
#include "common/src/http/interceptors/ShaVerificationHttpInterceptor.h"
#include "common/src/http/interceptors/SigValidationHttpInterceptor.h"
#include "common/src/http/interceptors/UrlUpgraderHttpInterceptor.h"

namespace zagent::common {

HttpInterceptorBuilder& HttpInterceptorBuilder::AddLzma(std::shared_ptr<const Compression> compression) {
  interceptors_.push_back(compression ? std::make_unique<LzmaHttpInterceptor>(std::move(compression))
                                      : std::make_unique<LzmaHttpInterceptor>());
  return *this;
}

HttpInterceptorBuilder& HttpInterceptorBuilder::AddUrlUpgrader(std::shared_ptr<ModuleUrlStateTable> states) {
  interceptors_.push_back(std::make_unique<UrlUpgraderHttpInterceptor>(DefaultUrlUpgradeRows(), std::move(states)));
  return *this;
}

HttpInterceptorBuilder& HttpInterceptorBuilder::AddAuth(std::shared_ptr<const HmacConfig> config, AuthTag request_tag,
                                                        AuthTag response_tag) {
  interceptors_.push_back(std::make_unique<AuthHttpInterceptor>(std::move(config), request_tag, response_tag));
  return *this;
}

HttpInterceptorBuilder& HttpInterceptorBuilder::AddShaVerification(const std::string& expected_hash) {
  interceptors_.push_back(std::make_unique<ShaVerificationHttpInterceptor>(expected_hash));
  return *this;
}

HttpInterceptorBuilder& HttpInterceptorBuilder::AddSigValidation(const std::string& certificate_folder) {
  interceptors_.push_back(std::make_unique<SigValidationHttpInterceptor>(certificate_folder));
  return *this;
}

HttpInterceptorBuilder& HttpInterceptorBuilder::AddBlockCipher(BlockCipherHttpInterceptor::CipherFactory make_cipher) {
  interceptors_.push_back(std::make_unique<BlockCipherHttpInterceptor>(std::move(make_cipher)));
  return *this;
}

HttpInterceptorBuilder& HttpInterceptorBuilder::AddPayloadDumper(const std::string& request_file,
                                                                 const std::string& chunk_response_file,
                                                                 const std::string& final_response_file) {
  interceptors_.push_back(
      std::make_unique<PayloadDumperHttpInterceptor>(request_file, chunk_response_file, final_response_file));
  return *this;
}

HttpInterceptors HttpInterceptorBuilder::Build() {
  if (built_) throw HttpInterceptorBuilderException("HttpInterceptors are already built!");
  built_ = true;
  return std::move(interceptors_);
}

}  // namespace zagent::common

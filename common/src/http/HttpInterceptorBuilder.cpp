#include "common/src/http/HttpInterceptorBuilder.h"

#include "common/src/http/interceptors/AuthHttpInterceptor.h"
#include "common/src/http/interceptors/LzmaHttpInterceptor.h"

namespace zagent::common {

HttpInterceptorBuilder& HttpInterceptorBuilder::AddLzma() {
  interceptors_.push_back(std::make_unique<LzmaHttpInterceptor>());
  return *this;
}

HttpInterceptorBuilder& HttpInterceptorBuilder::AddAuth(std::shared_ptr<const HmacConfig> config, AuthTag request_tag,
                                                        AuthTag response_tag) {
  interceptors_.push_back(std::make_unique<AuthHttpInterceptor>(std::move(config), request_tag, response_tag));
  return *this;
}

HttpInterceptors HttpInterceptorBuilder::Build() {
  if (built_) throw HttpInterceptorBuilderException("HttpInterceptors are already built!");
  built_ = true;
  return std::move(interceptors_);
}

}  // namespace zagent::common

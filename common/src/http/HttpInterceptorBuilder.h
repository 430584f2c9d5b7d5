#pragma once

#include <memory>
#include <stdexcept>

#include "common/src/http/HmacConfig.h"
#include "common/src/http/HttpInterceptor.h"
#include "common/src/http/interceptors/AuthTag.h"

namespace zagent::common {

class HttpInterceptorBuilderException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Puts together the chain of one request, in the order of the calls.
class HttpInterceptorBuilder {
 public:
  HttpInterceptorBuilder& AddLzma();
  // Throws HttpInterceptorException for a version or tags that cannot be.
  HttpInterceptorBuilder& AddAuth(std::shared_ptr<const HmacConfig> config, AuthTag request_tag, AuthTag response_tag);

  // Hands over the chain. Throws HttpInterceptorBuilderException "HttpInterceptors are already built!" the second time.
  [[nodiscard]] HttpInterceptors Build();

 private:
  HttpInterceptors interceptors_;
  bool built_ = false;
};

}  // namespace zagent::common

#pragma once

#include <optional>
#include <string>

namespace zagent::common {

// The modules that sign their requests for themselves under version 2, with the header `x-auth` instead of
// X-OSTL-Authorization: 11 to 15.

// The module of a request target (path and query as sent); none for all others.
std::optional<int> FindXAuthModule(const std::string& target);

// The name of the module's secret in the KeyStore. Throws HttpInterceptorException "Invalid X-Auth module: <number>".
const char* XAuthKeyName(int module);

}  // namespace zagent::common

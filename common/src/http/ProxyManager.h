#pragma once

#include <string>

#include "common/src/http/HttpProxy.h"

namespace zagent::common {

// Knows which proxies a request may take.
class ProxyManager {
 public:
  ProxyManager() = default;
  ProxyManager(const ProxyManager&) = delete;
  ProxyManager& operator=(const ProxyManager&) = delete;
  virtual ~ProxyManager() = default;

  // The proxies for a request to `url` in the order to try them; an empty list means a direct connection. Asked once
  // for each request, on the thread of whoever makes it, possibly by several at once, and bounded in time (5 s). What
  // cannot be found out is an empty list; never throws.
  [[nodiscard]] virtual HttpProxy FetchProxiesForRequest(const std::string& url) = 0;
};

}  // namespace zagent::common

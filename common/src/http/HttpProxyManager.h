#pragma once

#include <cstdint>
#include <vector>

#include "common/src/http/ProxyManager.h"
#include "common/src/http/ProxySources.h"

namespace zagent::common {

// Asks the sources of proxies in their order for every request. Thread-safe.
class HttpProxyManager final : public ProxyManager {
 public:
  // `proxy_order`: its decimal digits name the sources in the order to ask them (1 environment, 2 system settings,
  // 3 file); 0 means 123. Other digits are left out with a warning, and so is a digit that came before. `fail_open`:
  // see HttpProxy.
  HttpProxyManager(std::uint32_t proxy_order, bool fail_open, ProxySources sources = ProxySources::Default());

  // What all sources say, in their order. What cannot be a proxy is left out with a warning, and a proxy counts once.
  [[nodiscard]] HttpProxy FetchProxiesForRequest(const std::string& url) override;

 private:
  std::vector<ProxySource> sources_;
  const bool fail_open_;
};

}  // namespace zagent::common

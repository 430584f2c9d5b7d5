#include "common/src/http/HttpProxyManager.h"

#include <algorithm>
#include <string>

#include "common/src/http/ProxyText.h"
#include "common/src/util/Log.h"

namespace zagent::common {
namespace {

constexpr std::uint32_t kDefaultOrder = 123;

}  // namespace

HttpProxyManager::HttpProxyManager(std::uint32_t proxy_order, bool fail_open, ProxySources sources)
    : fail_open_(fail_open) {
  std::string taken;
  for (const char digit : std::to_string(proxy_order == 0 ? kDefaultOrder : proxy_order)) {
    ProxySource* source = digit == '1'   ? &sources.environment
                          : digit == '2' ? &sources.system
                          : digit == '3' ? &sources.file
                                         : nullptr;
    if (source == nullptr || taken.find(digit) != std::string::npos) {
      ZLOG_WARNING("proxy_order " << proxy_order << ": the digit " << digit << " is left out");
      continue;
    }
    taken += digit;
    sources_.push_back(std::move(*source));
  }
}

HttpProxy HttpProxyManager::FetchProxiesForRequest(const std::string& url) {
  ZLOG_DEBUG("FetchProxiesForRequest(" << url << ")");
  std::vector<std::string> proxies;
  for (const ProxySource& source : sources_) {
    for (const std::string& text : source(url)) {
      const std::optional<std::string> proxy = ParseProxy(text);
      if (!proxy) {
        ZLOG_WARNING("Not a proxy, left out: " << MaskCredentials(text));
      } else if (std::find(proxies.begin(), proxies.end(), *proxy) == proxies.end()) {
        proxies.push_back(*proxy);
      }
    }
  }
  return HttpProxy(proxies, fail_open_);
}

}  // namespace zagent::common

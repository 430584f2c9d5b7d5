#include "common/src/http/HttpProxy.h"

#include <strings.h>

#include "common/src/http/HttpHeaders.h"
#include "common/src/util/Log.h"

namespace zagent::common {

HttpProxy::HttpProxy(const std::vector<std::string>& proxies, bool fail_open) : fail_open_(fail_open) {
  for (const std::string& proxy : proxies) {
    if (proxies_.size() == kMaxProxies) {
      ZLOG_INFO("Maximum proxy limit (5) reached. Ignoring " << MaskCredentials(proxy));
      continue;
    }
    if (proxy.empty()) ZLOG_INFO("Empty proxy string detected. Direct connection might be used.");
    proxies_.push_back(proxy);
    ZLOG_INFO("Proxy Added : " << MaskCredentials(proxy));
  }
}

std::string HttpProxy::GetProxy() const {
  return proxies_.empty() || direct_attempt_ ? "" : proxies_[index_];
}

HttpProxyType HttpProxy::GetType() const {
  return strncasecmp(GetProxy().c_str(), "https://", 8) == 0 ? HttpProxyType::Https : HttpProxyType::Http;
}

void HttpProxy::SetNextProxy() {
  if (proxies_.empty() || direct_attempt_) return;
  index_ = (index_ + 1) % proxies_.size();
  ZLOG_TRACE("HttpProxy::SetNextProxy: Setting next proxy to " << index_ << " (out of " << proxies_.size() << ")");
  if (++tried_ < proxies_.size()) return;
  tried_ = 0;
  if (!fail_open_) return;
  ZLOG_INFO("All proxies are tried. ProxyFailOpen flag is enabled, attempting direct connection.");
  direct_attempt_ = true;
}

void HttpProxy::OnSuccess() {
  tried_ = 0;
  if (!direct_attempt_) return;
  ZLOG_DEBUG(
      "Current Http Connection is successful, so no need to attempt direct connection. Resetting the variables.");
  direct_attempt_ = false;
}

std::string MaskCredentials(const std::string& proxy) {
  const std::size_t at = proxy.rfind('@');
  if (at == std::string::npos) return PrintableText(proxy);
  // Only letters make a scheme: "://" may stand in a password.
  const std::size_t colon = proxy.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789");
  const bool has_scheme = colon != std::string::npos && colon < at && proxy.compare(colon, 3, "://") == 0;
  return PrintableText(proxy.substr(0, has_scheme ? colon + 3 : 0) + "***" + proxy.substr(at));
}

}  // namespace zagent::common

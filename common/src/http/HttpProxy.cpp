#include "common/src/http/HttpProxy.h"

#include <strings.h>

#include "common/src/http/HttpHeaders.h"
#include "common/src/http/ProxyText.h"
#include "common/src/util/Log.h"

namespace zagent::common {

namespace {

bool IsHttps(const std::string& proxy) {
  return strncasecmp(proxy.c_str(), "https://", 8) == 0;
}

bool IsHttp(const std::string& proxy) {
  return IsHttps(proxy) || strncasecmp(proxy.c_str(), "http://", 7) == 0;
}

}  // namespace

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
  return IsHttps(GetProxy()) ? HttpProxyType::Https : HttpProxyType::Http;
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
  // Only what is known is a scheme: "://" may stand in a password, and behind a user's name.
  const std::size_t shown = IsHttp(proxy) || IsDirectOrSocks(proxy) ? proxy.find("://") + 3 : 0;
  return PrintableText(proxy.substr(0, shown) + "***" + proxy.substr(at));
}

}  // namespace zagent::common

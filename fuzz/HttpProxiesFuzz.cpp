// Feeds one text to whoever reads proxies, as a stored value, as the environment's list and as a password. What is
// accepted once is accepted again, is printable and names no foreign scheme; a password never reaches a log.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "common/src/http/HttpProxyManager.h"
#include "common/src/http/ProxyText.h"
#include "fuzz/SilentLog.h"

namespace {

namespace common = zagent::common;

void Expect(bool holds) {
  if (!holds) std::abort();
}

void ExpectProxy(const std::string& proxy) {
  Expect(common::ParseProxy(proxy) == proxy);
  for (const char c : proxy) Expect(c > ' ' && c <= '~');
  Expect(!common::IsDirectOrSocks(proxy));
}

void ReadValue(const std::string& text) {
  const std::string value = common::DecipherProxy(text);
  if (const auto proxy = common::ParseProxy(value)) ExpectProxy(*proxy);
  // A masked text has nothing more to hide.
  const std::string masked = common::MaskCredentials(text);
  Expect(common::MaskCredentials(masked).size() <= masked.size() + 3);
}

void ReadList(const std::string& text) {
  setenv("ostrel_https_proxy", text.c_str(), 1);
  common::ProxySources sources{common::EnvironmentProxySource(), {}, {}};
  common::HttpProxyManager manager(1, true, std::move(sources));
  common::HttpProxy proxies = manager.FetchProxiesForRequest("https://platform.example/");
  Expect(proxies.Size() <= common::HttpProxy::kMaxProxies);
  for (std::size_t i = 0; i < proxies.Size(); ++i) {
    ExpectProxy(proxies.GetProxy());
    proxies.SetNextProxy();
  }
  Expect(proxies.IsDirectAttempt() == (proxies.Size() != 0));
}

void HidePassword(const std::string& password) {
  Expect(common::MaskCredentials("http://user:" + password + "@proxy:1") == "http://***@proxy:1");
  Expect(common::MaskCredentials("user:" + password + "@proxy:1") == "***@proxy:1");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zagent::fuzz::SilenceLog();
  const std::string text(reinterpret_cast<const char*>(data), size);
  ReadValue(text);
  ReadList(text);
  HidePassword(text);
  return 0;
}

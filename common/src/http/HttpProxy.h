#pragma once

#include <string>
#include <vector>

namespace zagent::common {

enum class HttpProxyType { Http = 0, Https = 1 };

// The ordered list of proxies that the attempts of one request walk. An empty list means a direct connection.
// Belongs to its request and is used on the HTTP worker only.
class HttpProxy {
 public:
  static constexpr std::size_t kMaxProxies = 5;

  HttpProxy() = default;
  // Proxies beyond the fifth are ignored with a log line. `fail_open`: when the whole list has failed, the attempts
  // that follow go without a proxy, until one of them succeeds.
  explicit HttpProxy(const std::vector<std::string>& proxies, bool fail_open = false);

  [[nodiscard]] std::size_t Size() const { return proxies_.size(); }
  // The proxy of the next attempt as libcurl takes it; empty when it goes direct.
  [[nodiscard]] std::string GetProxy() const;
  // Https for a text that begins "https://".
  [[nodiscard]] HttpProxyType GetType() const;
  // True once the whole list has failed and attempts go without a proxy.
  [[nodiscard]] bool IsDirectAttempt() const { return direct_attempt_; }

  void SetNextProxy();
  // A transfer has succeeded: the list is good, or the direct attempt was.
  void OnSuccess();

 private:
  std::vector<std::string> proxies_;
  std::size_t index_ = 0;
  std::size_t tried_ = 0;
  bool fail_open_ = false;
  bool direct_attempt_ = false;
};

// The proxy as a log line may show it: user name and password become "***". What stands before the last '@' is taken
// for them, so that a password with characters that belong elsewhere hides whole.
std::string MaskCredentials(const std::string& proxy);

}  // namespace zagent::common

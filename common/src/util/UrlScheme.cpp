#include "common/src/util/UrlScheme.h"

namespace zagent::common::util {

std::string UrlScheme(const std::string& url) {
  const std::size_t colon = url.find("://");
  if (colon == std::string::npos) return "";
  std::string scheme = url.substr(0, colon);
  for (char& c : scheme) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    const bool is_legal = (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' || c == '-' || c == '.';
    if (!is_legal) return "";
  }
  return scheme;
}

bool HasForeignScheme(const std::string& url) {
  const std::string scheme = UrlScheme(url);
  return !scheme.empty() && scheme != "https" && scheme != "http";
}

}  // namespace zagent::common::util

#include "common/src/http/RequestTarget.h"

#include <algorithm>

#include "common/src/http/HttpHeaders.h"

namespace zagent::common {
namespace {

constexpr std::size_t kMaxPortDigits = 5;

struct Parts {
  std::string origin;  // scheme and authority
  std::string target;
};

bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}

// "host", "host:443", "user@host", "[::1]:443".
bool IsAuthority(const std::string& text) {
  const std::string host_and_port = text.substr(text.rfind('@') + 1);
  const std::size_t colon = host_and_port.find(':', host_and_port.rfind(']') + 1);
  const std::string port = colon == std::string::npos ? "" : host_and_port.substr(colon + 1);
  const bool has_host = !host_and_port.empty() && colon != 0;
  return has_host && port.size() <= kMaxPortDigits && std::all_of(port.begin(), port.end(), IsDigit);
}

std::string Encode(const std::string& text) {
  constexpr const char* kDigits = "0123456789ABCDEF";
  std::string encoded;
  for (const char c : text) {
    if (c > ' ' && c <= '~') {
      encoded += c;
      continue;
    }
    const auto byte = static_cast<unsigned char>(c);
    encoded.append({'%', kDigits[byte >> 4U], kDigits[byte & 15U]});
  }
  return encoded;
}

Parts Split(const std::string& url) {
  const std::size_t scheme = url.find("://");
  if (scheme == std::string::npos || scheme == 0) throw InvalidUrlException("Invalid URL: " + PrintableText(url));
  const std::size_t authority = scheme + 3;
  const std::size_t path = std::min(url.find_first_of("/?#", authority), url.size());
  if (!IsAuthority(url.substr(authority, path - authority))) {
    throw InvalidUrlException("Invalid URL: " + PrintableText(url));
  }
  std::string target = Encode(url.substr(path, url.find('#', path) - path));
  if (const std::size_t query = target.find('?'); query != std::string::npos && query + 1 == target.size()) {
    target.pop_back();
  }
  if (target.empty() || target.front() != '/') target.insert(target.begin(), '/');
  return {url.substr(0, path), std::move(target)};
}

}  // namespace

std::string UrlAsSent(const std::string& url) {
  const Parts parts = Split(url);
  return parts.origin + parts.target;
}

std::string RequestTarget(const std::string& url) {
  return Split(url).target;
}

}  // namespace zagent::common

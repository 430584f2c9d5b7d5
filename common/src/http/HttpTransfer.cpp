#include "common/src/http/HttpTransfer.h"

#include <sys/stat.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>

#include "common/src/http/RequestTarget.h"
#include "common/src/util/Log.h"

namespace zagent::common {
namespace {

constexpr const char* kAddCallbacks = "Failed to add callbacks to HTTP request for ";
constexpr const char* kAddProxy = "Failed to add proxy info for request to url: ";
constexpr const char* kPrepare = "Failed to prepare HTTP request for ";
constexpr const char* kSetTimeout = "Failed to set timeout on HTTP request for ";
constexpr const char* kAddCertificate = "Failed to add certificate info to HTTP request for ";

// libcurl takes milliseconds in an int, and 0 for no limit, which nobody may have.
long Timeout(std::uint64_t seconds, std::uint64_t fallback) {
  return static_cast<long>(std::min<std::uint64_t>(seconds == 0 ? fallback : seconds, INT_MAX / 1000));
}

bool IsFolder(const std::string& path, const std::string& url) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) {
    ZLOG_ERROR("Certificate path does not exist, invalid path");
    throw HttpException(kAddCertificate + url);
  }
  return S_ISDIR(status.st_mode);
}

}  // namespace

HttpTransfer::HttpTransfer(std::shared_ptr<MutableHttpRequest> request, const std::string& ca_path)
    : request_(std::move(request)), url_(request_->GetUrl()) {
  try {
    request_->BeginAttempt();
  } catch (const HttpInterceptorException& error) {
    throw HttpInterceptorException("Request Processing for url: " + url_ + " failed, error: " + error.what());
  }
  easy_.reset(curl_easy_init());
  if (!easy_) throw HttpException(kPrepare + url_);
  ZLOG_INFO("HttpConfig: verifySSL flag : " << request_->GetSettings().verify_ssl);
  ZLOG_DEBUG("Initiating HTTP request for " << url_);
  SetCallbacks();
  SetTlsVerification();
  SetProxy(ca_path);
  SetBasics();
  SetCertificatePath(ca_path);
  SetMethod();
  SetUrl();
  SetHeaders();
  SetClientCertificate();
}

template <typename Value>
void HttpTransfer::Set(CURLoption option, Value value, const char* failure) {
  if (curl_easy_setopt(easy_.get(), option, value) != CURLE_OK) throw HttpException(failure + url_);
}

void HttpTransfer::SetCallbacks() {
  Set(CURLOPT_WRITEFUNCTION, &HttpTransfer::OnWrite, kAddCallbacks);
  Set(CURLOPT_WRITEDATA, this, kAddCallbacks);
  Set(CURLOPT_HEADERFUNCTION, &HttpTransfer::OnHeader, kAddCallbacks);
  Set(CURLOPT_HEADERDATA, this, kAddCallbacks);
  // A proxy's answer to CONNECT is not the platform's.
  Set(CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L, kAddCallbacks);
  Set(CURLOPT_NOPROGRESS, 0L, kAddCallbacks);
  Set(CURLOPT_XFERINFOFUNCTION, &HttpTransfer::OnProgress, kAddCallbacks);
  Set(CURLOPT_XFERINFODATA, this, kAddCallbacks);
  if (request_->GetMethod() != HttpMethod::Put) return;
  Set(CURLOPT_READFUNCTION, &HttpTransfer::OnRead, kAddCallbacks);
  Set(CURLOPT_READDATA, this, kAddCallbacks);
  Set(CURLOPT_SEEKFUNCTION, &HttpTransfer::OnSeek, kAddCallbacks);
  Set(CURLOPT_SEEKDATA, this, kAddCallbacks);
}

void HttpTransfer::SetTlsVerification() {
  const bool verify = request_->GetSettings().verify_ssl;
  if (!verify) ZLOG_INFO("Skip TLS certificate verification for " << url_);
  const char* failure = verify ? "Failed to set TLS verification for " : "Failed to disable TLS verification for ";
  Set(CURLOPT_SSL_VERIFYPEER, verify ? 1L : 0L, failure);
  Set(CURLOPT_SSL_VERIFYHOST, verify ? 2L : 0L, failure);
}

void HttpTransfer::SetProxy(const std::string& ca_path) {
  const HttpProxy& list = request_->GetProxy();
  // The environment's no_proxy would bypass a proxy that is given here.
  Set(CURLOPT_NOPROXY, "", kAddProxy);
  if (list.Size() == 0) {
    ZLOG_DEBUG("No proxy configured. Attempting direct connection");
  } else if (list.IsDirectAttempt()) {
    ZLOG_DEBUG("Attempting direct connection for failopen");
  }
  const std::string proxy = list.GetProxy();
  proxy_used_ = !proxy.empty();
  if (proxy_used_) {
    Set(CURLOPT_PROXY, proxy.c_str(), kAddProxy);
    SetProxyType(list.GetType(), ca_path);
  } else {
    // Without this, libcurl would take the environment's proxy.
    Set(CURLOPT_PROXY, "", "Failed to disable proxy for url: ");
  }
  ZLOG_INFO("Using proxy :" << MaskCredentials(proxy) << " for " << url_);
}

void HttpTransfer::SetProxyType(HttpProxyType type, const std::string& ca_path) {
  constexpr const char* kFailure = "Failed to add proxy type for request to url: ";
  if (type == HttpProxyType::Http) {
    Set(CURLOPT_PROXYTYPE, static_cast<long>(CURLPROXY_HTTP), kFailure);
    ZLOG_DEBUG("Using http proxy for request to url: " << url_);
    return;
  }
  Set(CURLOPT_PROXYTYPE, static_cast<long>(CURLPROXY_HTTPS), kFailure);
  ZLOG_DEBUG("Using https proxy for request to url: " << url_);
  SetProxyCertificate(ca_path);
}

void HttpTransfer::SetProxyCertificate(const std::string& ca_path) {
  if (ca_path.empty()) {
    ZLOG_INFO("Certificate file path is empty. Skipped proxy ca certificate path config for request to url: " << url_);
    return;
  }
  const bool is_folder = IsFolder(ca_path, url_);
  Set(is_folder ? CURLOPT_PROXY_CAPATH : CURLOPT_PROXY_CAINFO, ca_path.c_str(), kAddCertificate);
  Set(is_folder ? CURLOPT_PROXY_CAINFO : CURLOPT_PROXY_CAPATH, static_cast<const char*>(nullptr), kAddCertificate);
  if (is_folder) {
    ZLOG_DEBUG("Set CURLOPT_PROXY_CAPATH: " << ca_path << " for request to url: " << url_);
  } else {
    ZLOG_DEBUG("Set CURLOPT_PROXY_CAINFO = " << ca_path << " for request to url: " << url_);
  }
}

void HttpTransfer::SetBasics() {
  const HttpRequestSettings& settings = request_->GetSettings();
  Set(CURLOPT_USERAGENT, "ZAgent", kPrepare);
  Set(CURLOPT_SSL_ENABLE_ALPN, 0L, kPrepare);
  Set(CURLOPT_NOSIGNAL, 1L, kPrepare);
#if LIBCURL_VERSION_NUM >= 0x075700
  // A name server that does not answer must hold up neither a cancel nor the shutdown.
  Set(CURLOPT_QUICK_EXIT, 1L, kPrepare);
#endif
  if (settings.http_version == HttpVersion::Http11) {
    ZLOG_DEBUG("Setting HTTP version: HTTP/1.1 for " << url_);
  } else {
    ZLOG_DEBUG("Setting HTTP version: Default (libcurl will negotiate) for " << url_);
  }
  Set(CURLOPT_HTTP_VERSION, static_cast<long>(settings.http_version), kPrepare);
  Set(CURLOPT_CONNECTTIMEOUT, Timeout(settings.connection_timeout, HttpRequestSettings::kDefaultConnectionTimeout),
      kSetTimeout);
  Set(CURLOPT_TIMEOUT, Timeout(settings.request_timeout, HttpRequestSettings::kDefaultRequestTimeout), kSetTimeout);
  // A peer that vanished is noticed on a connection that is kept for later, too.
  Set(CURLOPT_TCP_KEEPALIVE, 1L, kPrepare);
#if LIBCURL_VERSION_NUM >= 0x075700
  // A CA file that was replaced is read again, not only after libcurl's 24 hours.
  Set(CURLOPT_CA_CACHE_TIMEOUT, 0L, kPrepare);
#endif
  // Whatever else this libcurl was built with, a file:// or ftp:// is no platform.
#if LIBCURL_VERSION_NUM >= 0x075500
  Set(CURLOPT_PROTOCOLS_STR, "http,https", kPrepare);
#else
  Set(CURLOPT_PROTOCOLS, static_cast<long>(CURLPROTO_HTTP | CURLPROTO_HTTPS), kPrepare);
#endif
}

void HttpTransfer::SetCertificatePath(const std::string& ca_path) {
  if (ca_path.empty()) {
    ZLOG_INFO("Certificate file path is empty. Skipping certificate info for HTTP request for " << url_);
    return;
  }
  const bool is_folder = IsFolder(ca_path, url_);
  Set(is_folder ? CURLOPT_CAPATH : CURLOPT_CAINFO, ca_path.c_str(), kAddCertificate);
  Set(is_folder ? CURLOPT_CAINFO : CURLOPT_CAPATH, static_cast<const char*>(nullptr), kAddCertificate);
}

void HttpTransfer::SetMethod() {
  const auto& payload = request_->GetAttempt().payload;
  const auto size = static_cast<curl_off_t>(payload.size());
  switch (request_->GetMethod()) {
    case HttpMethod::Get:
      Set(CURLOPT_HTTPGET, 1L, "Failed to add GET method to HTTP request for ");
      return;
    case HttpMethod::Post: {
      constexpr const char* kFailure = "Failed to add POST method to HTTP request for ";
      Set(CURLOPT_POST, 1L, kFailure);
      Set(CURLOPT_POSTFIELDSIZE_LARGE, size, kFailure);
      // A null pointer would ask for the read callback.
      Set(CURLOPT_POSTFIELDS, payload.empty() ? "" : reinterpret_cast<const char*>(payload.data()), kFailure);
      return;
    }
    case HttpMethod::Put:
      Set(CURLOPT_UPLOAD, 1L, "Failed to add PUT method to HTTP request for ");
      Set(CURLOPT_INFILESIZE_LARGE, size, "Failed to add PUT method to HTTP request for ");
      return;
  }
  throw HttpException("Failed to add method to HTTP request for " + url_ + " : Unknown HTTP method");
}

void HttpTransfer::SetUrl() {
  constexpr const char* kFailure = "Failed to add url to HTTP request for ";
  // libcurl must find nothing to change in what has been signed.
  Set(CURLOPT_PATH_AS_IS, 1L, kFailure);
  try {
    Set(CURLOPT_URL, UrlAsSent(request_->GetAttempt().url).c_str(), kFailure);
  } catch (const InvalidUrlException&) {
    throw HttpException(kFailure + url_);
  }
}

void HttpTransfer::SetHeaders() {
  const HttpHeaders& headers = request_->GetAttempt().headers;
  for (const auto& [name, value] : headers) AppendHeader(name, value);
  // Without a type of its own, libcurl would add one to a POST that nobody has signed.
  if (!headers.contains("Content-Type")) AppendHeaderLine("Content-Type:", "Content-Type");
  Set(CURLOPT_HTTPHEADER, headers_.get(), "Failed to add headers to HTTP request for ");
}

void HttpTransfer::AppendHeader(const std::string& name, const std::string& value) {
  ZLOG_TRACE("Adding header: " << PrintableText(name));
  constexpr std::string_view kForbidden("\r\n\0", 3);
  if (name.empty() || name.find_first_of(kForbidden) != std::string::npos || name.find(':') != std::string::npos ||
      value.find_first_of(kForbidden) != std::string::npos) {
    throw HttpException("Failed to add header: " + PrintableText(name));
  }
  // libcurl reads "Name:" as a wish to leave the header out.
  AppendHeaderLine(value.empty() ? name + ";" : name + ": " + value, name);
}

void HttpTransfer::AppendHeaderLine(const std::string& line, const std::string& name) {
  curl_slist* longer = curl_slist_append(headers_.get(), line.c_str());
  if (longer == nullptr) throw HttpException("Failed to add header: " + PrintableText(name));
  (void)headers_.release();  // the list begins with the same node, or this was its first
  headers_.reset(longer);
}

void HttpTransfer::SetClientCertificate() {
  const auto& details = request_->GetSettings().client_authentication;
  if (!details) return;
  const std::string& path = details->certificate_path;
  const std::string failure = "Failed to add Client Certificates to HTTP request for ";
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) {
    ZLOG_ERROR("Client certificate file path: " << path << " does not exist for " << url_);
    throw HttpException(failure + url_);
  }
  if (!S_ISREG(status.st_mode)) {
    ZLOG_ERROR("Client certificate file: " << path << " is invalid for " << url_);
    throw HttpException(failure + url_);
  }
  Set(CURLOPT_SSLCERTTYPE, "P12", failure.c_str());
  Set(CURLOPT_SSLCERT, path.c_str(), failure.c_str());
  Set(CURLOPT_KEYPASSWD, details->password.c_str(), failure.c_str());
  ZLOG_INFO("Added Client Certificate Details to URL: " << url_);
}

TransferOutcome HttpTransfer::Outcome(CURLcode result) const {
  TransferOutcome outcome;
  outcome.url = url_;
  outcome.curl_code = result;
  outcome.proxy_used = proxy_used_;
  outcome.cancelled = request_->IsCancelled();
  outcome.from_platform = request_->HasResponseHeader("Z-SRV");
  curl_easy_getinfo(easy_.get(), CURLINFO_RESPONSE_CODE, &outcome.response_code);
  ZLOG_INFO("Received HTTP response code: " << outcome.response_code);
#if LIBCURL_VERSION_NUM >= 0x080700  // CURLINFO_USED_PROXY is that young
  long used = 0;
  if (curl_easy_getinfo(easy_.get(), CURLINFO_USED_PROXY, &used) == CURLE_OK) outcome.proxy_used = used != 0;
#endif
  if (outcome.proxy_used) {
    long verify_result = 0;
    curl_easy_getinfo(easy_.get(), CURLINFO_HTTP_CONNECTCODE, &outcome.connect_code);
    curl_easy_getinfo(easy_.get(), CURLINFO_PROXY_SSL_VERIFYRESULT, &verify_result);
    outcome.proxy_certificate_failed = verify_result != 0;
  }
  ZLOG_TRACE("URL: " << url_ << " Proxy-Used: " << outcome.proxy_used);
  return outcome;
}

std::string HttpTransfer::LocalIp() const {
  const char* text = nullptr;
  if (curl_easy_getinfo(easy_.get(), CURLINFO_LOCAL_IP, &text) != CURLE_OK || text == nullptr) return "";
  return text;
}

bool HttpTransfer::LogIfCancelled() const {
  if (!request_->IsCancelled()) return false;
  ZLOG_INFO("Cancelling HTTP request for " << url_);
  return true;
}

std::size_t HttpTransfer::OnWrite(char* data, std::size_t size, std::size_t count, void* user) {
  const auto* self = static_cast<HttpTransfer*>(user);
  if (self == nullptr) {
    ZLOG_ERROR("Invalid data passed to curl write callback");
    return 0;
  }
  if (self->LogIfCancelled()) return 0;
  try {
    return self->request_->AppendResponseData(data, size * count) ? size * count : 0;
  } catch (...) {  // must not pass through libcurl
    return 0;
  }
}

std::size_t HttpTransfer::OnRead(char* buffer, std::size_t size, std::size_t count, void* user) {
  auto* self = static_cast<HttpTransfer*>(user);
  if (self->LogIfCancelled()) return CURL_READFUNC_ABORT;
  const auto& payload = self->request_->GetAttempt().payload;
  const std::size_t taken = std::min(size * count, payload.size() - self->read_offset_);
  if (taken != 0) std::memcpy(buffer, payload.data() + self->read_offset_, taken);
  self->read_offset_ += taken;
  return taken;
}

// A connection that was kept and turns out to be closed makes libcurl begin again on a fresh one.
int HttpTransfer::OnSeek(void* user, curl_off_t offset, int origin) {
  auto* self = static_cast<HttpTransfer*>(user);
  const auto size = static_cast<curl_off_t>(self->request_->GetAttempt().payload.size());
  if (origin != SEEK_SET || offset < 0 || offset > size) return CURL_SEEKFUNC_FAIL;
  self->read_offset_ = static_cast<std::size_t>(offset);
  return CURL_SEEKFUNC_OK;
}

std::size_t HttpTransfer::OnHeader(char* data, std::size_t size, std::size_t count, void* user) {
  const auto* self = static_cast<HttpTransfer*>(user);
  if (self == nullptr || data == nullptr) {
    ZLOG_ERROR("Invalid data passed to curl header callback");
    return 0;
  }
  if (self->LogIfCancelled()) return 0;
  try {
    self->request_->AddResponseHeader(std::string(data, size * count));
  } catch (...) {  // must not pass through libcurl
    return 0;
  }
  return size * count;
}

int HttpTransfer::OnProgress(void* user, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
  const auto* self = static_cast<HttpTransfer*>(user);
  if (self == nullptr) {
    ZLOG_ERROR("Invalid data passed to curl progress callback");
    return 1;
  }
  return self->LogIfCancelled() ? 1 : 0;
}

}  // namespace zagent::common

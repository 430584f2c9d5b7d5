#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

#include "common/src/http/HttpInterceptor.h"
#include "common/src/http/HttpPostProcessor.h"
#include "common/src/http/HttpProxy.h"
#include "common/src/http/HttpRequest.h"
#include "common/src/http/HttpRetryPolicy.h"
#include "common/src/http/MutableHttpResponse.h"
#include "common/src/http/WakeUp.h"

namespace zagent::common {

// A certificate with its key in PKCS #12 form, by which this host proves to the server who it is.
struct ClientAuthentication {
  std::string certificate_path;
  std::string password;
};

// How a request is made, beside what it sends.
struct HttpRequestSettings {
  static constexpr std::uint64_t kDefaultConnectionTimeout = 30;
  static constexpr std::uint64_t kDefaultRequestTimeout = 60;

  std::uint64_t connection_timeout = 0;  // seconds, for each attempt; 0: the default above
  std::uint64_t request_timeout = 0;     // seconds, for each attempt; 0: the default above
  bool verify_ssl = true;
  HttpVersion http_version = HttpVersion::Default;
  std::optional<ClientAuthentication> client_authentication;
  std::string download_path;                            // where the body goes; empty: to memory
  std::uint64_t range_size = 0;                         // bytes to ask for at a time; 0: the whole
  std::unique_ptr<HttpRetryPolicy> retry_policy;        // none: DefaultHttpRetryPolicy(3, 5 s)
  std::function<void(const HttpRequest&)> on_finished;  // called once, on the HTTP worker, without a lock
};

// The shared record of one exchange: what to send, who waits, what came back. The caller keeps its read-only face; the
// HTTP worker fills it and is the only one to call what is not in HttpRequest, but for SetWakeUp.
//
// URL, headers and payload stay as they were given: every attempt starts from them, so that a retry never compresses
// twice and never sends an old signature.
class MutableHttpRequest final : public HttpRequest {
 public:
  // A longer body is cut there: what the platform answers is small.
  static constexpr std::size_t kMaxResponseSize = MutableHttpResponse::kMaxPayloadInMemory;
  static constexpr std::size_t kMaxResponseHeaders = 256;
  // As much of a body as OnAttemptEnded shows.
  static constexpr std::size_t kMaxShownBody = 65'536;

  MutableHttpRequest(HttpMethod method, std::string url, HttpHeaders headers, std::vector<unsigned char> payload,
                     HttpInterceptors interceptors, HttpRequestSettings settings, HttpProxy proxy = HttpProxy());

  [[nodiscard]] const std::string& GetUrl() const override { return url_; }
  [[nodiscard]] State GetState() const override;
  const HttpResponse& GetResponse() const override;
  void Cancel() override;
  [[nodiscard]] HttpMethod GetMethod() const override { return method_; }

  // How the worker sleeps: Cancel wakes it, so that it need not find out by itself, and GetResponse knows its thread.
  // Set before the request is queued.
  void SetWakeUp(std::shared_ptr<WakeUp> wake_up) { wake_up_ = std::move(wake_up); }
  [[nodiscard]] bool IsCancelled() const { return cancelled_; }

  // Gets the finished request once. Set before the request is queued; may be null.
  void SetPostProcessor(std::shared_ptr<HttpPostProcessor> processor) { post_processor_ = std::move(processor); }

  // --- What an attempt sends. Valid between BeginAttempt and SetStatus.
  struct Attempt {
    std::string url;
    HttpHeaders headers;
    std::vector<unsigned char> payload;
  };
  // Runs the interceptors over fresh copies. Throws HttpInterceptorException when one refuses.
  void BeginAttempt();
  [[nodiscard]] const Attempt& GetAttempt() const { return attempt_; }
  [[nodiscard]] const HttpRequestSettings& GetSettings() const { return settings_; }
  [[nodiscard]] const HttpProxy& GetProxy() const { return proxy_; }

  // --- What comes back.
  // False when the body has reached its bound or data is null.
  bool AppendResponseData(const void* data, std::size_t size);
  // A header line as it came, "Name: value" with or without a line end. A status line clears the headers: those of a
  // "100 Continue" are not the answer's.
  void AddResponseHeader(const std::string& line);
  [[nodiscard]] bool HasResponseHeader(const std::string& name) const;
  void SetLocalIp(const std::string& local_ip);
  [[nodiscard]] std::string GetLocalIp() const;
  // What went wrong with this attempt beside the answer's code: the response's message, if it ends with an error.
  void SetErrorText(const std::string& text) { error_text_ = PrintableText(text); }

  // Ends the attempt and decides what follows: Completed, Failed, Cancelled or WaitingForRetry; behind PartialSuccess
  // the latter has no wait. A download whose body has not come whole, by libcurl's code, is a network error.
  void SetStatus(HttpStatus status, long http_code, int curl_code);
  [[nodiscard]] int GetCurlCode() const;
  // Ends a request that is not finished as Failed, whatever state it is in: what should have ended it failed itself,
  // and nobody shall wait for it.
  void Fail(const std::string& reason);

  [[nodiscard]] bool IsRetryDue() const { return retry_policy_->IsRetryDue(); }
  [[nodiscard]] std::chrono::nanoseconds GetRemainingWait() const { return retry_policy_->GetRemainingWait(); }

 private:
  void ApplyStatus(HttpStatus status, long http_code);
  void RunChunkThroughInterceptors();
  void Complete(long http_code);
  // A part that was asked for: more ranges to come, or the last one.
  void TakeRange(std::uint64_t received, long http_code);
  void FinishWithError(HttpStatus status, long http_code);
  void FailProcessing(const std::string& reason, long http_code);
  [[nodiscard]] bool IsDownload() const { return !settings_.download_path.empty() || settings_.range_size != 0; }
  void ShowAttempt(HttpStatus status, long http_code, bool is_proxys_own);
  void CallOnFinished();
  void CallPostProcessor();
  [[nodiscard]] static bool IsFinal(State state);

  const HttpMethod method_;
  const std::string url_;
  const HttpHeaders headers_;
  const std::vector<unsigned char> payload_;
  const HttpInterceptors interceptors_;
  HttpRequestSettings settings_;
  HttpProxy proxy_;
  std::unique_ptr<HttpRetryPolicy> retry_policy_;
  std::shared_ptr<WakeUp> wake_up_;
  std::shared_ptr<HttpPostProcessor> post_processor_;
  std::atomic<bool> cancelled_{false};

  std::uint64_t range_offset_ = 0;  // bytes that earlier ranges have brought
  std::uint64_t range_total_ = 0;   // bytes of the whole, as the first range told; 0 before it
  Attempt attempt_;
  bool sent_ = false;  // this attempt has passed the interceptors
  std::vector<unsigned char> chunk_;
  std::string error_text_;

  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  State state_ = State::InFlight;
  std::unique_ptr<MutableHttpResponse> response_;
  int curl_code_ = 0;
  std::string local_ip_;
};

}  // namespace zagent::common

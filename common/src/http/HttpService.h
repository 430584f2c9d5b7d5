#pragma once

#include <cstdint>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "common/src/http/HttpPostProcessor.h"
#include "common/src/http/HttpWorker.h"
#include "common/src/http/ProxyManager.h"

namespace zagent::common {

// The one client for all traffic to the platform: a single thread on which every libcurl call takes place. Requests
// are queued from any thread; retries, proxies, certificates and TLS options live here, so that callers only see a
// final response. Interceptors and callbacks run on that thread without a lock of the service: they may queue requests.
class HttpService {
 public:
  static constexpr std::size_t kMaxPutSize = 16384;

  // `ca_path`: a file or folder of certificates to verify the platform with; empty leaves libcurl its default.
  // `proxies`: asked for every request of Get, Post and Put; null sends them direct.
  // Throws HttpException "Failed to initialize libcurl".
  explicit HttpService(std::string ca_path, std::unique_ptr<ProxyManager> proxies = nullptr);
  HttpService(const HttpService&) = delete;
  HttpService& operator=(const HttpService&) = delete;
  ~HttpService();  // NOLINT(bugprone-exception-escape)

  // Gets every finished request; an HttpErrorParser does until then. Throws HttpException "PostProcessor is null", and
  // "HttpService is already running" unless stopped.
  void SetPostProcessor(std::unique_ptr<HttpPostProcessor> processor);

  // Throws HttpException "HttpService cannot be started when in state <0 stopped, 1 running, 2 stopping>".
  void Start();
  // Ends what is in flight, queued or waiting for a retry as Aborted and waits for the thread. Harmless when stopped,
  // or when another thread is about it. From a callback or an interceptor, on that very thread, throws HttpException
  // "HttpService cannot be stopped on its own thread".
  void Stop();

  // Throws HttpException "HttpService is not running". The request becomes final in any case after this.
  void Enqueue(const std::shared_ptr<MutableHttpRequest>& request);

  // Each throws what Enqueue throws; Put also "PUT method only supports a maximum payload of 16KB".
  std::shared_ptr<HttpRequest> Get(const std::string& url, HttpHeaders headers, HttpInterceptors interceptors,
                                   HttpRequestSettings settings);
  std::shared_ptr<HttpRequest> Post(const std::string& url, HttpHeaders headers, std::vector<unsigned char> payload,
                                    HttpInterceptors interceptors, HttpRequestSettings settings);
  std::shared_ptr<HttpRequest> Put(const std::string& url, HttpHeaders headers, std::vector<unsigned char> payload,
                                   HttpInterceptors interceptors, HttpRequestSettings settings);

 private:
  enum class State : std::uint32_t { Stopped = 0, Running = 1, Stopping = 2 };

  std::shared_ptr<HttpRequest> Send(HttpMethod method, const std::string& url, HttpHeaders headers,
                                    std::vector<unsigned char> payload, HttpInterceptors interceptors,
                                    HttpRequestSettings settings);
  void Run();
  // False once the service is stopping.
  bool TakeQueue(HttpRequestQueue& requests);

  const std::string ca_path_;
  const std::unique_ptr<ProxyManager> proxies_;
  // Shared with the requests: a Cancel may come after the service has gone.
  const std::shared_ptr<WakeUp> wake_up_;
  std::mutex mutex_;  // guards the queue, the state and the post-processor only
  HttpRequestQueue request_queue_;
  std::shared_ptr<HttpPostProcessor> post_processor_;  // the requests keep their share
  State state_ = State::Stopped;
  std::future<void> worker_;
};

}  // namespace zagent::common

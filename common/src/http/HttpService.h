#pragma once

#include <cstdint>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "common/src/http/HttpWorker.h"

namespace zagent::common {

// The one client for all traffic to the platform: a single thread on which every libcurl call takes place. Requests
// are queued from any thread; retries, proxies, certificates and TLS options live here, so that callers only see a
// final response. Interceptors and callbacks run on that thread without a lock of the service: they may queue requests.
class HttpService {
 public:
  static constexpr std::size_t kMaxPutSize = 16384;

  // `ca_path`: a file or folder of certificates to verify the platform with; empty leaves libcurl its default.
  // Throws HttpException "Failed to initialize libcurl".
  explicit HttpService(std::string ca_path);
  HttpService(const HttpService&) = delete;
  HttpService& operator=(const HttpService&) = delete;
  ~HttpService();

  // Throws HttpException "HttpService cannot be started when in state <0 stopped, 1 running, 2 stopping>".
  void Start();
  // Ends what is in flight, queued or waiting for a retry as Aborted and waits for the thread. Harmless when stopped.
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

  void Run();
  // False once the service is stopping.
  bool TakeQueue(HttpRequestQueue& requests);

  const std::string ca_path_;
  // Shared with the requests: a Cancel may come after the service has gone.
  const std::shared_ptr<WakeUp> wake_up_;
  std::mutex mutex_;  // guards the queue and the state only
  HttpRequestQueue request_queue_;
  State state_ = State::Stopped;
  std::future<void> worker_;
};

}  // namespace zagent::common

#include "common/src/http/HttpService.h"

#include <netinet/in.h>
#include <resolv.h>

#include <system_error>

#include "common/src/util/Log.h"

namespace zagent::common {

HttpService::HttpService(std::string ca_path) : ca_path_(std::move(ca_path)), wake_up_(std::make_shared<WakeUp>()) {
  res_init();
  if (curl_global_init(CURL_GLOBAL_ALL) != CURLE_OK) throw HttpException("Failed to initialize libcurl");
}

HttpService::~HttpService() {
  Stop();
  curl_global_cleanup();
}

void HttpService::Start() {
  const std::lock_guard lock(mutex_);
  if (state_ != State::Stopped) {
    throw HttpException("HttpService cannot be started when in state " +
                        std::to_string(static_cast<std::uint32_t>(state_)));
  }
  try {
    worker_ = std::async(std::launch::async, [this] { Run(); });
  } catch (const std::system_error& error) {
    throw HttpException(std::string("HttpService cannot be started: ") + error.what());
  }
  state_ = State::Running;
}

void HttpService::Stop() {
  {
    const std::lock_guard lock(mutex_);
    if (!worker_.valid()) return;
    ZLOG_DEBUG("Stopping HTTP service ...");
    state_ = State::Stopping;
  }
  wake_up_->Notify();
  worker_.get();
  {
    const std::lock_guard lock(mutex_);
    state_ = State::Stopped;
  }
  ZLOG_INFO("HTTP service stopped");
}

void HttpService::Enqueue(const std::shared_ptr<MutableHttpRequest>& request) {
  request->SetWakeUp([wake_up = wake_up_] { wake_up->Notify(); });
  {
    const std::lock_guard lock(mutex_);
    if (state_ != State::Running) throw HttpException("HttpService is not running");
    request_queue_.push_back(request);
  }
  wake_up_->Notify();
}

std::shared_ptr<HttpRequest> HttpService::Get(const std::string& url, HttpHeaders headers,
                                              HttpInterceptors interceptors, HttpRequestSettings settings) {
  auto request =
      std::make_shared<MutableHttpRequest>(HttpMethod::Get, url, std::move(headers), std::vector<unsigned char>(),
                                           std::move(interceptors), std::move(settings));
  Enqueue(request);
  return request;
}

std::shared_ptr<HttpRequest> HttpService::Post(const std::string& url, HttpHeaders headers,
                                               std::vector<unsigned char> payload, HttpInterceptors interceptors,
                                               HttpRequestSettings settings) {
  auto request = std::make_shared<MutableHttpRequest>(HttpMethod::Post, url, std::move(headers), std::move(payload),
                                                      std::move(interceptors), std::move(settings));
  Enqueue(request);
  return request;
}

std::shared_ptr<HttpRequest> HttpService::Put(const std::string& url, HttpHeaders headers,
                                              std::vector<unsigned char> payload, HttpInterceptors interceptors,
                                              HttpRequestSettings settings) {
  if (payload.size() > kMaxPutSize) throw HttpException("PUT method only supports a maximum payload of 16KB");
  auto request = std::make_shared<MutableHttpRequest>(HttpMethod::Put, url, std::move(headers), std::move(payload),
                                                      std::move(interceptors), std::move(settings));
  Enqueue(request);
  return request;
}

bool HttpService::TakeQueue(HttpRequestQueue& requests) {
  const std::lock_guard lock(mutex_);
  if (state_ == State::Stopping) return false;
  requests.swap(request_queue_);
  return true;
}

void HttpService::Run() {
  HttpWorker worker(ca_path_, *wake_up_);
  if (!worker.IsReady()) {
    ZLOG_FATAL("Failed to create Curl multi handle");
    const std::lock_guard lock(mutex_);
    state_ = State::Stopping;  // what comes later is refused; what came already ends below
  }
  HttpRequestQueue requests;
  while (TakeQueue(requests)) {
    try {
      worker.Turn(requests);
    } catch (const std::exception& error) {
      ZLOG_FATAL("HTTP service: a turn of the worker failed: " << error.what());
    }
    requests.clear();
    worker.Wait();
  }
  {
    const std::lock_guard lock(mutex_);
    requests.swap(request_queue_);
  }
  worker.AbortAll(requests);
}

}  // namespace zagent::common

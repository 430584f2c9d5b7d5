#include "common/src/http/HttpService.h"

#include <netinet/in.h>
#include <resolv.h>

#include <system_error>

#include "common/src/http/HttpErrorParser.h"
#include "common/src/util/CurrentException.h"
#include "common/src/util/Log.h"
#include "common/src/util/ThreadName.h"

namespace zagent::common {

HttpService::HttpService(std::string ca_path, std::unique_ptr<ProxyManager> proxies)
    : ca_path_(std::move(ca_path)),
      proxies_(std::move(proxies)),
      wake_up_(std::make_shared<WakeUp>()),
      post_processor_(std::make_shared<HttpErrorParser>()) {
  res_init();
  if (curl_global_init(CURL_GLOBAL_ALL) != CURLE_OK) throw HttpException("Failed to initialize libcurl");
}

// What is ended on its own thread ends the process: nobody could wait for that thread.
HttpService::~HttpService() {  // NOLINT(bugprone-exception-escape)
  Stop();
  curl_global_cleanup();
}

void HttpService::SetPostProcessor(std::unique_ptr<HttpPostProcessor> processor) {
  if (!processor) throw HttpException("PostProcessor is null");
  const std::lock_guard lock(mutex_);
  if (state_ != State::Stopped) throw HttpException("HttpService is already running");
  post_processor_ = std::move(processor);
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
  std::future<void> worker;
  {
    const std::lock_guard lock(mutex_);
    if (!worker_.valid()) return;
    if (wake_up_->IsClaimedByThisThread()) throw HttpException("HttpService cannot be stopped on its own thread");
    ZLOG_DEBUG("Stopping HTTP service ...");
    state_ = State::Stopping;
    worker = std::move(worker_);
  }
  wake_up_->Notify();
  worker.get();
  {
    const std::lock_guard lock(mutex_);
    state_ = State::Stopped;
  }
  ZLOG_INFO("HTTP service stopped");
}

void HttpService::Enqueue(const std::shared_ptr<MutableHttpRequest>& request) {
  request->SetWakeUp(wake_up_);
  {
    const std::lock_guard lock(mutex_);
    if (state_ != State::Running) throw HttpException("HttpService is not running");
    request->SetPostProcessor(post_processor_);
    request_queue_.push_back(request);
  }
  wake_up_->Notify();
}

std::shared_ptr<HttpRequest> HttpService::Get(const std::string& url, HttpHeaders headers,
                                              HttpInterceptors interceptors, HttpRequestSettings settings) {
  return Send(HttpMethod::Get, url, std::move(headers), {}, std::move(interceptors), std::move(settings));
}

std::shared_ptr<HttpRequest> HttpService::Post(const std::string& url, HttpHeaders headers,
                                               std::vector<unsigned char> payload, HttpInterceptors interceptors,
                                               HttpRequestSettings settings) {
  return Send(HttpMethod::Post, url, std::move(headers), std::move(payload), std::move(interceptors),
              std::move(settings));
}

std::shared_ptr<HttpRequest> HttpService::Put(const std::string& url, HttpHeaders headers,
                                              std::vector<unsigned char> payload, HttpInterceptors interceptors,
                                              HttpRequestSettings settings) {
  if (payload.size() > kMaxPutSize) throw HttpException("PUT method only supports a maximum payload of 16KB");
  return Send(HttpMethod::Put, url, std::move(headers), std::move(payload), std::move(interceptors),
              std::move(settings));
}

std::shared_ptr<HttpRequest> HttpService::Send(HttpMethod method, const std::string& url, HttpHeaders headers,
                                               std::vector<unsigned char> payload, HttpInterceptors interceptors,
                                               HttpRequestSettings settings) {
  HttpProxy proxy = proxies_ ? proxies_->FetchProxiesForRequest(url) : HttpProxy();
  auto request = std::make_shared<MutableHttpRequest>(method, url, std::move(headers), std::move(payload),
                                                      std::move(interceptors), std::move(settings), std::move(proxy));
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
  wake_up_->Claim();
  util::NameThisThread("edr-http");
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
    } catch (...) {
      ZLOG_FATAL("HTTP service: a turn of the worker failed: " << util::DescribeCurrentException());
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

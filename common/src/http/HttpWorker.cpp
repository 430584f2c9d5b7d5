#include "common/src/http/HttpWorker.h"

#include <algorithm>
#include <utility>

#include "common/src/util/CurrentException.h"
#include "common/src/util/Log.h"

namespace zagent::common {
namespace {

constexpr int kTransferWaitMs = 5000;
constexpr int kRetryWaitMs = 1000;

// What goes wrong with one request ends that one: nobody waits for it for ever, and the others go on.
template <typename Step>
void Guard(MutableHttpRequest& request, const Step& step) {
  try {
    step();
  } catch (...) {
    request.Fail(util::DescribeCurrentException());
  }
}

}  // namespace

HttpWorker::HttpWorker(std::string ca_path, WakeUp& wake_up)
    : ca_path_(std::move(ca_path)), wake_up_(wake_up), multi_(curl_multi_init()) {}

void HttpWorker::Turn(const HttpRequestQueue& requests) {
  for (const auto& request : requests) Start(request);
  for (const auto& request : std::exchange(next_ranges_, {})) Start(request);
  StartDueRetries();
  Perform();
  CollectFinished();
}

void HttpWorker::Abort(MutableHttpRequest& request) {
  Guard(request, [&] {
    ZLOG_INFO("Cancelling HTTP request for " << request.GetUrl());
    request.SetStatus(HttpStatus::Aborted, 0, CURLE_OK);
  });
}

void HttpWorker::Start(const std::shared_ptr<MutableHttpRequest>& request) {
  if (request->IsCancelled()) return Abort(*request);
  Guard(*request, [&] { BeginTransfer(request); });
}

// What cannot be begun ends here, with a line that says why.
void HttpWorker::BeginTransfer(const std::shared_ptr<MutableHttpRequest>& request) {
  std::string failure;
  try {
    auto transfer = std::make_unique<HttpTransfer>(request, ca_path_);
    CURL* handle = transfer->Get();
    const auto entry = active_requests_.emplace(handle, std::move(transfer)).first;
    if (curl_multi_add_handle(multi_.get(), handle) == CURLM_OK) return;
    active_requests_.erase(entry);
    failure = "Failed to add curl handle for " + request->GetUrl();
  } catch (const std::exception& error) {
    failure = error.what();
  }
  ZLOG_ERROR(failure);
  request->SetErrorText(failure);
  EndAttempt(request, {HttpStatus::NotStarted, 0}, CURLE_OK);
}

void HttpWorker::EndAttempt(const std::shared_ptr<MutableHttpRequest>& request, const TransferVerdict& verdict,
                            CURLcode result) {
  request->SetStatus(verdict.status, verdict.http_code, result);
  if (request->GetState() != HttpRequest::State::WaitingForRetry) return;
  if (verdict.status == HttpStatus::PartialSuccess) {
    next_ranges_.push_back(request);
  } else {
    retry_requests_.push_back(request);
  }
}

void HttpWorker::StartDueRetries() {
  std::vector<std::shared_ptr<MutableHttpRequest>> waiting;
  waiting.swap(retry_requests_);
  for (const auto& request : waiting) {
    if (request->IsCancelled()) {
      Abort(*request);
    } else if (request->IsRetryDue()) {
      ZLOG_INFO("Retrying HTTP request for " << request->GetUrl());
      Start(request);
    } else {
      Guard(*request, [&] { retry_requests_.push_back(request); });
    }
  }
}

void HttpWorker::Perform() {
  int running = 0;
  const CURLMcode result = curl_multi_perform(multi_.get(), &running);
  if (result != CURLM_OK) ZLOG_FATAL("curl_multi_perform failed: " << curl_multi_strerror(result));
}

void HttpWorker::CollectFinished() {
  int left = 0;
  while (const CURLMsg* message = curl_multi_info_read(multi_.get(), &left)) {
    if (message->msg == CURLMSG_DONE) Finish(message->easy_handle, message->data.result);
  }
}

void HttpWorker::Finish(CURL* handle, CURLcode result) {
  const auto entry = active_requests_.find(handle);
  if (entry == active_requests_.end()) return RemoveUnknown(handle);
  const std::unique_ptr<HttpTransfer> transfer = std::move(entry->second);
  active_requests_.erase(entry);
  const std::shared_ptr<MutableHttpRequest> request = transfer->SharedRequest();
  Guard(*request, [&] {
    ZLOG_DEBUG("Processing response for url: " << request->GetUrl());
    const TransferVerdict verdict = Classify(transfer->Outcome(result));
    request->SetLocalIp(transfer->LocalIp());
    if (result != CURLE_OK) request->SetErrorText(curl_easy_strerror(result));
    if (curl_multi_remove_handle(multi_.get(), handle) != CURLM_OK) {
      ZLOG_WARNING("Failed to remove curl handle for " << request->GetUrl());
    }
    EndAttempt(request, verdict, result);
  });
}

void HttpWorker::RemoveUnknown(CURL* handle) {
  ZLOG_ERROR("Failed to find active HTTP request for unknown url");
  if (curl_multi_remove_handle(multi_.get(), handle) != CURLM_OK) {
    ZLOG_WARNING("Failed to remove the unknown curl handle");
  }
}

int HttpWorker::WaitLimitMs() const {
  if (!next_ranges_.empty()) return 0;
  if (retry_requests_.empty()) return kTransferWaitMs;
  auto wait = std::chrono::nanoseconds(std::chrono::milliseconds(kRetryWaitMs));
  for (const auto& request : retry_requests_) wait = std::min(wait, request->GetRemainingWait());
  return static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(wait).count());
}

void HttpWorker::Wait() {
  if (active_requests_.empty() && retry_requests_.empty() && next_ranges_.empty()) {
    wake_up_.Wait(-1);
  } else {
    curl_waitfd extra{wake_up_.GetFd(), CURL_WAIT_POLLIN, 0};
    const CURLMcode result = curl_multi_wait(multi_.get(), &extra, 1, WaitLimitMs(), nullptr);
    if (result != CURLM_OK) {
      ZLOG_FATAL("curl_multi_wait failed: " << curl_multi_strerror(result));
      wake_up_.Wait(kRetryWaitMs);  // no busy loop
    }
  }
  wake_up_.Drain();
}

void HttpWorker::AbortAll(const HttpRequestQueue& queued) {
  for (auto& [handle, transfer] : std::exchange(active_requests_, {})) {
    const std::shared_ptr<MutableHttpRequest> request = transfer->SharedRequest();
    if (curl_multi_remove_handle(multi_.get(), handle) != CURLM_OK) {
      ZLOG_WARNING("Failed to remove curl handle for " << request->GetUrl());
    }
    transfer.reset();
    Abort(*request);
  }
  for (const auto& request : queued) Abort(*request);
  for (const auto& request : std::exchange(next_ranges_, {})) Abort(*request);
  for (const auto& request : std::exchange(retry_requests_, {})) Abort(*request);
}

}  // namespace zagent::common

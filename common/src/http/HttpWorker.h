#pragma once

#include <deque>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "common/src/http/CurlHandles.h"
#include "common/src/http/HttpTransfer.h"
#include "common/src/http/WakeUp.h"

namespace zagent::common {

using HttpRequestQueue = std::deque<std::shared_ptr<MutableHttpRequest>>;

// What the one HTTP thread works with: the multi handle, with its kept connections, the transfers in flight and the
// requests that wait for their next attempt. Everything here happens on that thread and without a lock.
class HttpWorker {
 public:
  HttpWorker(std::string ca_path, WakeUp& wake_up);
  HttpWorker(const HttpWorker&) = delete;
  HttpWorker& operator=(const HttpWorker&) = delete;
  ~HttpWorker() = default;

  // False when libcurl gave no multi handle.
  [[nodiscard]] bool IsReady() const { return multi_ != nullptr; }

  // One turn: starts what is new and what is due again, lets libcurl work, finishes what is done.
  void Turn(const HttpRequestQueue& requests);
  // Sleeps until a socket, a notification or the next retry has something to do.
  void Wait();
  // Every request that is not finished, `queued` included, becomes Aborted.
  void AbortAll(const HttpRequestQueue& queued);

 private:
  void Start(const std::shared_ptr<MutableHttpRequest>& request);
  void BeginTransfer(const std::shared_ptr<MutableHttpRequest>& request);
  void StartDueRetries();
  void Perform();
  void CollectFinished();
  void Finish(CURL* handle, CURLcode result);
  void EndAttempt(const std::shared_ptr<MutableHttpRequest>& request, const TransferVerdict& verdict, CURLcode result);
  void RemoveUnknown(CURL* handle);
  [[nodiscard]] int WaitLimitMs() const;
  static void Abort(MutableHttpRequest& request);

  const std::string ca_path_;
  WakeUp& wake_up_;
  MultiHandle multi_;
  std::unordered_map<CURL*, std::unique_ptr<HttpTransfer>> active_requests_;
  std::vector<std::shared_ptr<MutableHttpRequest>> retry_requests_;
  HttpRequestQueue next_ranges_;  // they follow at once, behind what is queued
};

}  // namespace zagent::common

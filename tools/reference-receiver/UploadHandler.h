#pragma once

#include <Poco/Net/HTTPRequestHandler.h>

#include <atomic>
#include <condition_variable>
#include <mutex>

#include "tools/reference-receiver/PayloadStore.h"
#include "tools/reference-receiver/ReceiverOptions.h"
#include "tools/reference-receiver/SignatureVerifier.h"

namespace zagent::tools {

// What the handlers of all requests share.
struct ReceiverState {
  explicit ReceiverState(ReceiverOptions given)
      : options(std::move(given)),
        verifier(options.customer_id, options.agent_id, options.activation_id),
        store(options.store_folder) {}

  // Whole lines, one at a time.
  void Print(const std::string& line);
  // Sleeps for the delay of the options, or until Stop.
  void Delay();
  void Stop();

  const ReceiverOptions options;
  const SignatureVerifier verifier;
  PayloadStore store;
  std::atomic<unsigned> forced_answers{0};

 private:
  std::mutex print_mutex_;
  std::mutex stop_mutex_;
  std::condition_variable stopping_;
  bool stopped_ = false;
};

// Answers one request: 200 for an upload that is accepted, 401 for a bad signature, 503 when it cannot be stored, 400,
// 405, 413 and 415 for what cannot be read.
class UploadHandler final : public Poco::Net::HTTPRequestHandler {
 public:
  // More than this is refused, compressed or not.
  static constexpr std::size_t kMaxBodySize = 64UL * 1024 * 1024;

  explicit UploadHandler(ReceiverState& state) : state_(state) {}

  void handleRequest(Poco::Net::HTTPServerRequest& request, Poco::Net::HTTPServerResponse& response) override;

 private:
  struct Verdict {
    int status;
    std::string reason;  // of a refusal
  };

  Verdict Judge(Poco::Net::HTTPServerRequest& request);
  Verdict Accept(const Poco::Net::HTTPServerRequest& request, std::string body);
  // The status that the options force upon this request, 0 for none.
  int ForcedStatus();
  void Answer(Poco::Net::HTTPServerResponse& response, int status);
  void AnswerTruncated(Poco::Net::HTTPServerResponse& response);

  ReceiverState& state_;
};

}  // namespace zagent::tools

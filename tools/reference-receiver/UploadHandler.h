#pragma once

#include <Poco/Net/HTTPRequestHandler.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tools/reference-receiver/IocBatch.h"
#include "tools/reference-receiver/PayloadStore.h"
#include "tools/reference-receiver/ReceiverOptions.h"
#include "tools/reference-receiver/SignatureVerifier.h"

namespace zagent::tools {

// What the handlers of all requests share.
struct ReceiverState {
  explicit ReceiverState(ReceiverOptions given)
      : options(std::move(given)),
        verifier(options.customer_id, options.agent_id, options.activation_id, common::util::Clock::Real(),
                 options.hmac_v3_file),
        store(options.store_folder, options.keep_payloads) {}

  // Whole lines, one at a time.
  void Print(const std::string& line);
  // Sleeps for the delay of the options, or until Stop.
  void Delay();
  void AwaitStop();
  void Stop();
  // True for the first `lose_answers` uploads that are accepted.
  bool LosesThisAnswer() { return ++accepted_ <= options.lose_answers; }
  // The fault of the answer to an upload that is accepted.
  ReceiverOptions::BodyFault NextBodyFault(const std::string& target) {
    if (target.find(options.only_for) == std::string::npos) return ReceiverOptions::BodyFault::None;
    const bool has_more = options.body_fault_uploads == 0 || ++faults_ <= options.body_fault_uploads;
    return has_more ? options.body_fault : ReceiverOptions::BodyFault::None;
  }

  const ReceiverOptions options;
  const SignatureVerifier verifier;
  PayloadStore store;
  SequenceNumbers sequence;
  std::atomic<unsigned> forced_answers{0};

 private:
  std::mutex print_mutex_;
  std::mutex stop_mutex_;
  std::condition_variable stopping_;
  bool stopped_ = false;
  std::atomic<unsigned> accepted_{0};
  std::atomic<unsigned> faults_{0};
};

// Answers one request: 200 for an upload that is accepted, 401 for a bad signature, 503 when it cannot be stored, 400,
// 405, 413 and 415 for what cannot be read.
class UploadHandler final : public Poco::Net::HTTPRequestHandler {
 public:
  explicit UploadHandler(ReceiverState& state) : state_(state) {}

  void handleRequest(Poco::Net::HTTPServerRequest& request, Poco::Net::HTTPServerResponse& response) override;

 private:
  struct Verdict {
    int status;
    std::string reason;                                          // of a refusal
    std::vector<std::pair<std::string, std::string>> headers{};  // of the answer
  };

  Verdict Judge(Poco::Net::HTTPServerRequest& request);
  Verdict Accept(const Poco::Net::HTTPServerRequest& request, std::string body);
  // Why the identity that the headers claim is not that of the signature; empty when it is.
  [[nodiscard]] std::string FindForeignIdentity(const Poco::Net::HTTPServerRequest& request) const;
  // What keeps a document of events from following its schema, if that is asked for.
  [[nodiscard]] std::optional<std::string> FindDocumentFault(const std::string& text) const;
  // The batch of an upload to a path of indicators of compromise; nothing when it is none, or another agent's.
  [[nodiscard]] std::optional<IocBatch> DecodeBatch(const Poco::Net::HTTPServerRequest& request,
                                                    const std::string& text) const;
  // The status that the options force upon this request, 0 for none.
  int ForcedStatus(const std::string& target);
  void Answer(Poco::Net::HTTPServerResponse& response, const Verdict& verdict);
  void AnswerInPart(Poco::Net::HTTPServerRequest& request, Poco::Net::HTTPServerResponse& response,
                    ReceiverOptions::BodyFault fault);

  ReceiverState& state_;
};

}  // namespace zagent::tools

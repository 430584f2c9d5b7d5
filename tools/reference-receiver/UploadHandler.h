#pragma once

#include <Poco/Net/HTTPRequestHandler.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common/src/util/Clock.h"
#include "tools/reference-receiver/AgentKeys.h"
#include "tools/reference-receiver/IocBatch.h"
#include "tools/reference-receiver/PageFeed.h"
#include "tools/reference-receiver/PayloadStore.h"
#include "tools/reference-receiver/ReceiverOptions.h"
#include "tools/reference-receiver/SignatureVerifier.h"
#include "tools/reference-receiver/UploadSink.h"

namespace zagent::tools {

// Keeps a flood of refusals from being one of lines: so many a second, and behind them how many more there were.
// Thread-safe.
class RefusalLines {
 public:
  static constexpr unsigned kMaxPerSecond = 100;

  explicit RefusalLines(const common::util::Clock& clock) : clock_(clock) {}

  // The lines to print now for one more refusal, none at the bound.
  std::vector<std::string> LinesFor(const std::string& reason);

 private:
  const common::util::Clock& clock_;
  std::mutex mutex_;
  common::util::Clock::SteadyTime second_{};
  unsigned count_ = 0;
};

// What the handlers of all requests share.
struct ReceiverState {
  // Throws what AgentKeys, SignatureVerifier and the sinks throw.
  explicit ReceiverState(ReceiverOptions given);

  // Whole lines, one at a time.
  void Print(const std::string& line);
  void PrintRefusal(const std::string& reason);
  void CountRequest();
  [[nodiscard]] unsigned RequestCount() const;
  // False when `count` requests have not come in this time.
  [[nodiscard]] bool WaitForRequests(unsigned count, std::chrono::milliseconds timeout) const;
  // Sleeps for the delay of the options, or until Stop.
  void Delay();
  void AwaitStop();
  void Stop();
  // A body that is larger need not be read, compressed or not.
  [[nodiscard]] std::size_t MaxBodySize() const { return std::min(options.max_body_size, sink->MaxSize()); }
  // True for the first `lose_answers` uploads that are accepted.
  bool LosesThisAnswer() { return ++accepted_ <= options.lose_answers; }
  // The fault of the answer to an upload that is accepted.
  ReceiverOptions::BodyFault NextBodyFault(const std::string& target) {
    if (target.find(options.only_for) == std::string::npos) return ReceiverOptions::BodyFault::None;
    const bool has_more = options.body_fault_uploads == 0 || ++faults_ <= options.body_fault_uploads;
    return has_more ? options.body_fault : ReceiverOptions::BodyFault::None;
  }

  const ReceiverOptions options;

 private:
  std::mutex print_mutex_;  // before whatever has something to say
  RefusalLines refusals_{common::util::Clock::Real()};

 public:
  const AgentKeys agents;
  const SignatureVerifier verifier;
  const std::unique_ptr<UploadSink> sink;
  PayloadStore* const store;  // the sink, when it is one of files
  SequenceNumbers sequence;
  const std::unique_ptr<PageFeed> page;  // none without a page
  std::atomic<unsigned> forced_answers{0};
  // Whether connections wait for a thread.
  std::function<bool()> is_pressed = [] { return false; };

 private:
  mutable std::mutex requests_mutex_;
  mutable std::condition_variable arrived_;
  unsigned requests_ = 0;
  std::mutex stop_mutex_;
  std::condition_variable stopping_;
  bool stopped_ = false;
  std::atomic<unsigned> accepted_{0};
  std::atomic<unsigned> faults_{0};
};

// Answers one request: 200 for an upload that is accepted, 401 for a bad signature, 503 when it cannot be stored, 400,
// 405, 413 and 415 for what cannot be read. The body of whoever is not known by the head is not kept.
class UploadHandler final : public Poco::Net::HTTPRequestHandler {
 public:
  explicit UploadHandler(ReceiverState& state) : state_(state) {}

  void handleRequest(Poco::Net::HTTPServerRequest& request, Poco::Net::HTTPServerResponse& response) override;

 private:
  struct Verdict {
    int status;
    std::string reason;                                          // of a refusal
    std::vector<std::pair<std::string, std::string>> headers{};  // of the answer
    bool ends_connection = false;                                // the request was not read to its end
  };

  Verdict Judge(Poco::Net::HTTPServerRequest& request);
  Verdict Accept(const Poco::Net::HTTPServerRequest& request, const AgentIdentity& sender, std::string body);
  // Why the identity that the headers claim is not that of the signature; empty when it is.
  [[nodiscard]] static std::string FindForeignIdentity(const Poco::Net::HTTPServerRequest& request,
                                                       const AgentIdentity& sender);
  // What keeps a document of events from following its schema, if that is asked for.
  [[nodiscard]] std::optional<std::string> FindDocumentFault(const std::string& text) const;
  // The batch of an upload to a path of indicators of compromise; nothing when it is none, or another agent's.
  [[nodiscard]] static std::optional<IocBatch> DecodeBatch(const AcceptedPayload& payload);
  // The status that the options force upon this request, 0 for none.
  int ForcedStatus(const std::string& target);
  void Answer(Poco::Net::HTTPServerResponse& response, const Verdict& verdict);
  void AnswerInPart(Poco::Net::HTTPServerRequest& request, Poco::Net::HTTPServerResponse& response,
                    ReceiverOptions::BodyFault fault);

  ReceiverState& state_;
};

}  // namespace zagent::tools

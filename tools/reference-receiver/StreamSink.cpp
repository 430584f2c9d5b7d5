#include "tools/reference-receiver/StreamSink.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "tools/event-stream/StreamMessage.h"

namespace zagent::tools {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr std::size_t kMaxHeaderValue = 200;
// One try takes no longer than this: the servers may have chosen another leader since.
constexpr milliseconds kTry{1'500};
constexpr milliseconds kPause{50};
constexpr const char* kFull = "the stream is full";

std::string HeaderOf(const AcceptedPayload& payload, const char* name) {
  const auto found = payload.headers.find(name);
  return found == payload.headers.end() ? "" : found->second;
}

// Printable ASCII: nothing else can stand in a message's header.
bool IsHeaderValue(const std::string& text) {
  return text.size() <= kMaxHeaderValue &&
         std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

NatsPtr<natsMsg> MakeMessage(const AcceptedPayload& payload, const std::string& received) {
  const AgentIdentity& sender = payload.sender;
  if (!IsSubjectWord(sender.customer_id) || !IsSubjectWord(sender.agent_id)) {
    throw UnfitPayloadException("identity cannot be a word of a subject");
  }
  if (payload.text.size() > static_cast<std::size_t>(std::numeric_limits<int>::max())) {
    throw PayloadTooLargeException("too large for the stream");
  }
  const std::string subject =
      std::string(kSubjectRoot) + "." + sender.customer_id + "." + sender.agent_id + "." + ToString(payload.kind);
  natsMsg* raw = nullptr;
  natsStatus status =
      natsMsg_Create(&raw, subject.c_str(), nullptr, payload.text.data(), static_cast<int>(payload.text.size()));
  NatsPtr<natsMsg> message(raw);
  const std::string type = HeaderOf(payload, "content-type");
  const std::pair<const char*, std::string> headers[] = {{kTypeHeader, IsHeaderValue(type) ? type : ""},
                                                         {kCustomerHeader, sender.customer_id},
                                                         {kAgentHeader, sender.agent_id},
                                                         {kReceivedHeader, received}};
  for (const auto& [name, value] : headers) {
    if (status == NATS_OK && !value.empty()) status = natsMsgHeader_Set(raw, name, value.c_str());
  }
  if (status != NATS_OK) throw std::runtime_error(NatsErrorText(status));
  return message;
}

bool IsFull(jsErrCode code, const std::string& text) {
  return code == JSStreamStoreFailedErr || code == JSStorageResourcesExceededErr ||
         code == JSAccountResourcesExceededErr || code == JSInsufficientResourcesErr ||
         text.find("maximum bytes exceeded") != std::string::npos;
}

}  // namespace

StreamSink::StreamSink(StreamOptions options, std::function<void(const std::string&)> say,
                       const common::util::Clock& clock)
    : clock_(clock), connection_(std::move(options), StreamConnection::Stream::Make, std::move(say)) {}

StreamSink::~StreamSink() = default;

void StreamSink::Stop() {
  {
    const std::lock_guard lock(stop_mutex_);
    stopped_ = true;
    stopping_.notify_all();
  }
  connection_.Stop();
}

bool StreamSink::Pause() {
  std::unique_lock lock(stop_mutex_);
  return stopping_.wait_for(lock, kPause, [this] { return stopped_; });
}

std::size_t StreamSink::MaxSize() const {
  const auto session = connection_.Current();
  const std::size_t size = session ? session->MaxPayload() : 0;
  return size == 0 ? UploadSink::MaxSize() : size;
}

bool StreamSink::Add(const AcceptedPayload& payload, const std::function<void()>&) {
  const std::string id = HeaderOf(payload, "z-reqid");
  if (!IsHeaderValue(id)) throw UnfitPayloadException("Z-REQID cannot be the id of a message");
  const NatsPtr<natsMsg> message =
      MakeMessage(payload, common::util::FormatUtc(common::util::ToNanoseconds(clock_.Now())));
  const auto deadline = steady_clock::now() + connection_.Options().ack_wait;
  std::string why = "the engine is away";
  bool has_tried = false;
  std::shared_ptr<const StreamSession> gone;  // its stream does not answer
  do {
    const auto session = connection_.Current();
    const auto left = std::chrono::ceil<milliseconds>(deadline - steady_clock::now());
    if (!session || !session->IsConnected() || left.count() <= 0) continue;
    bool is_gone = false;
    const Outcome outcome = Publish(*session, message.get(), id, std::min(left, kTry), why, is_gone);
    // What the engine knows from a try whose answer was lost is as new as if that answer had come.
    if (outcome != Outcome::Failed) return outcome == Outcome::Kept || has_tried;
    has_tried = true;
    if (is_gone) gone = session;
  } while (steady_clock::now() < deadline && !Pause());
  if (gone) connection_.Doubt(gone);
  throw std::runtime_error("not kept: " + why);
}

StreamSink::Outcome StreamSink::Publish(const StreamSession& session, natsMsg* message, const std::string& id,
                                        milliseconds patience, std::string& why, bool& is_gone) const {
  jsPubOptions options;
  jsPubOptions_Init(&options);
  options.MaxWait = patience.count();
  options.MsgId = id.empty() ? nullptr : id.c_str();
  options.ExpectStream = connection_.Options().name.c_str();
  jsPubAck* raw = nullptr;
  jsErrCode code{};
  const natsStatus status = js_PublishMsg(&raw, session.JetStream(), message, &options, &code);
  const NatsPtr<jsPubAck> ack(raw);
  // The engine knows an id from the moment it comes. Without a place in the stream nothing is stored under it yet, and
  // may never be: its leader can go first.
  if (status == NATS_OK && ack && ack->Sequence == 0) {
    why = "the engine has not stored it yet";
    return Outcome::Failed;
  }
  if (status == NATS_OK) return ack && ack->Duplicate ? Outcome::Repeated : Outcome::Kept;
  why = NatsErrorText(status);
  if (status == NATS_MAX_PAYLOAD || code == JSStreamMessageExceedsMaximumErr) {
    throw PayloadTooLargeException("too large for the stream");
  }
  // No try of this upload will find more room.
  if (status == NATS_ERR && IsFull(code, why)) throw std::runtime_error(std::string("not kept: ") + kFull + ": " + why);
  is_gone = status == NATS_NO_RESPONDERS;
  if (is_gone) why = "the stream does not answer";
  return Outcome::Failed;
}

}  // namespace zagent::tools

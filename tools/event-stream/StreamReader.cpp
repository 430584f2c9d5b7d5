#include "tools/event-stream/StreamReader.h"

#include <stdexcept>
#include <utility>

namespace zagent::tools {
namespace {

constexpr std::int64_t kFlushTimeoutMs = 5'000;
constexpr std::int64_t kMaxUnacknowledged = 1'000;

bool IsPassing(natsStatus status) {
  return status == NATS_TIMEOUT || status == NATS_CONNECTION_DISCONNECTED || status == NATS_CONNECTION_CLOSED ||
         status == NATS_NO_RESPONDERS || status == NATS_STALE_CONNECTION || status == NATS_NO_SERVER;
}

}  // namespace

std::string StreamReader::Message::Header(const char* name) const {
  const char* value = nullptr;
  return natsMsgHeader_Get(owned.get(), name, &value) == NATS_OK && value != nullptr ? value : "";
}

StreamReader::StreamReader(const StreamConnection& connection, Options options)
    : connection_(connection), options_(std::move(options)) {}

bool StreamReader::Subscribe(std::chrono::milliseconds patience) {
  const auto session = connection_.Await(patience);
  if (!session || !session->IsConnected()) return false;
  if (session == session_ && subscription_ && !is_stale_) return true;
  subscription_.reset();
  is_stale_ = false;
  session_ = session;
  jsSubOptions options;
  jsSubOptions_Init(&options);
  options.Stream = connection_.Options().name.c_str();
  options.Config.AckPolicy = js_AckExplicit;
  options.Config.AckWait = std::chrono::nanoseconds(options_.ack_wait).count();
  options.Config.MaxAckPending = kMaxUnacknowledged;
  options.Config.HeadersOnly = options_.only_headers;
  natsSubscription* subscription = nullptr;
  jsErrCode code{};
  const natsStatus status = js_PullSubscribe(&subscription, session->JetStream(), options_.subject.c_str(),
                                             options_.name.c_str(), nullptr, &options, &code);
  if (status == NATS_OK) {
    subscription_.reset(subscription);
    return true;
  }
  if (IsPassing(status)) return false;
  throw std::runtime_error("reader " + options_.name + ": " + NatsErrorText(status));
}

std::vector<StreamReader::Message> StreamReader::Read(int count, std::chrono::milliseconds patience) {
  if (!Subscribe(patience)) return {};
  natsMsgList list{};
  jsErrCode code{};
  const natsStatus status = natsSubscription_Fetch(&list, subscription_.get(), count, patience.count(), &code);
  std::vector<Message> messages;
  for (int i = 0; i < list.Count; ++i) {
    natsMsg* message = std::exchange(list.Msgs[i], nullptr);
    const int size = natsMsg_GetDataLength(message);
    std::string text = size > 0 ? std::string(natsMsg_GetData(message), static_cast<std::size_t>(size)) : "";
    messages.push_back({NatsPtr<natsMsg>(message), natsMsg_GetSubject(message), std::move(text)});
  }
  natsMsgList_Destroy(&list);
  if (status == NATS_OK || status == NATS_TIMEOUT) return messages;
  // The name may have been deleted under way, or the server gone: begin anew.
  is_stale_ = true;
  if (messages.empty() && !IsPassing(status)) {
    throw std::runtime_error("reader " + options_.name + ": " + NatsErrorText(status));
  }
  return messages;
}

bool StreamReader::Acknowledge(const std::vector<Message>& messages) {
  bool is_well = session_ != nullptr;
  for (const Message& message : messages) is_well = natsMsg_Ack(message.owned.get(), nullptr) == NATS_OK && is_well;
  return is_well && natsConnection_FlushTimeout(session_->Connection(), kFlushTimeoutMs) == NATS_OK;
}

void StreamReader::GiveBack(const std::vector<Message>& messages) {
  for (const Message& message : messages) (void)natsMsg_Nak(message.owned.get(), nullptr);
  if (session_) (void)natsConnection_FlushTimeout(session_->Connection(), kFlushTimeoutMs);
}

void StreamReader::Forget() {
  is_stale_ = true;
  if (!session_) return;
  jsErrCode code{};
  js_DeleteConsumer(session_->JetStream(), connection_.Options().name.c_str(), options_.name.c_str(), nullptr, &code);
}

}  // namespace zagent::tools

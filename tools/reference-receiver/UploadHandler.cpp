#include "tools/reference-receiver/UploadHandler.h"

#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerRequestImpl.h>
#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/String.h>
#include <sys/socket.h>

#include <iomanip>
#include <istream>
#include <ostream>
#include <sstream>
#include <stdexcept>

#include "common/src/http/interceptors/LzmaCompression.h"
#include "common/src/util/Fnv.h"
#include "tools/json-schema/JsonSchema.h"
#include "tools/reference-receiver/EventLines.h"
#include "tools/reference-receiver/StreamSink.h"

namespace zagent::tools {
namespace {

using Poco::Net::HTTPServerRequest;
using Poco::Net::HTTPServerResponse;

std::optional<std::string> HeaderOf(const HTTPServerRequest& request, const std::string& name) {
  if (!request.has(name)) return std::nullopt;
  return request.get(name);
}

// Of a body that is not kept so much is read, so that an honest sender gets its answer: one who still sends when the
// connection ends may not see it.
constexpr std::size_t kMaxDiscarded = 1UL << 20U;

// Encoders name a dictionary of this size whatever they are given: a body with it need not be large.
constexpr std::size_t kUsualDictionary = 8UL << 20U;

constexpr const char* kTooLarge = "body too large";

// False when the body is larger than allowed; reads no more than that. `keep` gets it, or nobody; `size` is what was
// read.
bool ReadBody(HTTPServerRequest& request, std::size_t max_size, std::string* keep, std::size_t& size) {
  if (request.hasContentLength() && request.getContentLength64() > static_cast<Poco::Int64>(max_size)) return false;
  std::istream& in = request.stream();
  char buffer[16384];
  while (in.read(buffer, sizeof(buffer)) || in.gcount() > 0) {
    size += static_cast<std::size_t>(in.gcount());
    if (size > max_size) return false;
    if (keep != nullptr) keep->append(buffer, static_cast<std::size_t>(in.gcount()));
  }
  return true;
}

std::string HashText(const std::string& text) {
  std::ostringstream hash;
  hash << std::hex << std::setfill('0') << std::setw(16)
       << common::util::Fnv1a64(reinterpret_cast<const unsigned char*>(text.data()), text.size());
  return hash.str();
}

// Ends the connection with a reset: a connected socket that is "connected to nothing" forgets its peer rudely.
void ResetConnection(HTTPServerRequest& request) {
  auto& accepted = dynamic_cast<Poco::Net::HTTPServerRequestImpl&>(request);
  sockaddr nothing{};
  nothing.sa_family = AF_UNSPEC;
  (void)connect(accepted.socket().impl()->sockfd(), &nothing, sizeof(nothing));
}

std::unique_ptr<UploadSink> MakeSink(const ReceiverOptions& options, std::function<void(const std::string&)> say) {
  if (!options.stream) return std::make_unique<PayloadStore>(options.store_folder, options.keep_payloads);
  if (!options.store_folder.empty()) throw std::invalid_argument("Uploads go to files or to a stream, not to both");
  return std::make_unique<StreamSink>(*options.stream, std::move(say));
}

}  // namespace

std::vector<std::string> RefusalLines::LinesFor(const std::string& reason) {
  const std::lock_guard lock(mutex_);
  std::vector<std::string> lines;
  const auto now = clock_.SteadyNow();
  if (now - second_ >= std::chrono::seconds(1)) {
    if (count_ > kMaxPerSecond) lines.push_back("rejected: " + std::to_string(count_ - kMaxPerSecond) + " more");
    second_ = now;
    count_ = 0;
  }
  if (++count_ <= kMaxPerSecond) lines.push_back("rejected: " + reason);
  return lines;
}

ReceiverState::ReceiverState(ReceiverOptions given)
    : options(std::move(given)),
      agents({{options.customer_id, options.agent_id}, options.activation_id}, options.keys_file,
             [this](const std::string& line) { Print(line); }),
      verifier(agents, common::util::Clock::Real(), options.hmac_v3_file),
      sink(MakeSink(options, [this](const std::string& line) { Print(line); })),
      store(dynamic_cast<PayloadStore*>(sink.get())),
      page(options.page_port ? std::make_unique<PageFeed>() : nullptr) {}

void ReceiverState::Print(const std::string& line) {
  if (!options.print) return;
  const std::lock_guard lock(print_mutex_);
  options.print(line);
}

void ReceiverState::PrintRefusal(const std::string& reason) {
  for (const std::string& line : refusals_.LinesFor(reason)) Print(line);
}

void ReceiverState::CountRequest() {
  const std::lock_guard lock(requests_mutex_);
  ++requests_;
  arrived_.notify_all();
}

unsigned ReceiverState::RequestCount() const {
  const std::lock_guard lock(requests_mutex_);
  return requests_;
}

bool ReceiverState::WaitForRequests(unsigned count, std::chrono::milliseconds timeout) const {
  std::unique_lock lock(requests_mutex_);
  return arrived_.wait_for(lock, timeout, [&] { return requests_ >= count; });
}

void ReceiverState::Delay() {
  if (options.delay.count() == 0) return;
  std::unique_lock lock(stop_mutex_);
  stopping_.wait_for(lock, options.delay, [this] { return stopped_; });
}

void ReceiverState::AwaitStop() {
  std::unique_lock lock(stop_mutex_);
  stopping_.wait(lock, [this] { return stopped_; });
}

void ReceiverState::Stop() {
  sink->Stop();
  const std::lock_guard lock(stop_mutex_);
  stopped_ = true;
  stopping_.notify_all();
}

void UploadHandler::handleRequest(HTTPServerRequest& request, HTTPServerResponse& response) {
  const Verdict verdict = Judge(request);
  if (!verdict.reason.empty()) {
    state_.PrintRefusal(verdict.reason);
    if (state_.page) state_.page->OnRefused(verdict.reason);
  }
  state_.Delay();
  if (state_.options.reset) {
    state_.Print("answered: reset");
    return ResetConnection(request);
  }
  if (verdict.status == HTTPServerResponse::HTTP_OK) {
    if (state_.LosesThisAnswer()) {
      state_.Print("answered: lost");
      return ResetConnection(request);
    }
    const ReceiverOptions::BodyFault fault = state_.NextBodyFault(request.getURI());
    if (fault != ReceiverOptions::BodyFault::None) return AnswerInPart(request, response, fault);
  }
  Answer(response, verdict);
}

UploadHandler::Verdict UploadHandler::Judge(HTTPServerRequest& request) {
  SignedRequest signed_request{request.getMethod(),
                               request.getURI(),
                               "",
                               HeaderOf(request, "Content-Type"),
                               HeaderOf(request, "X-OSTL-Authorization"),
                               HeaderOf(request, "X-OSTL-Timestamp")};
  const SignatureVerifier::Claim claim = state_.verifier.ReadHead(signed_request);
  const bool is_claimed = claim.fault.empty();
  const std::size_t max_size = state_.MaxBodySize();
  std::size_t size = 0;
  const bool fits = ReadBody(request, is_claimed ? max_size : std::min(max_size, kMaxDiscarded),
                             is_claimed ? &signed_request.body : nullptr, size);
  state_.CountRequest();
  if (!fits && is_claimed) return {HTTPServerResponse::HTTP_REQUEST_ENTITY_TOO_LARGE, kTooLarge, {}, true};
  if (!fits) return {HTTPServerResponse::HTTP_UNAUTHORIZED, claim.fault, {}, true};
  // The client has gone or been too slow; under V2 no signature would tell.
  if (request.hasContentLength() && static_cast<Poco::Int64>(size) != request.getContentLength64()) {
    return {HTTPServerResponse::HTTP_BAD_REQUEST, "body incomplete"};
  }
  if (const int forced = ForcedStatus(request.getURI()); forced != 0) {
    state_.Print("answered: " + std::to_string(forced));
    return {forced, ""};
  }
  if (state_.options.reset) return {0, ""};
  if (request.getMethod() != "POST") return {HTTPServerResponse::HTTP_METHOD_NOT_ALLOWED, "not a POST"};
  if (!is_claimed) return {HTTPServerResponse::HTTP_UNAUTHORIZED, claim.fault};
  if (const auto fault = state_.verifier.FindFault(signed_request)) {
    return {HTTPServerResponse::HTTP_UNAUTHORIZED, *fault};
  }
  if (const std::string foreign = FindForeignIdentity(request, claim.sender); !foreign.empty()) {
    return {HTTPServerResponse::HTTP_UNAUTHORIZED, foreign};
  }
  auto answer_headers = state_.verifier.SignAnswer(signed_request, "");
  Verdict verdict = Accept(request, claim.sender, std::move(signed_request.body));
  if (verdict.status == HTTPServerResponse::HTTP_OK) verdict.headers = std::move(answer_headers);
  return verdict;
}

UploadHandler::Verdict UploadHandler::Accept(const HTTPServerRequest& request, const AgentIdentity& sender,
                                             std::string body) {
  const std::string encoding = request.get("Content-Encoding", "");
  if (!encoding.empty() && encoding != "LZMA") {
    return {HTTPServerResponse::HTTP_UNSUPPORTEDMEDIATYPE, "unknown content encoding"};
  }
  try {
    AcceptedPayload payload{std::move(body), request.getURI(), {}};
    payload.sender = sender;
    payload.kind = KindOfTarget(payload.target);
    if (!encoding.empty()) {
      const auto plain = common::LzmaCompression(common::LzmaCompression::Container::Alone,
                                                 std::max(state_.MaxBodySize(), kUsualDictionary))
                             .Decompress({payload.text.begin(), payload.text.end()});
      if (plain.size() > state_.MaxBodySize()) return {HTTPServerResponse::HTTP_REQUEST_ENTITY_TOO_LARGE, kTooLarge};
      payload.text.assign(plain.begin(), plain.end());
    }
    if (request.has("Z-PAYLOADHASH") && request.get("Z-PAYLOADHASH") != HashText(payload.text)) {
      return {HTTPServerResponse::HTTP_BAD_REQUEST, "payload hash does not match"};
    }
    if (const auto fault = FindDocumentFault(payload.text)) {
      return {HTTPServerResponse::HTTP_BAD_REQUEST, "document does not follow its schema: " + EscapeControls(*fault)};
    }
    for (const auto& [name, value] : request) payload.headers[Poco::toLower(name)] = value;
    std::optional<IocBatch> batch;
    if (payload.kind == UploadKind::Ioc) {
      if (request.get("Content-Type", "") != "application/octet-stream") {
        return {HTTPServerResponse::HTTP_UNSUPPORTEDMEDIATYPE, "a batch is application/octet-stream"};
      }
      batch = DecodeBatch(payload);
      if (!batch) return {HTTPServerResponse::HTTP_BAD_REQUEST, "no batch of this agent"};
    }
    std::optional<std::string> remark;
    const bool is_new = state_.sink->Add(payload, [&] {
      if (batch) remark = state_.sequence.Note(batch->sequence_number, sender.agent_id);
    });
    if (state_.page && is_new) state_.page->OnUpload(sender.agent_id, request.getURI(), payload.text);
    if (state_.page && !is_new) state_.page->OnRepeated();
    if (remark) state_.Print(*remark);
    if (state_.options.quiet) return {HTTPServerResponse::HTTP_OK, ""};
    if (!is_new) {
      state_.Print("repeated: " + EscapeControls(request.get("Z-REQID")));
    } else {
      for (const std::string& line :
           batch ? batch->lines : DescribePayload(payload.text, request.get("Content-Type", "-"))) {
        state_.Print(line);
      }
    }
    return {HTTPServerResponse::HTTP_OK, ""};
  } catch (const common::DecompressedTooLargeException&) {
    return {HTTPServerResponse::HTTP_REQUEST_ENTITY_TOO_LARGE, kTooLarge};
  } catch (const PayloadTooLargeException& error) {
    return {HTTPServerResponse::HTTP_REQUEST_ENTITY_TOO_LARGE, error.what()};
  } catch (const UnfitPayloadException& error) {
    return {HTTPServerResponse::HTTP_BAD_REQUEST, error.what()};
  } catch (const common::CompressionException& error) {
    return {HTTPServerResponse::HTTP_BAD_REQUEST, std::string("payload is not LZMA: ") + error.what()};
  } catch (const std::exception& error) {
    return {HTTPServerResponse::HTTP_SERVICE_UNAVAILABLE, error.what()};
  }
}

std::optional<std::string> UploadHandler::FindDocumentFault(const std::string& text) const {
  if (!state_.options.validate || !IsEventDocument(text)) return std::nullopt;
  return FindSchemaFault("fim-upload", text);
}

std::optional<IocBatch> UploadHandler::DecodeBatch(const AcceptedPayload& payload) {
  const AgentIdentity& sender = payload.sender;
  if (!IsIocTargetOf(payload.target, sender.customer_id, sender.agent_id)) return std::nullopt;
  std::optional<IocBatch> batch = IocBatch::Decode(payload.text);
  const bool is_own = batch && batch->customer_id == sender.customer_id && batch->agent_id == sender.agent_id;
  return is_own ? std::move(batch) : std::nullopt;
}

std::string UploadHandler::FindForeignIdentity(const HTTPServerRequest& request, const AgentIdentity& sender) {
  const std::pair<const char*, const std::string&> owner[] = {{"Z-CUSTID", sender.customer_id},
                                                              {"Z-CLNTID", sender.agent_id}};
  for (const auto& [name, id] : owner) {
    if (request.has(name) && request.get(name) != id) return std::string(name) + " is not that of the key id";
  }
  return "";
}

int UploadHandler::ForcedStatus(const std::string& target) {
  if (state_.options.status == 0 || target.find(state_.options.only_for) == std::string::npos) return 0;
  const unsigned number = ++state_.forced_answers;
  return state_.options.status_requests == 0 || number <= state_.options.status_requests ? state_.options.status : 0;
}

void UploadHandler::Answer(HTTPServerResponse& response, const Verdict& verdict) {
  response.setStatusAndReason(static_cast<HTTPServerResponse::HTTPStatus>(verdict.status));
  for (const auto& [name, value] : verdict.headers) response.set(name, value);
  if (state_.options.z_srv) response.set("Z-SRV", "reference-receiver");
  // A connection that was not read to the end is of no more use; one that is kept would keep others waiting.
  if (verdict.ends_connection || state_.is_pressed()) response.setKeepAlive(false);
  response.setContentLength(0);
  response.send();
}

void UploadHandler::AnswerInPart(HTTPServerRequest& request, HTTPServerResponse& response,
                                 ReceiverOptions::BodyFault fault) {
  constexpr int kAnnounced = 100;
  if (state_.options.z_srv) response.set("Z-SRV", "reference-receiver");
  response.setKeepAlive(false);
  response.setContentLength(kAnnounced);
  response.send() << "{" << std::flush;
  switch (fault) {
    case ReceiverOptions::BodyFault::Reset:
      state_.Print("answered: reset in the body");
      return ResetConnection(request);
    case ReceiverOptions::BodyFault::Stall:
      state_.Print("answered: stalled in the body");
      return state_.AwaitStop();
    default:
      state_.Print("answered: truncated");
  }
}

}  // namespace zagent::tools

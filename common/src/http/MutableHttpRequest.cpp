#include "common/src/http/MutableHttpRequest.h"

#include <algorithm>

#include "common/src/http/ContentRange.h"
#include "common/src/http/DefaultHttpRetryPolicy.h"
#include "common/src/http/InMemoryHttpResponse.h"
#include "common/src/http/OnDiskHttpResponse.h"
#include "common/src/util/CurrentException.h"
#include "common/src/util/Log.h"

namespace zagent::common {
namespace {

constexpr std::uint64_t kDefaultMaxAttempts = 3;
constexpr std::int64_t kDefaultIntervalSeconds = 5;

std::string Trim(const std::string& text) {
  const std::size_t begin = text.find_first_not_of(" \t\r\n");
  if (begin == std::string::npos) return "";
  return text.substr(begin, text.find_last_not_of(" \t\r\n") - begin + 1);
}

bool IsStatusLine(const std::string& line) {
  return line.starts_with("HTTP/1.1") || line.starts_with("HTTP/1.0");
}

// "Service Unavailable" of "HTTP/1.1 503 Service Unavailable".
std::string ReasonOf(const std::string& status_line) {
  const std::size_t code = status_line.find(' ');
  if (code == std::string::npos) return "";
  const std::size_t reason = status_line.find(' ', code + 1);
  return reason == std::string::npos ? "" : PrintableText(Trim(status_line.substr(reason + 1)));
}

std::unique_ptr<MutableHttpResponse> MakeResponse(const std::string& download_path) {
  if (download_path.empty()) return std::make_unique<InMemoryHttpResponse>();
  return std::make_unique<OnDiskHttpResponse>(download_path);
}

}  // namespace

MutableHttpRequest::MutableHttpRequest(HttpMethod method, std::string url, HttpHeaders headers,
                                       std::vector<unsigned char> payload, HttpInterceptors interceptors,
                                       HttpRequestSettings settings, HttpProxy proxy)
    : method_(method),
      url_(std::move(url)),
      headers_(std::move(headers)),
      payload_(std::move(payload)),
      interceptors_(std::move(interceptors)),
      settings_(std::move(settings)),
      proxy_(std::move(proxy)),
      retry_policy_(std::move(settings_.retry_policy)),
      response_(MakeResponse(settings_.download_path)) {
  if (!retry_policy_) {
    retry_policy_ = std::make_unique<DefaultHttpRetryPolicy>(kDefaultMaxAttempts, kDefaultIntervalSeconds);
  }
  retry_policy_->SetProxy(proxy_);
  if (!interceptors_.empty()) interceptors_.front()->PrepareRequest(payload_);
}

bool MutableHttpRequest::IsFinal(State state) {
  return state == State::Failed || state == State::Cancelled || state == State::Completed;
}

HttpRequest::State MutableHttpRequest::GetState() const {
  const std::lock_guard lock(mutex_);
  return state_;
}

const HttpResponse& MutableHttpRequest::GetResponse() const {
  std::unique_lock lock(mutex_);
  if (!IsFinal(state_) && wake_up_ && wake_up_->IsClaimedByThisThread()) {
    throw HttpException("Cannot wait for a response on the thread of the HTTP service: " + url_);
  }
  changed_.wait(lock, [this] { return IsFinal(state_); });
  if (state_ == State::Cancelled) {
    throw HttpException("Response isn't available for cancelled HTTP request for " + url_);
  }
  if (!response_) throw HttpException("Invalid internal state for HTTP request for " + url_);
  return *response_;
}

void MutableHttpRequest::Cancel() {
  cancelled_ = true;
  if (wake_up_) wake_up_->Notify();
}

void MutableHttpRequest::BeginAttempt() {
  {
    const std::lock_guard lock(mutex_);
    state_ = State::InFlight;
  }
  sent_ = false;
  error_text_.clear();
  response_->Begin();
  attempt_ = Attempt{url_, headers_, payload_};
  if (settings_.range_size != 0) {
    attempt_.headers["Range"] =
        "bytes=" + std::to_string(range_offset_) + "-" + std::to_string(range_offset_ + settings_.range_size - 1);
  }
  const std::string method = ToString(method_);
  for (const auto& interceptor : interceptors_) {
    interceptor->ProcessRequest(attempt_.url, attempt_.payload, attempt_.headers, method);
  }
  sent_ = true;
}

bool MutableHttpRequest::AppendResponseData(const void* data, std::size_t size) {
  if (data == nullptr) {
    ZLOG_ERROR("Response payload is NULL for HTTP request for " << url_);
    return false;
  }
  if (size > kMaxResponseSize - chunk_.size()) return false;
  const auto* bytes = static_cast<const unsigned char*>(data);
  chunk_.insert(chunk_.end(), bytes, bytes + size);
  return true;
}

void MutableHttpRequest::AddResponseHeader(const std::string& line) {
  const std::lock_guard lock(mutex_);
  if (IsStatusLine(line)) {
    response_->ClearHeaders();
    response_->SetMessage(ReasonOf(line));
    return;
  }
  if (Trim(line).empty()) return;  // the end of the headers
  const std::size_t colon = line.find(':');
  if (colon == std::string::npos) {
    ZLOG_TRACE("Malformed HTTP response header: " << PrintableText(Trim(line)));
    return;
  }
  const std::string name = Trim(line.substr(0, colon));
  const std::string value = Trim(line.substr(colon + 1));
  ZLOG_TRACE("Response Header: " << PrintableText(name) << " : " << PrintableText(value));
  if (response_->HasHeader(name)) {
    ZLOG_TRACE("Header " << PrintableText(name) << " is present in response. Deleting it.");
    response_->RemoveHeader(name);
  }
  if (response_->GetHeaders().size() < kMaxResponseHeaders) response_->AddHeader(name, value);
}

bool MutableHttpRequest::HasResponseHeader(const std::string& name) const {
  const std::lock_guard lock(mutex_);
  return response_ && response_->HasHeader(name);
}

void MutableHttpRequest::SetLocalIp(const std::string& local_ip) {
  const std::lock_guard lock(mutex_);
  local_ip_ = local_ip;
}

std::string MutableHttpRequest::GetLocalIp() const {
  const std::lock_guard lock(mutex_);
  return local_ip_;
}

int MutableHttpRequest::GetCurlCode() const {
  const std::lock_guard lock(mutex_);
  return curl_code_;
}

void MutableHttpRequest::SetStatus(HttpStatus status, long http_code, int curl_code) {
  // Who downloads wants the body, and half of it is none.
  if (curl_code != 0 && IsDownload() && (status == HttpStatus::Success || status == HttpStatus::PartialSuccess)) {
    status = HttpStatus::NetworkError;
  }
  const bool is_proxys_own = !proxy_.GetProxy().empty() && !HasResponseHeader("Z-SRV");
  ShowAttempt(status, http_code, is_proxys_own);
  State state = State::InFlight;
  {
    const std::lock_guard lock(mutex_);
    response_->SetProxysOwn(is_proxys_own);
    ApplyStatus(status, http_code);
    curl_code_ = curl_code;
    chunk_ = {};
    attempt_ = {};
    state = state_;
  }
  changed_.notify_all();
  if (!IsFinal(state)) return;
  CallOnFinished();
  CallPostProcessor();
}

// Without the lock: only this thread changes what is shown here.
void MutableHttpRequest::ShowAttempt(HttpStatus status, long http_code, bool is_proxys_own) {
  if (status == HttpStatus::Aborted || !sent_) return;
  const std::span<const unsigned char> body(chunk_);
  const HttpAttempt attempt{
      attempt_.url, status, http_code, response_->GetHeaders(), body.first(std::min(body.size(), kMaxShownBody)),
      is_proxys_own};
  for (auto interceptor = interceptors_.rbegin(); interceptor != interceptors_.rend(); ++interceptor) {
    try {
      (*interceptor)->OnAttemptEnded(attempt);
    } catch (...) {
      ZLOG_ERROR("Failed to show an interceptor the answer for " << url_ << " " << util::DescribeCurrentException());
    }
  }
}

void MutableHttpRequest::ApplyStatus(HttpStatus status, long http_code) {
  try {
    switch (status) {
      case HttpStatus::Success:
        RunChunkThroughInterceptors();
        // The whole, though a part was asked for.
        if (range_offset_ != 0) response_->ClearPayload();
        response_->AppendPayload(std::move(chunk_));
        return Complete(http_code);
      case HttpStatus::PartialSuccess: {
        const std::uint64_t received = chunk_.size();
        RunChunkThroughInterceptors();
        // Nobody asked for a part: it is no answer.
        if (settings_.range_size == 0) return FinishWithError(status, http_code);
        return TakeRange(received, http_code);
      }
      case HttpStatus::ClientError:
        RunChunkThroughInterceptors();
        return FinishWithError(status, http_code);
      case HttpStatus::ServerError:
      case HttpStatus::NetworkError:
      case HttpStatus::ProxyError:
      case HttpStatus::NotStarted:
        return FinishWithError(status, http_code);
      case HttpStatus::Aborted:
        response_.reset();
        state_ = State::Cancelled;
        return;
    }
  } catch (const HttpInterceptorException& error) {
    return FailProcessing(std::string("Response processing failed, error: ") + error.what(), http_code);
  } catch (...) {
    return FailProcessing(util::DescribeCurrentException(), http_code);
  }
  throw HttpException("Unsupported StatusCode: " + std::to_string(static_cast<int>(status)));
}

void MutableHttpRequest::RunChunkThroughInterceptors() {
  for (auto interceptor = interceptors_.rbegin(); interceptor != interceptors_.rend(); ++interceptor) {
    std::vector<unsigned char> output;
    const HttpInterceptor::ChunkResult result = (*interceptor)->ProcessResponseChunk(chunk_, output);
    if (result == HttpInterceptor::ChunkResult::Stop) return;
    if (result == HttpInterceptor::ChunkResult::Replaced) chunk_ = std::move(output);
  }
}

void MutableHttpRequest::TakeRange(std::uint64_t received, long http_code) {
  const auto header = response_->GetHeaders().find("Content-Range");
  const ContentRange range = ParseContentRange(header == response_->GetHeaders().end() ? "" : header->second);
  if (range_total_ == 0) range_total_ = range.total;
  if (range.first != range_offset_ || range.last - range.first + 1 != received || range.total != range_total_) {
    throw HttpException("Unexpected range " + PrintableText(header->second));
  }
  response_->AppendPayload(std::move(chunk_));
  range_offset_ += received;
  ZLOG_DEBUG("Received " << range_offset_ << " bytes total");
  if (range_offset_ == range.total) {
    ZLOG_INFO("Received the full data");
    return Complete(http_code);
  }
  ZLOG_INFO("Received the partial data, " << range_offset_ << " out of " << range.total << ", going for next chunk");
  // A part counts as a success: the attempts begin anew. What the policy would wait is not waited.
  (void)retry_policy_->Finish(HttpStatus::PartialSuccess, http_code);
  response_->ResetForNextAttempt();
  state_ = State::WaitingForRetry;
}

void MutableHttpRequest::Complete(long http_code) {
  response_->BeginProcessing();
  for (auto interceptor = interceptors_.rbegin(); interceptor != interceptors_.rend(); ++interceptor) {
    (*interceptor)->ProcessResponse(url_, *response_);
  }
  response_->EndProcessing();
  response_->Save();
  response_->SetHttpCode(http_code);
  response_->SetStatus(HttpStatus::Success);
  response_->Finalize();
  proxy_.OnSuccess();
  state_ = State::Completed;
}

void MutableHttpRequest::FinishWithError(HttpStatus status, long http_code) {
  if (status != HttpStatus::PartialSuccess && retry_policy_->Finish(status, http_code)) {
    response_->ResetForNextAttempt();
    state_ = State::WaitingForRetry;
    return;
  }
  // A connection that broke behind "200 OK" is not told by "OK".
  if (!error_text_.empty()) response_->SetMessage(error_text_);
  response_->KeepErrorPayload(std::move(chunk_));
  response_->SetHttpCode(http_code);
  response_->SetStatus(status);
  response_->Finalize();
  state_ = State::Failed;
}

// An answer that cannot be read is not repeated: the platform has already acted on the request.
void MutableHttpRequest::FailProcessing(const std::string& reason, long http_code) {
  ZLOG_ERROR("Failed to finish the http response for " << url_ << " " << reason);
  response_->SetMessage(PrintableText(reason));  // the status line's "OK" would belie the failure
  response_->SetHttpCode(http_code);
  response_->Finalize();
  state_ = State::Failed;
}

void MutableHttpRequest::Fail(const std::string& reason) {
  {
    const std::lock_guard lock(mutex_);
    if (IsFinal(state_)) return;
    state_ = State::Failed;
    try {
      FailProcessing(reason, 0);
    } catch (...) {  // NOLINT(bugprone-empty-catch)
      // The response is finalized already: it says what it says.
    }
  }
  changed_.notify_all();
  CallOnFinished();
  CallPostProcessor();
}

void MutableHttpRequest::CallOnFinished() {
  if (!settings_.on_finished) return;
  try {
    settings_.on_finished(*this);
  } catch (...) {
    ZLOG_ERROR("Failed to finish the http response for " << url_ << " " << util::DescribeCurrentException());
    const std::lock_guard lock(mutex_);
    if (response_) state_ = State::Failed;
  }
}

void MutableHttpRequest::CallPostProcessor() {
  if (!post_processor_ || !response_) return;
  try {
    post_processor_->Process(*this);
  } catch (...) {
    ZLOG_ERROR("Failed to finish the http response for " << url_ << " " << util::DescribeCurrentException());
  }
}

}  // namespace zagent::common

#include "common/src/http/HttpUploader.h"

#include <Poco/UUIDGenerator.h>

#include <array>
#include <atomic>
#include <iomanip>
#include <sstream>

#include "common/src/http/DefaultHttpRetryPolicy.h"
#include "common/src/http/HttpInterceptorBuilder.h"
#include "common/src/http/HttpService.h"
#include "common/src/util/Fnv.h"
#include "common/src/util/Log.h"

namespace zagent::common {
namespace {

constexpr std::int32_t kNoAnswer = 100022;
constexpr std::int32_t kUnexpectedAnswer = 100017;

struct HeaderSource {
  const HttpUploader::Settings& settings;
  const std::string& request_id;
  const std::string& payload_hash;
};

struct ProtocolHeader {
  const char* name;
  std::string (*value)(const HeaderSource& source);
};

// The headers that every upload carries.
constexpr std::array<ProtocolHeader, 8> kProtocolHeaders = {{
    {"Z-CUSTID", [](const HeaderSource& source) { return source.settings.customer_id; }},
    {"Z-CLNTID", [](const HeaderSource& source) { return source.settings.agent_id; }},
    {"Z-PRODUCT", [](const HeaderSource&) { return std::string("HOSTWARDEN"); }},
    {"Z-PLATFORM", [](const HeaderSource&) { return std::string("LINUX"); }},
    {"Z-ARCH", [](const HeaderSource&) { return std::string("x64"); }},
    {"Z-REQID", [](const HeaderSource& source) { return source.request_id; }},
    {"Z-AGENTVER", [](const HeaderSource& source) { return source.settings.agent_version; }},
    {"Z-PAYLOADHASH", [](const HeaderSource& source) { return source.payload_hash; }},
}};

// The headers that SetIndexedHeader fills; one without a value is not sent.
constexpr std::array<const char*, 2> kIndexedHeaders = {"Z-PROTOVER", "Z-PROTOTYPE"};

struct Outcome {
  long http_code;
  std::int32_t outcome;
};

constexpr std::array<Outcome, 9> kOutcomes = {{
    {0, kNoAnswer},
    {200, Uploader::kSuccess},
    {202, Uploader::kSuccess},
    {204, 100001},
    {404, 100016},
    {409, 100013},
    {415, 100028},
    {424, 100021},
    {500, 100023},
}};

// An upload without a bound would hold up its schedule for ever.
void UseDefault(const char* key, std::uint64_t& seconds, std::uint64_t fallback) {
  if (seconds != 0) return;
  ZLOG_WARNING("HttpUploader: " << key << " is 0, using " << fallback << " seconds");
  seconds = fallback;
}

std::string PayloadHash(const std::vector<unsigned char>& payload) {
  std::ostringstream text;
  text << std::hex << std::setfill('0') << std::setw(16) << util::Fnv1a64(payload.data(), payload.size());
  return text.str();
}

}  // namespace

struct HttpUploader::Job {
  Settings settings;
  HttpHeaders headers;
  std::string content_type;
  std::optional<UploadSource> source;
  std::string request_id;
};

HttpUploader::HttpUploader(HttpService& service, std::shared_ptr<const HmacConfig> hmac, Settings settings)
    : service_(service), hmac_(std::move(hmac)), settings_(std::move(settings)) {
  if (!settings_.alarms) settings_.alarms = std::make_shared<UploadAlarms>();
  UseDefault("connection_timeout", settings_.connection_timeout, HttpRequestSettings::kDefaultConnectionTimeout);
  UseDefault("request_timeout", settings_.request_timeout, HttpRequestSettings::kDefaultRequestTimeout);
}

std::int32_t HttpUploader::OutcomeOf(long http_code) {
  for (const Outcome& entry : kOutcomes) {
    if (entry.http_code == http_code) return entry.outcome;
  }
  if (http_code >= 400 && http_code <= 499) return 100021;
  return http_code > 500 ? 100020 : kUnexpectedAnswer;
}

std::int32_t HttpUploader::Upload(const std::string& content_type, const std::vector<unsigned char>& payload) {
  std::int32_t outcome = kNoAnswer;
  try {
    outcome = Send(PrepareJob(content_type, payload), payload);
  } catch (const HttpException& error) {
    ZLOG_ERROR("HttpUploader: Upload failed due to http exception: " << error.what());
  } catch (const std::exception& error) {
    ZLOG_ERROR("HttpUploader: Upload failed. (" << error.what() << ")");
  }
  const std::lock_guard lock(mutex_);
  in_flight_.reset();
  return outcome;
}

HttpUploader::Job HttpUploader::PrepareJob(const std::string& content_type, const std::vector<unsigned char>& payload) {
  const std::string payload_hash = PayloadHash(payload);
  const std::lock_guard lock(mutex_);
  last_http_status_ = 0;
  Job job{settings_, {}, content_type, std::exchange(source_, std::nullopt), ""};
  if (cancelled_) throw HttpException("Cancelled before it began");
  job.request_id = job.source ? job.source->MakeRequestId(settings_.agent_id)
                              : Poco::UUIDGenerator::defaultGenerator().createRandom().toString();
  last_correlation_id_ = job.request_id;
  for (const ProtocolHeader& header : kProtocolHeaders) {
    job.headers[header.name] = header.value({settings_, job.request_id, payload_hash});
  }
  for (const auto& [index, value] : indexed_headers_) job.headers[kIndexedHeaders.at(index)] = value;
  job.headers["Content-Type"] = content_type;
  return job;
}

std::shared_ptr<HttpRequest> HttpUploader::Submit(Job job, const std::vector<unsigned char>& payload,
                                                  std::shared_ptr<std::atomic<long>> accepted) {
  HttpInterceptorBuilder chain;
  chain.AddLzma(job.settings.compression);
  if (job.settings.url_states) chain.AddUrlUpgrader(job.settings.url_states);
  chain.AddAuth(hmac_, AuthTag::Tag4, AuthTag::None);
  HttpRequestSettings settings;
  settings.connection_timeout = job.settings.connection_timeout;
  settings.request_timeout = job.settings.request_timeout;
  // Asked before another attempt. The table of answers alone says whether there is one.
  HttpRetryPolicy::Predicate note = [accepted = std::move(accepted)](HttpStatus, long http_code) {
    if (OutcomeOf(http_code) == kSuccess) *accepted = http_code;
    return true;
  };
  settings.retry_policy = std::make_unique<DefaultHttpRetryPolicy>(
      job.settings.max_attempts, job.settings.retry_interval_seconds, std::move(note));
  auto request = service_.Post(job.settings.url, std::move(job.headers), payload, chain.Build(), std::move(settings));
  const std::lock_guard lock(mutex_);
  in_flight_ = request;
  if (cancelled_) request->Cancel();  // since the job was prepared
  return request;
}

std::int32_t HttpUploader::Send(Job job, const std::vector<unsigned char>& payload) {
  ZLOG_INFO("HttpUploader: Sending " << payload.size() << " bytes of type " << job.content_type
                                     << " to: " << job.settings.url);
  const std::optional<UploadSource> source = std::move(job.source);
  const std::string request_id = std::move(job.request_id);
  const std::shared_ptr<UploadAlarms> alarms = job.settings.alarms;
  const auto accepted = std::make_shared<std::atomic<long>>(0);  // the code by which an earlier attempt was
  const std::shared_ptr<HttpRequest> request = Submit(std::move(job), payload, accepted);
  const HttpResponse& response = request->GetResponse();
  const long http_code = *accepted != 0 ? accepted->load() : response.GetHttpCode();
  {
    const std::lock_guard lock(mutex_);
    last_http_status_ = http_code;
  }
  alarms->OnAnswer(response, source, request_id);
  if (response.GetStatus() == HttpStatus::Success) {
    ZLOG_INFO("HttpUploader: Uploaded " << payload.size() << " bytes successfully."
                                        << " (" << response.GetMessage() << ")");
    return OutcomeOf(http_code);
  }
  ZLOG_ERROR("HttpUploader: Upload failed, status code: " << static_cast<int>(response.GetStatus()));
  if (!response.GetMessage().empty()) ZLOG_ERROR("HttpUploader: Upload failed. (" << response.GetMessage() << ")");
  // The platform accepts with its status line: to send the payload again because the body behind it was reset, stalled
  // or unreadable, or because it refused the same payload behind that, would only count it twice.
  const std::int32_t outcome = OutcomeOf(http_code);
  if (outcome == kSuccess) ZLOG_INFO("HttpUploader: The upload was accepted all the same, HTTP code " << http_code);
  return outcome;
}

void HttpUploader::Cancel() {
  const std::lock_guard lock(mutex_);
  cancelled_ = true;
  if (in_flight_) in_flight_->Cancel();
}

std::string HttpUploader::GetTarget() const {
  const std::lock_guard lock(mutex_);
  return settings_.url;
}

void HttpUploader::SetTarget(const std::string& url) {
  const std::lock_guard lock(mutex_);
  settings_.url = url;
}

void HttpUploader::SetSource(const UploadSource& source) {
  const std::lock_guard lock(mutex_);
  source_ = source;
}

void HttpUploader::SetIndexedHeader(unsigned index, const std::string& value) {
  if (index >= kIndexedHeaders.size()) {
    ZLOG_WARNING("HttpUploader: There is no indexed header " << index);
    return;
  }
  const std::lock_guard lock(mutex_);
  indexed_headers_[index] = value;
}

long HttpUploader::LastHttpStatus() const {
  const std::lock_guard lock(mutex_);
  return last_http_status_;
}

std::string HttpUploader::LastCorrelationId() const {
  const std::lock_guard lock(mutex_);
  return last_correlation_id_;
}

}  // namespace zagent::common

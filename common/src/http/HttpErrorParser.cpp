#include "common/src/http/HttpErrorParser.h"

#include <algorithm>

#include "common/src/http/HttpRequest.h"
#include "common/src/util/Base64.h"
#include "common/src/util/Json.h"
#include "common/src/util/Log.h"

namespace zagent::common {
namespace {

std::string_view TextOf(std::span<const unsigned char> bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

void LogUnparsed(const std::string& url, long http_status, std::string_view body) {
  const std::string_view shown = body.substr(0, HttpErrorParser::kMaxLoggedBody);
  ZLOG_ERROR("HttpErrorParser: Failed to json parse error payload for URL: "
             << url << ", HTTP: " << http_status << ", response payload base64: " << util::Base64Encode(shown)
             << (shown.size() < body.size() ? " and more" : ""));
}

std::int64_t IntegerMember(const rapidjson::Document& document, const char* name) {
  const rapidjson::Value* member = util::FindMember(document, name);
  return member != nullptr && member->IsInt64() ? member->GetInt64() : 0;
}

}  // namespace

bool HttpErrorParser::IsErrorStatus(long http_status) {
  return http_status >= 400 && http_status <= 599;
}

std::optional<HttpErrorRecord> HttpErrorParser::ParseErrorPayload(const std::string& url, long http_status,
                                                                  std::span<const unsigned char> body) {
  try {
    if (body.empty()) {
      ZLOG_DEBUG("HttpErrorParser: Payload is empty for URL: " << url << ", HTTP: " << http_status);
      return std::nullopt;
    }
    const std::string_view text = TextOf(body);
    rapidjson::Document document;
    if (text.size() <= kMaxParsedBody) util::ParseJson(document, text);
    if (text.size() > kMaxParsedBody || document.HasParseError() || !document.IsObject()) {
      LogUnparsed(url, http_status, text);
      return std::nullopt;
    }
    HttpErrorRecord record;
    record.url = url;
    record.http_status = http_status;
    record.action = IntegerMember(document, "action");
    record.error_code = IntegerMember(document, "errorCode");
    const HttpErrorCode code = LookUpErrorCode(record.error_code);
    record.error_type = code.name;
    record.error_text = code.text;
    record.raw_payload = text;
    return record;
  } catch (const std::exception& error) {
    ZLOG_ERROR("HttpErrorParser: Exception while parsing raw payload: " << error.what());
    return std::nullopt;
  }
}

void HttpErrorParser::Process(const HttpRequest& request) {
  const std::string& url = request.GetUrl();
  const HttpResponse& response = request.GetResponse();
  const long status = response.GetHttpCode();
  if (!IsErrorStatus(status) || response.IsProxysOwn()) {
    ZLOG_DEBUG("HttpErrorParser: Received response for URL: " << url);
    ZLOG_DEBUG("HttpErrorParser: Ignoring HTTP status code: " << status);
    return;
  }
  std::span<const unsigned char> body;
  try {
    body = response.GetPayload();
  } catch (const std::exception&) {
    ZLOG_ERROR("HttpErrorParser: Failed to get payload for parsing error for URL: " << url);
    return;
  }
  ZLOG_DEBUG("HttpErrorParser: Received response for URL: "
             << url << (body.empty() ? "" : ", error payload: " + PrintableText(TextOf(body), kMaxLoggedBody)));
  const std::optional<HttpErrorRecord> record = ParseErrorPayload(url, status, body);
  if (!record) return;
  ZLOG_INFO("HttpErrorParser: URL: " << url << ", HTTP: " << status << ", Action: " << record->action << ", ErrorCode: "
                                     << record->error_code << ", DetectedErrorType: " << record->error_type
                                     << ", ErrorInfo: " << record->error_text);
  ExecuteAction(*record);
}

}  // namespace zagent::common

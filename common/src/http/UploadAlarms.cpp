#include "common/src/http/UploadAlarms.h"

#include <curl/curl.h>

#include <algorithm>

#include "common/src/util/Log.h"

namespace zagent::common {
namespace {

constexpr long kUnauthorized = 401;

// What no later attempt with the same bytes will change.
bool IsPermanent(long http_code) {
  return http_code == 400 || http_code == 413 || http_code == 415 || http_code == 422;
}

bool IsSuccess(long http_code) {
  return http_code >= 200 && http_code <= 299;
}

}  // namespace

void UploadAlarms::OnAnswer(const HttpResponse& response, const std::optional<UploadSource>& source,
                            const std::string& request_id) {
  // What a proxy refuses, the platform has not seen.
  if (response.IsProxysOwn() && !IsSuccess(response.GetHttpCode())) return;
  const std::lock_guard lock(mutex_);
  if (response.GetHttpCode() == kUnauthorized) LookAtClock(response);
  if (source) LookAtFile(response.GetHttpCode(), *source, request_id);
}

// A signature is refused when its time is too far away; the answer says what the platform's clock shows.
void UploadAlarms::LookAtClock(const HttpResponse& response) {
  const auto date = response.GetHeaders().find("Date");
  if (date == response.GetHeaders().end()) return;
  const std::time_t platform = curl_getdate(date->second.c_str(), nullptr);
  if (platform < 0) return;
  const auto own = std::chrono::duration_cast<std::chrono::seconds>(clock_.Now().time_since_epoch());
  const std::chrono::seconds skew = own - std::chrono::seconds(platform);
  if (std::chrono::abs(skew) <= kToleratedSkew || !MayTell(skew_told_)) return;
  ZLOG_ERROR("HttpUploader: The clock of this host is " << std::chrono::abs(skew).count() << " seconds "
                                                        << (skew.count() > 0 ? "ahead of" : "behind")
                                                        << " the platform's, which refuses its signatures");
}

void UploadAlarms::LookAtFile(long http_code, const UploadSource& source, const std::string& request_id) {
  if (IsSuccess(http_code)) return Forget(request_id);
  if (!IsPermanent(http_code)) return;
  Refused& refused = Remember(request_id);
  ++refused.times;
  if (refused.times < kRefusalsBeforeAlarm || !MayTell(refused.told)) return;
  ZLOG_ERROR("HttpUploader: The platform has refused the file " << source.path << " " << refused.times
                                                                << " times, now with HTTP code " << http_code
                                                                << ": it stays, and what came later waits behind it");
}

UploadAlarms::Refused& UploadAlarms::Remember(const std::string& request_id) {
  for (Refused& refused : refused_) {
    if (refused.request_id == request_id) return refused;
  }
  if (refused_.size() == kMaxFiles) refused_.pop_front();
  return refused_.emplace_back(Refused{request_id, 0, std::nullopt});
}

void UploadAlarms::Forget(const std::string& request_id) {
  std::erase_if(refused_, [&](const Refused& refused) { return refused.request_id == request_id; });
}

bool UploadAlarms::MayTell(Told& told) const {
  const auto now = clock_.SteadyNow();
  if (told && now - *told < kInterval) return false;
  told = now;
  return true;
}

}  // namespace zagent::common

#include "src/ioc/UploadSchedule.h"

#include <algorithm>
#include <utility>

#include "common/src/util/Log.h"
#include "src/ioc/config/LogPrefix.h"

namespace zagent::ioc::internal {
namespace {

constexpr const char* kModule = "IOC";  // in the table of quiet hours
constexpr unsigned kProtocolVersionHeader = 0;
constexpr unsigned kProtocolTypeHeader = 1;
constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;
constexpr std::int64_t kDay = 86'400 * kNanosecondsPerSecond;

}  // namespace

UploadSchedule::UploadSchedule(const Config& config, common::Storage& storage, std::string gateway_url_prefix,
                               std::unique_ptr<common::Uploader> uploader, const common::BlackoutManager* quiet_hours,
                               const health::ComponentHealth& health, common::util::Clock& clock)
    : config_(config),
      storage_(storage),
      uploader_(std::move(uploader)),
      quiet_hours_(quiet_hours),
      health_(health),
      clock_(clock),
      last_run_(clock),
      built_(clock),
      gateway_url_prefix_(std::move(gateway_url_prefix)) {
  built_.Set();
  uploader_->SetIndexedHeader(kProtocolVersionHeader, "1.0");
  uploader_->SetIndexedHeader(kProtocolTypeHeader, "IOC");
}

UploadSchedule::~UploadSchedule() {
  Cancel();
}

void UploadSchedule::SetGatewayUrlPrefix(const std::string& prefix) {
  ZLOG_DEBUG("Setting gateway url prefix to '" << prefix << "'");
  const std::lock_guard lock(prefix_mutex_);
  gateway_url_prefix_ = prefix;
}

std::int64_t UploadSchedule::NextRunTime() {
  const std::int64_t now = common::util::ToNanoseconds(clock_.Now());
  const std::int64_t due = std::max(now, NextDueTime().value_or(now));
  if (quiet_hours_ == nullptr) return due;
  const auto wait = quiet_hours_->GetSecondsToWindow(kModule, common::BlackoutManager::WindowType::Network,
                                                     common::util::Clock::SystemTime(std::chrono::nanoseconds(due)));
  return due + static_cast<std::int64_t>(wait) * kNanosecondsPerSecond;
}

// Nothing for at once.
std::optional<std::int64_t> UploadSchedule::NextDueTime() const {
  const std::int64_t interval = config_.GetUploadInterval() * kNanosecondsPerSecond;
  const auto last_run = last_run_.Get();
  if (interval == 0) return (last_run ? *last_run : *built_.Get()) + kDay;
  if (!last_run) return std::nullopt;
  return *last_run + interval;
}

void UploadSchedule::OnClockStep(std::chrono::nanoseconds step) {
  last_run_.Move(step);
  built_.Move(step);
}

void UploadSchedule::Reschedule() {
  FireOnFinished();
}

void UploadSchedule::Execute() {
  try {
    UploadSome();
  } catch (const std::exception& error) {
    ZLOG_ERROR("UploadSchedule: " << error.what());
  }
  last_run_.Set();
  Schedule::Execute();
}

void UploadSchedule::OnCancel() {
  uploader_->Cancel();
}

void UploadSchedule::UploadSome() {
  for (int i = 0; i < kFilesPerRun && !IsCancelling() && !IsQuiet(); ++i) {
    File file = ReadNext();
    if (file == nullptr || !UploadOne(std::move(file))) return;
  }
}

// The hours may have begun since the run did.
bool UploadSchedule::IsQuiet() const {
  return quiet_hours_ != nullptr && quiet_hours_->IsNetworkBlackoutNow(kModule);
}

UploadSchedule::File UploadSchedule::ReadNext() {
  File file = storage_.Read();
  if (file != nullptr && file->code == common::StorageCode::Success) return file;
  if (file == nullptr || file->code != common::StorageCode::NotFound) {
    ZLOG_ERROR("UploadSchedule: Failed to read data from storage.");
  }
  return nullptr;
}

bool UploadSchedule::UploadOne(File file) {
  if (IsCancelling()) return false;
  uploader_->SetTarget(GetUrl());
  if (file->stat_info) uploader_->SetSource(common::UploadSource::Of(file->path, *file->stat_info));
  const std::int32_t outcome = uploader_->Upload("application/octet-stream", file->data);
  return OnUploaded(std::move(file), outcome);
}

bool UploadSchedule::OnUploaded(File file, std::int32_t outcome) {
  const bool succeeded = outcome == common::Uploader::kSuccess;
  // An upload that was cancelled says nothing of the platform.
  if (succeeded || !IsCancelling()) {
    health_.Uploaded(succeeded, std::to_string(uploader_->LastHttpStatus()), uploader_->LastCorrelationId());
  }
  if (!succeeded) {
    ZLOG_ERROR("UploadSchedule: Failed to upload data. The next upload will be tried " << config_.GetUploadInterval()
                                                                                       << " seconds later.");
    return false;
  }
  ZLOG_DEBUG("UploadSchedule: Events successfully uploaded.");
  const std::string name = file->path;
  // A file that stays would be the oldest again: the run is over.
  if (!storage_.Delete(std::move(file))) {
    ZLOG_ERROR("Failed to delete file: " << name);
    return false;
  }
  return true;
}

std::string UploadSchedule::GetUrl() const {
  std::string url;
  {
    const std::lock_guard lock(prefix_mutex_);
    url = gateway_url_prefix_;
  }
  const common::CommonConfig& common = config_.GetCommon();
  if (url.empty()) url = common.GetServiceUrl();
  if (!url.empty() && url.back() == '/') url.pop_back();
  return url + "/linuxagentevent/v1/customer/" + common.GetCustomerId() + "/agent/" + common.GetAgentId();
}

}  // namespace zagent::ioc::internal

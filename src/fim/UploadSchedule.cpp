#include "src/fim/UploadSchedule.h"

#include <algorithm>
#include <utility>

#include "common/src/util/Log.h"
#include "src/fim/LogPrefix.h"
#include "src/fim/UploadDocument.h"

namespace zagent::fim::internal {
namespace {

constexpr const char* kModule = "FIM";  // in the table of quiet hours
constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;
constexpr std::int64_t kDay = 86'400 * kNanosecondsPerSecond;

}  // namespace

UploadSchedule::UploadSchedule(const Config& config, common::Storage& storage,
                               std::unique_ptr<common::Uploader> uploader, const common::BlackoutManager* quiet_hours,
                               const health::ComponentHealth& health, common::util::Clock& clock)
    : config_(config),
      storage_(storage),
      uploader_(std::move(uploader)),
      quiet_hours_(quiet_hours),
      health_(health),
      clock_(clock),
      last_run_(clock) {}

UploadSchedule::~UploadSchedule() {
  Cancel();
}

std::int64_t UploadSchedule::NextRunTime() {
  const std::int64_t now = common::util::ToNanoseconds(clock_.Now());
  const std::int64_t interval = config_.GetUploadInterval() * kNanosecondsPerSecond;
  if (interval == 0) return now + kDay;
  const auto last_run = last_run_.Get();
  const std::int64_t due = last_run ? std::max(now, *last_run + interval) : now;
  if (quiet_hours_ == nullptr) return due;
  const auto wait = quiet_hours_->GetSecondsToWindow(kModule, common::BlackoutManager::WindowType::Network,
                                                     common::util::Clock::SystemTime(std::chrono::nanoseconds(due)));
  return due + static_cast<std::int64_t>(wait) * kNanosecondsPerSecond;
}

void UploadSchedule::OnClockStep(std::chrono::nanoseconds step) {
  last_run_.Move(step);
}

void UploadSchedule::Reschedule() {
  FireOnFinished();
}

UploadSchedule::Status UploadSchedule::GetStatus() const {
  const std::lock_guard lock(status_mutex_);
  return status_;
}

void UploadSchedule::Execute() {
  try {
    UploadAll();
  } catch (const std::exception& error) {
    ZLOG_ERROR("UploadSchedule: " << error.what());
  }
  last_run_.Set();
  Schedule::Execute();
}

void UploadSchedule::OnCancel() {
  uploader_->Cancel();
}

void UploadSchedule::UploadAll() {
  while (!IsCancelling() && !IsQuiet()) {
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
  const common::Bytes payload = ParseFile(file, common::util::FormatUtc(common::util::ToNanoseconds(clock_.Now())));
  if (payload.empty()) return DeleteCorrupt(std::move(file));
  if (IsCancelling()) return false;
  ZLOG_DEBUG("Payload data (uncompressed): " << std::string(payload.begin(), payload.end()));
  if (!Send(*file, payload)) {
    ZLOG_WARNING("UploadSchedule: Failed to upload data. The next upload will be tried " << config_.GetUploadInterval()
                                                                                         << " seconds later.");
    return false;
  }
  ZLOG_INFO("UploadSchedule: Events successfully uploaded.");
  const std::string name = file->path;
  // A file that stays would be the oldest again and be sent without end: the run is over.
  if (!storage_.Delete(std::move(file))) {
    ZLOG_ERROR("Failed to delete file: " << name);
    return false;
  }
  ZLOG_INFO("Deleted file: " << name);
  return true;
}

common::Bytes UploadSchedule::ParseFile(File& file, const std::string& timestamp) {
  try {
    return BuildUploadDocument(std::move(file->data), timestamp);
  } catch (const JsonCopyException& error) {
    ZLOG_ERROR("UploadSchedule: Failed to parse file: " << file->path << ": " << error.what()
                                                        << " (offset: " << error.Offset() << ")");
    return {};
  }
}

bool UploadSchedule::DeleteCorrupt(File file) {
  const std::string name = file->path;
  ZLOG_ERROR("UploadSchedule: Deleting corrupt file: " << name);
  if (storage_.Delete(std::move(file))) return true;
  ZLOG_ERROR("Failed to delete corrupt file: " << name);
  return false;
}

bool UploadSchedule::Send(const common::StorageResult& file, const common::Bytes& payload) {
  uploader_->SetTarget(config_.GetUploadUrl());
  if (file.stat_info) uploader_->SetSource(common::UploadSource::Of(file.path, *file.stat_info));
  const std::int32_t outcome = uploader_->Upload("application/json", payload);
  const bool succeeded = outcome == common::Uploader::kSuccess;
  const std::string http_status = std::to_string(uploader_->LastHttpStatus());
  const std::string correlation_id = uploader_->LastCorrelationId();
  // An upload that was cancelled says nothing of the platform.
  if (succeeded || !IsCancelling()) health_.Uploaded(succeeded, http_status, correlation_id);
  const std::lock_guard lock(status_mutex_);
  status_ = {{"httpStatus", http_status}, {"correlationId", correlation_id}};
  return succeeded;
}

}  // namespace zagent::fim::internal

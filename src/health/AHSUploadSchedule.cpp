#include "src/health/AHSUploadSchedule.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "common/src/util/Log.h"
#include "src/health/LogPrefix.h"
#include "src/health/StatusDocument.h"

namespace zagent::health {
namespace {

constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;

const char* NameOf(AHSRecordType type) {
  return type == AHSRecordType::Edr ? "EDR" : "";
}

std::optional<std::string> UploadUrlFor(AHSRecordType type, const AHSSettings& settings) {
  if (type != AHSRecordType::Edr) return std::nullopt;
  return settings.GetUploadUrl();
}

}  // namespace

AHSUploadSchedule::AHSUploadSchedule(AHSSettings settings, HealthStore& store,
                                     std::unique_ptr<common::Uploader> uploader, common::util::Clock& clock,
                                     AHSRecordType type)
    : settings_(std::move(settings)),
      store_(store),
      uploader_(std::move(uploader)),
      clock_(clock),
      type_(type),
      last_run_(clock) {
  last_run_.Set(-std::chrono::seconds(settings_.upload_interval));
}

AHSUploadSchedule::~AHSUploadSchedule() {
  Cancel();
}

std::int64_t AHSUploadSchedule::NextRunTime() {
  const std::int64_t now = common::util::ToNanoseconds(clock_.Now());
  return std::max(now, last_run_.Get().value_or(0) + settings_.upload_interval * kNanosecondsPerSecond);
}

void AHSUploadSchedule::OnClockStep(std::chrono::nanoseconds step) {
  last_run_.Move(step);
}

void AHSUploadSchedule::Execute() {
  ZLOG_INFO("AHSUploadSchedule:Execute() triggered .. ");
  try {
    UploadAll();
  } catch (const std::exception& error) {
    ZLOG_ERROR("AHSUploadSchedule: " << error.what());
  }
  last_run_.Set();
  Schedule::Execute();
}

void AHSUploadSchedule::OnCancel() {
  uploader_->Cancel();
}

void AHSUploadSchedule::UploadAll() {
  HealthStore::Batch batch = store_.TakeBatch();
  ZLOG_INFO("AHS: Read " << batch.records.size() << " records from DB");
  if (batch.records.empty()) return;
  const std::string document = BuildStatusDocument(batch.records);
  const std::optional<std::string> url = UploadUrlFor(type_, settings_);
  if (!url) {
    ZLOG_ERROR("Invalid AHSRecordType provided. Aborting this attempt.");
    return;
  }
  uploader_->SetTarget(*url);
  ZLOG_DEBUG(":AHS: Payload data (uncompressed): " << document);
  if (!Send(document)) {
    ZLOG_WARNING("AHSUploadSchedule: Failed to upload data. The next upload will be tried " << settings_.upload_interval
                                                                                            << " seconds later.");
    return;
  }
  batch.Delete();
  ZLOG_INFO("AHSUploadSchedule: " << NameOf(type_) << " status successfully uploaded.");
}

bool AHSUploadSchedule::Send(const std::string& document) {
  return uploader_->Upload("application/json", {document.begin(), document.end()}) == common::Uploader::kSuccess;
}

}  // namespace zagent::health

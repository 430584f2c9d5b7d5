#include "common/src/storage/SpoolWorker.h"

#include <chrono>
#include <exception>
#include <utility>

#include "common/src/util/Log.h"

namespace zagent::common::internal {
namespace {

constexpr std::chrono::seconds kRetryPause{1};

}  // namespace

SpoolWorker::SpoolWorker(std::unique_ptr<DataFormatter> formatter, SpoolDirectory directory, SpoolLimits& limits,
                         std::function<void(std::uint64_t)> schedule_sync, FileCalls& calls, util::Clock& clock)
    : formatter_(std::move(formatter)),
      limits_(limits),
      schedule_sync_(std::move(schedule_sync)),
      clock_(clock),
      files_(std::move(directory), limits, calls) {}

std::unique_ptr<StorageResult> SpoolWorker::Add(const Bytes& data) {
  const std::size_t held = formatter_->Size();
  if (held == 0 || held + data.size() <= limits_.MaxFileSize()) {
    ZLOG_TRACE("SpoolStorage: Added " << data.size() << " bytes to cache. Current Cache size: " << held);
    formatter_->Append(data);
    CountHeldBytes();
    if (held == 0) ScheduleSync();
    return MakeResult(StorageCode::Success);
  }
  auto result = HasJustFailed() ? MakeResult(failure_->code) : FlushDataCache();
  CountHeldBytes();
  if (formatter_->Size() != 0) {
    // An older payload still waits for the disk and the cache is full: there is no room for the item.
    result->data = data;
    return result;
  }
  formatter_->Append(data);
  CountHeldBytes();
  if (result->code == StorageCode::Success) {
    ZLOG_INFO("SpoolStorage: Flushed cache to disk: " << result->path);
  }
  ScheduleSync();
  return result;
}

void SpoolWorker::Sync() {
  if (IsCacheEmpty()) {
    ZLOG_TRACE("SpoolStorage: Skipping syncing of cache since there is no data.");
    return;
  }
  try {
    if (FlushDataCache()->code != StorageCode::Success) ZLOG_ERROR("SpoolStorage: Failed to sync cache.");
  } catch (const std::exception& error) {
    ZLOG_ERROR("SpoolStorage: Failed to sync cache. " << error.what());
  }
  CountHeldBytes();
  // What could not be written is not left until somebody writes again.
  if (!IsCacheEmpty()) ScheduleSync();
}

std::unique_ptr<StorageResult> SpoolWorker::Read() {
  try {
    auto result = files_.ReadOldestFile();
    ZLOG_INFO("SpoolStorage: Read file: " << result->path);
    result->has_free_space = HasFreeSpace();
    return result;
  } catch (const StorageException& error) {
    const StorageCode code = StorageCodeFromErrno(error.Code());
    if (code != StorageCode::NotFound) ZLOG_ERROR("SpoolStorage: Failed to read file: " << error.what());
    return MakeResult(code);
  }
}

bool SpoolWorker::Clear() {
  const bool drops = !IsCacheEmpty();
  unwritten_ = Bytes();
  failure_.reset();
  formatter_->Clear();
  CountHeldBytes();
  if (drops && dropped_) dropped_();
  if (files_.FirstIndex() != 0 && clearing_) clearing_();
  return files_.Clear();
}

std::unique_ptr<StorageResult> SpoolWorker::MakeResult(StorageCode code) const {
  auto result = std::make_unique<StorageResult>();
  result->code = code;
  result->has_free_space = HasFreeSpace();
  return result;
}

std::unique_ptr<StorageResult> SpoolWorker::FlushDataCache() {
  if (!unwritten_.empty()) {
    auto result = StoreUnwritten();
    if (result->code != StorageCode::Success || formatter_->Size() == 0) return result;
  }
  try {
    unwritten_ = formatter_->Finish();
    formatter_->Clear();
  } catch (const DataFormatterException&) {
    ZLOG_ERROR("SpoolStorage::FlushDataCache: Failed to serialize data cache. Resetting cache.");
    formatter_->Clear();
    if (dropped_) dropped_();
    return MakeResult(StorageCode::SerializationFailed);
  }
  return StoreUnwritten();
}

std::unique_ptr<StorageResult> SpoolWorker::StoreUnwritten() {
  failure_ = Failure{clock_.SteadyNow(), StorageCode::Unknown};  // if it throws
  auto result = files_.Store(unwritten_);
  if (result->code == StorageCode::Success) {
    failure_.reset();
    formatter_->OnStored();
  } else {
    // The disk may have taken its time to fail.
    failure_ = Failure{clock_.SteadyNow(), result->code};
  }
  if (filed_ && result->code == StorageCode::Success && formatter_->Size() == 0) filed_();
  result->has_free_space = HasFreeSpace();
  return result;
}

bool SpoolWorker::HasJustFailed() const {
  return failure_ && clock_.SteadyNow() - failure_->time < kRetryPause;
}

void SpoolWorker::ScheduleSync() {
  const std::uint64_t seconds = limits_.MaxFileAge();
  schedule_sync_(seconds);
  ZLOG_TRACE("SpoolStorage: Scheduled cache sync after " << seconds << " seconds.");
}

}  // namespace zagent::common::internal

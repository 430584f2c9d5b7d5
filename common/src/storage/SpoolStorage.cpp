#include "common/src/storage/SpoolStorage.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <ios>
#include <utility>

#include "common/src/storage/SpoolDirectory.h"
#include "common/src/storage/SpoolLimits.h"
#include "common/src/storage/SpoolStorageSchedule.h"
#include "common/src/storage/SpoolWorker.h"
#include "common/src/tasks/Answer.h"
#include "common/src/util/Log.h"

namespace zagent::common {
namespace {

using internal::SpoolDirectory;
using internal::SpoolLimits;
using internal::SpoolStorageSchedule;
using internal::SpoolWorker;

// What a queued task costs beside its data: its place in the queue, and what its callback keeps elsewhere.
constexpr std::uint64_t kTaskBytes = 192;
using ResultAnswer = Answer<std::unique_ptr<StorageResult>>;
using DoneAnswer = Answer<bool>;

void CheckArguments(const std::string& path, const std::string& prefix, const DataFormatter* formatter,
                    std::uint64_t max_file_count, FileCalls& calls) {
  if (max_file_count < 2 || max_file_count > SpoolStorage::kMaxFileCount) {
    throw StorageException("SpoolStorage: Max file count must be between 2 and 10000");
  }
  if (path.empty()) throw StorageException("SpoolStorage: Path cannot be empty");
  if (prefix.empty()) throw StorageException("SpoolStorage: Prefix cannot be empty");
  if (formatter == nullptr) throw StorageException("SpoolStorage: dataFormatter cannot be null");
  struct stat info {};
  if (calls.Stat(path.c_str(), &info) != 0) throw StorageException::FromErrno("SpoolStorage: Invalid Path", errno);
  if (!S_ISDIR(info.st_mode)) throw StorageException("SpoolStorage: Path is not a directory");
  if (info.st_uid != geteuid() || (info.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    ZLOG_WARNING("SpoolStorage: Others can change what is in "
                 << path << " (mode " << std::oct << (info.st_mode & 07777U) << std::dec << ", user " << info.st_uid
                 << "). It should have mode 0700 and user " << geteuid() << ".");
  }
}

}  // namespace

SpoolStorage::SpoolStorage(Scheduler& scheduler, const std::string& path, const std::string& prefix,
                           std::unique_ptr<DataFormatter> formatter, const Limits& limits, std::uint64_t max_file_count,
                           util::Clock& clock, FileCalls& calls)
    : Storage(path), scheduler_(scheduler), limits_(std::make_unique<SpoolLimits>()) {
  CheckArguments(path, prefix, formatter.get(), max_file_count, calls);
  limits_->Apply(limits.max_disk_size_mib, limits.max_file_age_seconds, limits.max_file_size_kib);
  schedule_ = std::make_shared<SpoolStorageSchedule>([this] { worker_->Sync(); }, clock);
  worker_ = std::make_unique<SpoolWorker>(
      std::move(formatter), SpoolDirectory(path, prefix, max_file_count - 1, calls), *limits_,
      [this](std::uint64_t seconds) { schedule_->ScheduleSync(seconds); }, calls, clock);
  scheduler_.RegisterSchedule(schedule_);
}

SpoolStorage::~SpoolStorage() {
  ZLOG_INFO("Destroying SpoolStorage for " << GetPath());
  try {
    scheduler_.UnregisterSchedule(schedule_);
  } catch (const std::exception& error) {
    // The Scheduler has let go of all its schedules before.
    ZLOG_DEBUG("SpoolStorage: " << error.what());
  }
  schedule_->Cancel();
  schedule_->Close();
  try {
    worker_->Sync();
  } catch (const std::exception& error) {
    ZLOG_ERROR("SpoolStorage: Failed to sync cache. " << error.what());
  }
}

bool SpoolStorage::HasFreeSpace() const {
  return worker_->HasFreeSpace();
}

std::uint64_t SpoolStorage::GetMaxFileSize() const {
  return limits_->MaxFileSize();
}

std::uint64_t SpoolStorage::GetWaitingBytes() const {
  return schedule_->GetWaitingBytes();
}

std::uint64_t SpoolStorage::GetCachedBytes() const {
  return worker_->GetHeldBytes();
}

void SpoolStorage::WriteAsync(Bytes data, ResultCallback callback) {
  if (data.size() > limits_->MaxFileSize()) {
    throw StorageException("SpoolStorage::WriteAsync: data is larger than max file size");
  }
  const std::uint64_t bytes = data.capacity();
  Post(MakeWrite(std::move(data), std::move(callback)), bytes);
}

std::unique_ptr<StorageResult> SpoolStorage::Write(Bytes data) {
  if (data.size() > limits_->MaxFileSize()) {
    throw StorageException("SpoolStorage::Write: data is larger than max file size");
  }
  std::unique_ptr<StorageResult> result;
  Await("SpoolStorage::Write", MakeWrite(std::move(data), [&](auto answer) { result = std::move(answer); }));
  return result;
}

void SpoolStorage::ReadAsync(ResultCallback callback) {
  Post(MakeRead(std::move(callback)));
}

std::unique_ptr<StorageResult> SpoolStorage::Read() {
  std::unique_ptr<StorageResult> result;
  Await("SpoolStorage::Read", MakeRead([&](auto answer) { result = std::move(answer); }));
  return result;
}

void SpoolStorage::DeleteAsync(std::unique_ptr<StorageResult> previous, DoneCallback callback) {
  if (!previous || !previous->stat_info) {
    if (callback) callback(false);
    return;
  }
  Post(MakeDelete(std::move(previous), std::move(callback)));
}

bool SpoolStorage::Delete(std::unique_ptr<StorageResult> previous) {
  if (!previous || !previous->stat_info) return false;
  bool deleted = false;
  Await("SpoolStorage::Delete", MakeDelete(std::move(previous), [&](bool answer) { deleted = answer; }));
  return deleted;
}

void SpoolStorage::ClearAsync(DoneCallback callback) {
  auto answer = std::make_shared<DoneAnswer>(std::move(callback), [] { return false; });
  Post([this, answer = std::move(answer)] { answer->Give(worker_->Clear()); });
}

std::unique_ptr<StorageResult> SpoolStorage::Append(Bytes, std::unique_ptr<StorageResult>) {
  throw StorageException("SpoolStorage::Write is not implemented");
}

void SpoolStorage::SetFiledCallback(std::function<void()> callback) {
  worker_->SetFiledCallback(std::move(callback));
}

void SpoolStorage::SetDroppedCallback(std::function<void()> callback) {
  worker_->SetDroppedCallback(std::move(callback));
}

void SpoolStorage::SetClearingCallback(std::function<void()> callback) {
  worker_->SetClearingCallback(std::move(callback));
}

void SpoolStorage::SetRemovedCallback(std::function<void(std::uint64_t)> callback) {
  worker_->SetRemovedCallback(std::move(callback));
}

void SpoolStorage::Update(const Limits& limits) {
  if (limits.max_disk_size_mib == 0) {
    ZLOG_WARNING("SpoolStorage::Update: Ignoring invalid max disk size setting");
  }
  if (limits.max_file_age_seconds == 0) {
    ZLOG_WARNING("SpoolStorage::Update: Ignoring invalid max file age setting");
  }
  if (limits.max_file_size_kib == 0) {
    ZLOG_WARNING("SpoolStorage::Update: Ignoring invalid max file size setting");
  }
  const std::lock_guard lock(update_mutex_);
  const bool waits = update_.has_value();
  if (!waits) update_ = Limits{};
  if (limits.max_disk_size_mib != 0) update_->max_disk_size_mib = limits.max_disk_size_mib;
  if (limits.max_file_age_seconds != 0) update_->max_file_age_seconds = limits.max_file_age_seconds;
  if (limits.max_file_size_kib != 0) update_->max_file_size_kib = limits.max_file_size_kib;
  if (!waits) schedule_->AddTask([this] { ApplyUpdate(); });
}

void SpoolStorage::ApplyUpdate() {
  Limits limits;
  {
    const std::lock_guard lock(update_mutex_);
    limits = *std::exchange(update_, std::nullopt);
  }
  limits_->Apply(limits.max_disk_size_mib, limits.max_file_age_seconds, limits.max_file_size_kib);
}

// An item on its way to the cache, small enough to lie in the queue itself: bursts bring many.
class SpoolStorage::PendingWrite {
 public:
  PendingWrite(internal::SpoolWorker& worker, Bytes&& item, ResultCallback&& callback)
      : worker_(worker), item_(std::move(item)), callback_(std::move(callback)) {}
  PendingWrite(PendingWrite&& other) noexcept
      : worker_(other.worker_), item_(std::move(other.item_)), callback_(std::exchange(other.callback_, nullptr)) {}
  PendingWrite(const PendingWrite&) = delete;
  PendingWrite& operator=(const PendingWrite&) = delete;
  PendingWrite& operator=(PendingWrite&&) = delete;
  // As an Answer, which does not know of the item that it would have to give back.
  ~PendingWrite() {
    if (!callback_) return;
    try {
      Refuse(StorageCode::Unknown);
    } catch (const std::exception& error) {
      ZLOG_ERROR("Failed to execute background task: " << error.what());
    }
  }

  void operator()() {
    try {
      Give(worker_.Add(item_));
    } catch (const DataFormatterException&) {
      Refuse(StorageCode::SerializationFailed);
      throw;
    }
  }

 private:
  void Give(std::unique_ptr<StorageResult> result) {
    const ResultCallback callback = std::exchange(callback_, nullptr);
    if (callback) callback(std::move(result));
  }
  void Refuse(StorageCode code) {
    auto result = worker_.MakeResult(code);
    result->data = std::move(item_);
    Give(std::move(result));
  }

  internal::SpoolWorker& worker_;
  Bytes item_;
  ResultCallback callback_;
};

Task SpoolStorage::MakeWrite(Bytes&& data, ResultCallback&& callback) {
  static_assert(sizeof(PendingWrite) <= Task::kRoom);
  return PendingWrite(*worker_, std::move(data), std::move(callback));
}

Task SpoolStorage::MakeRead(ResultCallback callback) {
  auto answer =
      std::make_shared<ResultAnswer>(std::move(callback), [this] { return worker_->MakeResult(StorageCode::Unknown); });
  return [this, answer = std::move(answer)] { answer->Give(worker_->Read()); };
}

Task SpoolStorage::MakeDelete(std::unique_ptr<StorageResult> previous, DoneCallback callback) {
  auto answer = std::make_shared<DoneAnswer>(std::move(callback), [] { return false; });
  const std::shared_ptr<StorageResult> read = std::move(previous);
  read->data = Bytes();  // not needed any more, and it must not weigh on the queue
  return [this, read, answer = std::move(answer)] { answer->Give(worker_->Delete(*read)); };
}

void SpoolStorage::Post(Task&& task, std::uint64_t bytes) {
  schedule_->AddTask(std::move(task), bytes + kTaskBytes, limits_->MaxWaitingBytes());
}

void SpoolStorage::Await(const char* operation, Task&& task) {
  // A callback calls on the thread that the caller before it waits for: it has no turn to wait for.
  std::unique_lock turn(mutex_, std::defer_lock);
  if (!schedule_->IsOwnThread()) turn.lock();
  if (!schedule_->Await(scheduler_, std::move(task))) {
    ZLOG_ERROR(operation << ": nothing runs the tasks of " << GetPath());
  }
}

}  // namespace zagent::common

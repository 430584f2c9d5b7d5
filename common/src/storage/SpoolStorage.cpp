#include "common/src/storage/SpoolStorage.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <optional>
#include <utility>

#include "common/src/storage/SpoolDirectory.h"
#include "common/src/storage/SpoolLimits.h"
#include "common/src/storage/SpoolStorageSchedule.h"
#include "common/src/storage/SpoolWorker.h"
#include "common/src/util/Log.h"

namespace zagent::common {
namespace {

using internal::SpoolDirectory;
using internal::SpoolLimits;
using internal::SpoolStorageSchedule;
using internal::SpoolWorker;

// What a queued task costs at least, so that tasks without data are bounded too.
constexpr std::uint64_t kTaskBytes = 64;
// How often a synchronous caller looks whether anybody is left to run its task.
constexpr std::chrono::seconds kPatience{1};

// Calls a callback exactly once: with a value, or with the fallback when the task that should have found one is gone.
// Its task alone owns it, or a task that fails at once would be answered on the thread that still posts it.
template <typename Value>
class Answer {
 public:
  Answer(std::function<void(Value)> callback, std::function<Value()> fallback)
      : callback_(std::move(callback)), fallback_(std::move(fallback)) {}
  Answer(const Answer&) = delete;
  Answer& operator=(const Answer&) = delete;
  ~Answer() {
    if (!callback_) return;
    try {
      Give(fallback_());
    } catch (const std::exception& error) {
      ZLOG_ERROR("SpoolStorage: " << error.what());
    }
  }

  void Give(Value value) {
    const auto callback = std::exchange(callback_, nullptr);
    if (callback) callback(std::move(value));
  }

 private:
  std::function<void(Value)> callback_;
  std::function<Value()> fallback_;
};

using ResultAnswer = Answer<std::unique_ptr<StorageResult>>;
using DoneAnswer = Answer<bool>;

void CheckArguments(const std::string& path, const std::string& prefix, const DataFormatter* formatter,
                    std::uint64_t max_file_count) {
  if (max_file_count < 2 || max_file_count > SpoolStorage::kMaxFileCount) {
    throw StorageException("SpoolStorage: Max file count must be between 2 and 10000");
  }
  if (path.empty()) throw StorageException("SpoolStorage: Path cannot be empty");
  if (prefix.empty()) throw StorageException("SpoolStorage: Prefix cannot be empty");
  if (formatter == nullptr) throw StorageException("SpoolStorage: dataFormatter cannot be null");
  struct stat info {};
  if (stat(path.c_str(), &info) != 0) throw StorageException::FromErrno("SpoolStorage: Invalid Path", errno);
  if (!S_ISDIR(info.st_mode)) throw StorageException("SpoolStorage: Path is not a directory");
}

}  // namespace

SpoolStorage::SpoolStorage(Scheduler& scheduler, const std::string& path, const std::string& prefix,
                           std::unique_ptr<DataFormatter> formatter, const Limits& limits, std::uint64_t max_file_count,
                           util::Clock& clock)
    : Storage(path), scheduler_(scheduler), clock_(clock), limits_(std::make_unique<SpoolLimits>()) {
  CheckArguments(path, prefix, formatter.get(), max_file_count);
  limits_->Apply(limits.max_disk_size_mib, limits.max_file_age_seconds, limits.max_file_size_kib);
  schedule_ = std::make_shared<SpoolStorageSchedule>([this] { worker_->Sync(); }, clock);
  worker_ =
      std::make_unique<SpoolWorker>(std::move(formatter), SpoolDirectory(path, prefix, max_file_count - 1), *limits_,
                                    [this](std::uint64_t seconds) { schedule_->ScheduleSync(seconds); });
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

void SpoolStorage::WriteAsync(Bytes data, ResultCallback callback) {
  if (data.size() > limits_->MaxFileSize()) {
    throw StorageException("SpoolStorage::WriteAsync: data is larger than max file size");
  }
  PostWrite(std::move(data), std::move(callback), limits_->MaxDiskSize());
}

std::unique_ptr<StorageResult> SpoolStorage::Write(Bytes data) {
  if (data.size() > limits_->MaxFileSize()) {
    throw StorageException("SpoolStorage::Write: data is larger than max file size");
  }
  return Await<std::unique_ptr<StorageResult>>("SpoolStorage::Write", [&](ResultCallback callback) {
    return PostWrite(std::move(data), std::move(callback), SpoolStorageSchedule::kNoLimit);
  });
}

void SpoolStorage::ReadAsync(ResultCallback callback) {
  PostRead(std::move(callback), limits_->MaxDiskSize());
}

std::unique_ptr<StorageResult> SpoolStorage::Read() {
  return Await<std::unique_ptr<StorageResult>>("SpoolStorage::Read", [this](ResultCallback callback) {
    return PostRead(std::move(callback), SpoolStorageSchedule::kNoLimit);
  });
}

void SpoolStorage::DeleteAsync(std::unique_ptr<StorageResult> previous, DoneCallback callback) {
  if (!previous || !previous->stat_info) {
    if (callback) callback(false);
    return;
  }
  PostDelete(std::move(previous), std::move(callback), limits_->MaxDiskSize());
}

bool SpoolStorage::Delete(std::unique_ptr<StorageResult> previous) {
  if (!previous || !previous->stat_info) return false;
  return Await<bool>("SpoolStorage::Delete", [&](DoneCallback callback) {
    return PostDelete(std::move(previous), std::move(callback), SpoolStorageSchedule::kNoLimit);
  });
}

void SpoolStorage::ClearAsync(DoneCallback callback) {
  auto answer = std::make_shared<DoneAnswer>(std::move(callback), [] { return false; });
  schedule_->AddTask([this, answer = std::move(answer)] { answer->Give(worker_->Clear()); }, kTaskBytes,
                     limits_->MaxDiskSize());
}

std::unique_ptr<StorageResult> SpoolStorage::Append(Bytes, std::unique_ptr<StorageResult>) {
  throw StorageException("SpoolStorage::Write is not implemented");
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
  schedule_->AddTask([this, limits] {
    limits_->Apply(limits.max_disk_size_mib, limits.max_file_age_seconds, limits.max_file_size_kib);
  });
}

std::uint64_t SpoolStorage::PostWrite(Bytes data, ResultCallback callback, std::uint64_t limit) {
  const std::uint64_t bytes = std::max<std::uint64_t>(data.size(), kTaskBytes);
  const auto item = std::make_shared<Bytes>(std::move(data));
  const auto refuse = [this, item](StorageCode code) {
    auto result = worker_->MakeResult(code);
    result->data = std::move(*item);
    return result;
  };
  auto answer = std::make_shared<ResultAnswer>(std::move(callback), [refuse] { return refuse(StorageCode::Unknown); });
  auto task = [this, item, answer = std::move(answer), refuse] {
    try {
      answer->Give(worker_->Add(*item));
    } catch (const DataFormatterException&) {
      answer->Give(refuse(StorageCode::SerializationFailed));
      throw;
    }
  };
  return schedule_->AddTask(std::move(task), bytes, limit);
}

std::uint64_t SpoolStorage::PostRead(ResultCallback callback, std::uint64_t limit) {
  auto answer =
      std::make_shared<ResultAnswer>(std::move(callback), [this] { return worker_->MakeResult(StorageCode::Unknown); });
  return schedule_->AddTask([this, answer = std::move(answer)] { answer->Give(worker_->Read()); }, kTaskBytes, limit);
}

std::uint64_t SpoolStorage::PostDelete(std::unique_ptr<StorageResult> previous, DoneCallback callback,
                                       std::uint64_t limit) {
  auto answer = std::make_shared<DoneAnswer>(std::move(callback), [] { return false; });
  const std::shared_ptr<StorageResult> read = std::move(previous);
  read->data = Bytes();  // not needed any more, and it must not weigh on the queue
  return schedule_->AddTask([this, read, answer = std::move(answer)] { answer->Give(worker_->Delete(*read)); },
                            kTaskBytes, limit);
}

template <typename Value>
Value SpoolStorage::Await(const char* operation, const std::function<std::uint64_t(std::function<void(Value)>)>& post) {
  if (schedule_->IsOwnThread()) {
    throw StorageException(std::string(operation) + ": cannot wait on the thread that runs the tasks");
  }
  const std::lock_guard turn(mutex_);
  std::optional<Value> value;
  const std::uint64_t task = post([&](Value answer) {
    {
      const std::lock_guard lock(answer_mutex_);
      value = std::move(answer);
    }
    answered_.notify_all();
  });
  std::unique_lock lock(answer_mutex_);
  while (!value) {
    if (CanRunTasks()) {
      clock_.WaitFor(answered_, lock, kPatience, [&value] { return value.has_value(); });
      continue;
    }
    lock.unlock();
    // A task that goes unrun gives its fallback, and so ends this wait.
    if (schedule_->RemoveTask(task)) ZLOG_ERROR(operation << ": nothing runs the tasks of " << GetPath());
    lock.lock();
  }
  return std::move(*value);
}

bool SpoolStorage::CanRunTasks() const {
  return schedule_->IsRunning() || (schedule_->IsRegistered() && scheduler_.IsRunning());
}

}  // namespace zagent::common

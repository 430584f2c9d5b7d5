#include "src/fim/Baseline.h"

#include <chrono>
#include <stdexcept>
#include <utility>

#include "common/src/storage/Serializer.h"
#include "common/src/storage/SqlException.h"
#include "common/src/storage/SqlFile.h"
#include "common/src/storage/SqlStorageFactory.h"
#include "common/src/util/Log.h"
#include "src/fim/BaselineEventSqlDataFormatter.h"
#include "src/fim/LogPrefix.h"

namespace zagent::fim::internal {

Baseline::Baseline(const std::string& directory, common::util::Clock& clock, Bounds bounds)
    : directory_(directory), clock_(clock), bounds_(bounds) {
  Open();
  try {
    Load();
  } catch (const common::SqlException& error) {
    if (!error.IsDamage()) throw;
    BeginAnew(error.what());
  } catch (const std::exception& error) {
    BeginAnew(error.what());  // a row that is none of ours
  }
}

void Baseline::BeginAnew(const std::string& reason) {
  ZLOG_ERROR("Baseline: The database is damaged and begins anew: " << reason);
  storage_.reset();
  common::internal::SetSqlFileAside(common::internal::SqlFilePath(directory_, kFileName));
  Open();
}

void Baseline::Open() {
  storage_.reset();
  storage_ = common::OpenSqlStorage(
      directory_, kFileName, [] { return std::make_unique<BaselineEventSqlDataFormatter>(); }, nullptr,
      common::SqlStorage::Caching::Off);
}

void Baseline::Load() {
  common::SqlRowIterator rows = storage_->ReadAll(BaselineEventSqlDataFormatter::kTable);
  for (common::Bytes row = rows.Next(); !row.empty(); row = rows.Next()) {
    common::Serializer columns(row);
    std::string path = columns.GetString();
    if (HasRoomFor(path)) Remember(known_, std::move(path));
  }
}

bool Baseline::Begin(const std::string& path) {
  const std::lock_guard lock(mutex_);
  if (known_.count(path) != 0 || begun_.count(path) != 0) return false;
  if (HasRoomFor(path)) {
    Remember(begun_, path);
    return true;
  }
  WarnOnceADay();
  return false;
}

void Baseline::NoteSpooled(const std::string& path, const std::string& content_status) {
  const std::lock_guard lock(mutex_);
  known_.insert(begun_.extract(path));
  spooled_.push_back({path, content_status});
}

void Baseline::GiveUp(const std::string& path) {
  const std::lock_guard lock(mutex_);
  Forget(begun_, path);
}

void Baseline::GiveUpSpooled() {
  const std::lock_guard lock(mutex_);
  for (const SpooledFile& file : std::exchange(spooled_, {})) Forget(known_, file.path);
}

void Baseline::ForgetFiled() {
  const std::lock_guard lock(mutex_);
  for (const std::string& path : known_) path_bytes_ -= path.size();
  known_ = {};
  spooled_ = {};
  try {
    ChangeTable([this] { storage_->Clear(); });
  } catch (const std::exception& error) {
    ZLOG_ERROR("Baseline: Failed to forget the files: " << error.what());
  }
}

void Baseline::KeepFiled() {
  const std::lock_guard lock(mutex_);
  if (spooled_.empty()) return;
  const std::vector<SpooledFile> files = std::exchange(spooled_, {});
  try {
    ChangeTable([&] { WriteRows(files); });
    ZLOG_DEBUG("Baseline: Remembered " << files.size() << " files");
  } catch (const std::exception& error) {
    ZLOG_ERROR("Baseline: Failed to remember " << files.size() << " files, the first of them " << files.front().path
                                               << ": " << error.what());
  }
}

void Baseline::ChangeTable(const std::function<void()>& change) {
  if (storage_ == nullptr) Open();
  try {
    change();
  } catch (const common::StorageException& error) {
    if (!storage_->IsDamaged()) throw;
    BeginAnew(error.what());
    change();
  }
}

void Baseline::WriteRows(const std::vector<SpooledFile>& files) {
  common::SqlStorage::Rows rows;
  for (const auto& [path, status] : files) rows.emplace_back(path, storage_->MakeRow(path, status));
  storage_->Write(BaselineEventSqlDataFormatter::kTable, rows);
}

void Baseline::Remember(std::unordered_set<std::string>& paths, std::string path) {
  path_bytes_ += path.size();
  paths.insert(std::move(path));
}

void Baseline::Forget(std::unordered_set<std::string>& paths, const std::string& path) {
  if (paths.erase(path) != 0) path_bytes_ -= path.size();
}

bool Baseline::HasRoomFor(const std::string& path) const {
  return begun_.size() + known_.size() < bounds_.paths && path_bytes_ + path.size() <= bounds_.bytes;
}

void Baseline::WarnOnceADay() {
  const common::util::Clock::SteadyTime now = clock_.SteadyNow();
  if (warned_ && now < *warned_ + std::chrono::hours(24)) return;
  warned_ = now;
  ZLOG_WARNING("Baseline: " << begun_.size() + known_.size() << " files are known, no further baseline is taken");
}

std::size_t Baseline::GetSize() const {
  const std::lock_guard lock(mutex_);
  return begun_.size() + known_.size();
}

std::size_t Baseline::GetBytes() const {
  const std::lock_guard lock(mutex_);
  return path_bytes_;
}

}  // namespace zagent::fim::internal

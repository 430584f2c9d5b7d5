#include "common/src/storage/SpoolFiles.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "common/src/util/ErrnoText.h"
#include "common/src/util/Log.h"

namespace zagent::common::internal {
namespace {

using util::ErrnoText;

// A file system that refuses one rename mostly refuses all: the rest is left where it is.
constexpr int kMaxFailedRenames = 10;

// The same file under any name. A deleted file's inode number is soon given to another file, whose time differs, or
// within one tick of the kernel's clock at least its size.
bool IsSameFile(const struct stat& a, const struct stat& b) {
  return a.st_ino == b.st_ino && a.st_dev == b.st_dev && a.st_size == b.st_size &&
         a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec;
}

}  // namespace

SpoolFiles::SpoolFiles(SpoolDirectory directory, const SpoolLimits& limits, FileCalls& calls)
    : directory_(std::move(directory)), limits_(limits), calls_(calls), sync_names_(directory_.Path(), calls) {
  RefreshFileIndices();
}

std::unique_ptr<StorageResult> SpoolFiles::Store(Bytes& payload) {
  RemoveTornFile();
  if (torn_) {
    auto refused = std::make_unique<StorageResult>();
    refused->path = torn_->path;
    refused->code = torn_->code;
    return refused;
  }
  const std::uint64_t size = payload.size();
  std::uint64_t index = last_index_ + 1;
  std::unique_ptr<StorageResult> result = WriteToFreeName(index, payload);
  if (!result) {
    DefragFileIndices();
    index = last_index_ + 1;
    result = WriteToFreeName(index, payload);
  }
  if (!result) {
    ZLOG_WARNING("SpoolStorage: All valid filenames exist. Trying clean up.");
    Cleanup(CleanupGoal::FreeName);
    DefragFileIndices();
    index = last_index_ + 1;
    result = WriteToFreeName(index, payload);
  }
  // Each way to free a name is tried once: a folder that holds the next name may defeat both.
  if (!result) throw StorageException("SpoolStorage::Cleanup: Failed to clean up spool files");
  if (result->code != StorageCode::Success) return result;

  if (first_index_ == 0) first_index_ = 1;
  last_index_ = index;
  disk_usage_ += size;
  if (disk_usage_ >= limits_.MaxDiskSize()) CleanupAfterWrite();
  return result;
}

// Null when every name from `index` to the last is taken. Leaves `index` at the name that was written.
std::unique_ptr<StorageResult> SpoolFiles::WriteToFreeName(std::uint64_t& index, Bytes& payload) {
  for (; index <= directory_.MaxIndex(); ++index) {
    bool created = false;
    auto result = WriteFile(directory_.FileName(index), std::move(payload), calls_, Durability::OnDisk, &created);
    if (result->code == StorageCode::Success) {
      // A file without its name on disk would be lost with the power.
      const int error = sync_names_();
      if (error == 0) return result;
      result->code = StorageCodeFromErrno(error);
    }
    payload = std::move(result->data);
    // A stale file is stepped over, never overwritten.
    if (result->code == StorageCode::AlreadyExists) continue;
    if (created) {
      torn_ = std::make_unique<StorageResult>();
      torn_->path = result->path;
      if (result->stat_info) torn_->stat_info = std::make_unique<struct stat>(*result->stat_info);
      RemoveTornFile();
    }
    return result;
  }
  return nullptr;
}

// Makes a write that was cut short leave nothing behind: a torn file must not bear a valid name.
void SpoolFiles::RemoveTornFile() {
  if (!torn_) return;
  struct stat now {};
  const bool is_known = calls_.Lstat(torn_->path.c_str(), &now) == 0;
  const bool is_gone = is_known ? !IsTornFile(torn_->path, now) : errno == ENOENT;
  // Where its attributes cannot be had now, the name alone has to do.
  if (!is_gone && calls_.Unlink(torn_->path.c_str()) != 0 && errno != ENOENT) {
    torn_->code = StorageCodeFromErrno(errno);
    ZLOG_ERROR("SpoolStorage: Failed to delete " << torn_->path << ": " << ErrnoText(errno));
    return;
  }
  const std::uint64_t index = directory_.IndexOfPath(torn_->path);
  torn_.reset();
  // A look at the folder in between has counted it.
  if (index >= first_index_ && index <= last_index_) RefreshFileIndices();
}

// Where the attributes of the torn file could not be had, the name alone has to do.
bool SpoolFiles::IsTornFile(const std::string& path, const struct stat& info) const {
  if (!torn_ || torn_->path != path || !S_ISREG(info.st_mode)) return false;
  return !torn_->stat_info || (torn_->stat_info->st_ino == info.st_ino && torn_->stat_info->st_dev == info.st_dev);
}

std::unique_ptr<StorageResult> SpoolFiles::ReadOldestFile() {
  bool refreshed = false;
  bool failed = false;
  for (std::uint64_t index = first_index_; index != 0 && index <= last_index_; ++index) {
    struct stat info {};
    const int error = directory_.Look(index, info);
    if (error != 0 && error != ENOENT) {
      failed = true;
      continue;
    }
    if (error == ENOENT) {
      if (refreshed) continue;
      // Somebody else took the file, or a later one was deleted before it: the directory knows where the oldest is
      // now. Asked once a read.
      refreshed = true;
      RefreshFileIndices();
      if (first_index_ == 0) break;
      index = first_index_ - 1;
      continue;
    }
    if (IsTornFile(directory_.FileName(index), info)) continue;
    std::unique_ptr<StorageResult> result;
    switch (TryReadFile(index, result)) {
      case ReadOutcome::Read:
        return result;
      case ReadOutcome::Failed:
        failed = true;
        break;
      case ReadOutcome::SetAside:
        break;
    }
  }
  throw StorageException::FromErrno("SpoolStorage::ReadOldestFile", failed ? EIO : ENOENT);
}

SpoolFiles::ReadOutcome SpoolFiles::TryReadFile(std::uint64_t index, std::unique_ptr<StorageResult>& result) {
  const std::string name = directory_.FileName(index);
  result = ReadRegularFile(name, limits_.MaxReadSize(), calls_);
  switch (result->code) {
    case StorageCode::Success:
      ZLOG_INFO("SpoolStorage: Successfully read file: " << name);
      return ReadOutcome::Read;
    case StorageCode::IOError:
      // It would be the oldest for ever.
      ZLOG_ERROR("SpoolStorage: Failed to read file: " << name);
      RemoveUnsent(index);
      return ReadOutcome::Failed;
    default:
      break;
  }
  if (!result->stat_info || !S_ISREG(result->stat_info->st_mode)) return ReadOutcome::Failed;
  const auto size = static_cast<std::uint64_t>(result->stat_info->st_size);
  if (size <= limits_.MaxReadSize()) return ReadOutcome::Failed;
  return SetAside(index, size) ? ReadOutcome::SetAside : ReadOutcome::Failed;
}

bool SpoolFiles::SetAside(std::uint64_t index, std::uint64_t size) {
  const std::string name = directory_.FileName(index);
  ZLOG_ERROR("SpoolStorage: Setting aside " << name << ": " << size << " bytes are more than a spool file has.");
  if (!Rename(name, directory_.AsideName())) return false;
  Forget(index, size);
  return true;
}

bool SpoolFiles::Delete(const StorageResult& read) {
  const std::size_t slash = read.path.rfind('/');
  if (slash == std::string::npos || slash + 1 == read.path.size()) return false;
  if (!read.stat_info || first_index_ == 0) return false;
  const std::uint64_t named = directory_.IndexOfPath(read.path);
  if (named != 0) {
    const auto info = directory_.Stat(named);
    if (info && IsSameFile(*info, *read.stat_info)) return DeleteFile(named);
  }
  ZLOG_INFO("SpoolStorage: Files have been renamed. Searching for an inode match for " << read.path);
  for (std::uint64_t index = first_index_; index <= last_index_; ++index) {
    const auto info = directory_.Stat(index);
    if (info && IsSameFile(*info, *read.stat_info)) return DeleteFile(index);
  }
  return false;
}

bool SpoolFiles::Clear() {
  RemoveTornFile();
  bool all_deleted = true;
  const std::uint64_t last = last_index_;
  for (std::uint64_t index = std::max<std::uint64_t>(first_index_, 1); index <= last; ++index) {
    if (!directory_.Stat(index)) continue;
    try {
      if (!DeleteFile(index)) all_deleted = false;
    } catch (const StorageException&) {
      ZLOG_ERROR("Failed to delete file with index " << index);
      all_deleted = false;
    }
  }
  RefreshFileIndices();
  return all_deleted && first_index_ == 0;
}

void SpoolFiles::CleanupAfterWrite() {
  try {
    Cleanup(CleanupGoal::FreeDiskSpace);
  } catch (const StorageException& error) {
    // The file itself is safe.
    ZLOG_ERROR(error.what());
  }
}

void SpoolFiles::Cleanup(CleanupGoal goal) {
  ZLOG_INFO("SpoolStorage: Initiating cleanup...");
  const std::uint64_t first = std::max<std::uint64_t>(first_index_, 1);
  // The file just written is never the one that makes room for itself.
  const std::uint64_t end = goal == CleanupGoal::FreeName ? last_index_ + 1 : last_index_;
  // While all names are taken each write costs one file, whatever their sizes.
  const bool one_is_enough =
      goal == CleanupGoal::FreeName || (first_index_ == 1 && last_index_ == directory_.MaxIndex());
  bool deleted = false;
  for (std::uint64_t index = first; index < end; ++index) {
    if (!directory_.Stat(index) || !RemoveUnsent(index)) continue;
    deleted = true;
    if (one_is_enough || HasFreeSpace()) break;
  }
  if (!deleted) throw StorageException("SpoolStorage::Cleanup: Failed to clean up spool files");
  ZLOG_INFO("SpoolStorage: Cleanup completed. [Disk usage: " << disk_usage_ << " / " << limits_.MaxDiskSize() << " ]");
}

bool SpoolFiles::DeleteFile(std::uint64_t index) {
  return Unlink(index, nullptr);
}

bool SpoolFiles::RemoveUnsent(std::uint64_t index) {
  return Unlink(index, removed_);
}

bool SpoolFiles::Unlink(std::uint64_t index, const std::function<void(std::uint64_t)>& tell) {
  const std::string name = directory_.FileName(index);
  std::uint64_t size = 0;
  struct stat info {};
  if (calls_.Lstat(name.c_str(), &info) == 0) {
    size = static_cast<std::uint64_t>(info.st_size);
  } else {
    ZLOG_ERROR("SpoolStorage: Failed to stat " << name << ": " << ErrnoText(errno));
  }
  if (calls_.Unlink(name.c_str()) != 0) {
    ZLOG_ERROR("SpoolStorage: Failed to delete " << name << ": " << ErrnoText(errno));
    return false;
  }
  ZLOG_DEBUG("Deleted file: " << name << " [" << first_index_ << ", " << last_index_ << "]");
  if (tell) tell(size);
  Forget(index, size);
  return true;
}

void SpoolFiles::Forget(std::uint64_t index, std::uint64_t size) {
  disk_usage_ -= std::min(size, disk_usage_.load());
  if (index == first_index_ && ++first_index_ > last_index_) RefreshFileIndices();
}

bool SpoolFiles::IsTaken(const std::string& path) {
  struct stat info {};
  return calls_.Lstat(path.c_str(), &info) == 0 || errno != ENOENT;
}

bool SpoolFiles::Rename(const std::string& from, const std::string& to) {
  if (calls_.Rename(from.c_str(), to.c_str()) != 0) {
    ZLOG_ERROR("SpoolStorage: Failed to rename " << from << " to " << to << ": " << ErrnoText(errno));
    return false;
  }
  ZLOG_TRACE("SpoolStorage: Renamed " << from << " to " << to);
  return true;
}

void SpoolFiles::RefreshFileIndices() {
  const auto entries = directory_.List("SpoolStorage::RefreshFileIndices");
  std::uint64_t usage = 0;
  for (const SpoolDirectory::Entry& entry : entries) usage += entry.size;
  disk_usage_ = usage;
  first_index_ = entries.empty() ? 0 : entries.front().index;
  last_index_ = entries.empty() ? 0 : entries.back().index;
  ZLOG_DEBUG("SpoolStorage: File indices refreshed [" << first_index_ << " - " << last_index_ << "]");
}

void SpoolFiles::DefragFileIndices() {
  ZLOG_INFO("SpoolStorage: Starting de-fragmentation of spool file indices.");
  int failures = 0;
  std::uint64_t target = 1;
  for (const SpoolDirectory::Entry& entry : directory_.List("SpoolStorage::DefragFileIndices")) {
    bool renamed = false;
    for (; target < entry.index && !renamed && failures < kMaxFailedRenames; ++target) {
      if (IsTaken(directory_.FileName(target))) continue;
      renamed = Rename(directory_.FileName(entry.index), directory_.FileName(target));
      if (!renamed) ++failures;
    }
    if (!renamed) target = entry.index + 1;
  }
  RefreshFileIndices();
  ZLOG_INFO("SpoolStorage: De-fragmentation completed.");
}

}  // namespace zagent::common::internal

#include "common/src/storage/FileStorage.h"

#include <sys/stat.h>

#include <utility>

#include "common/src/storage/FileOperations.h"

namespace zagent::common {

void FileStorage::ClearAsync(DoneCallback) {
  throw StorageException("FileStorage::ClearAsync is not implemented");
}

bool FileStorage::Delete(std::unique_ptr<StorageResult> previous) {
  struct stat now {};
  if (previous && previous->stat_info && calls_.Stat(GetPath().c_str(), &now) == 0 &&
      now.st_ino != previous->stat_info->st_ino) {
    return false;
  }
  return calls_.Unlink(GetPath().c_str()) == 0;
}

void FileStorage::DeleteAsync(std::unique_ptr<StorageResult>, DoneCallback) {
  throw StorageException("FileStorage::DeleteAsync is not implemented");
}

std::unique_ptr<StorageResult> FileStorage::Read() {
  return ReadFile(GetPath(), calls_);
}

void FileStorage::ReadAsync(ResultCallback) {
  throw StorageException("FileStorage::ReadAsync is not implemented");
}

std::unique_ptr<StorageResult> FileStorage::Write(Bytes data) {
  return WriteFile(GetPath(), std::move(data), calls_);
}

std::unique_ptr<StorageResult> FileStorage::Append(Bytes data, std::unique_ptr<StorageResult> previous) {
  // Without a result to compare with, nothing shows that the file is still the caller's.
  static const StorageResult kNothing;
  return AppendFile(GetPath(), std::move(data), previous ? *previous : kNothing, calls_);
}

void FileStorage::WriteAsync(Bytes, ResultCallback) {
  throw StorageException("FileStorage::WriteAsync is not implemented");
}

}  // namespace zagent::common

#pragma once

#include <string>
#include <utility>

#include "common/src/storage/FileCalls.h"
#include "common/src/storage/Storage.h"

namespace zagent::common {

// One file. No state and no lock of its own: callers serialise. The asynchronous operations throw StorageException.
class FileStorage final : public Storage {
 public:
  // `calls` outlives the storage.
  explicit FileStorage(std::string path, FileCalls& calls = FileCalls::Real())
      : Storage(std::move(path)), calls_(calls) {}

  [[nodiscard]] bool HasFreeSpace() const override { return false; }
  void ClearAsync(DoneCallback callback) override;
  bool Delete(std::unique_ptr<StorageResult> previous) override;
  void DeleteAsync(std::unique_ptr<StorageResult> previous, DoneCallback callback) override;
  std::unique_ptr<StorageResult> Read() override;
  void ReadAsync(ResultCallback callback) override;
  std::unique_ptr<StorageResult> Write(Bytes data) override;
  std::unique_ptr<StorageResult> Append(Bytes data, std::unique_ptr<StorageResult> previous) override;
  void WriteAsync(Bytes data, ResultCallback callback) override;

 private:
  FileCalls& calls_;
};

}  // namespace zagent::common

#pragma once

#include <functional>
#include <memory>
#include <string>

#include "common/src/storage/StorageResult.h"

namespace zagent::common {

// Where persistent data goes. File failures come back as StorageResult::code with one log line at error level; misuse
// throws StorageException. The inode in a result lets a later Delete or Append notice that the file has changed hands.
class Storage {
 public:
  using ResultCallback = std::function<void(std::unique_ptr<StorageResult>)>;
  using DoneCallback = std::function<void(bool)>;

  explicit Storage(std::string path) : path_(std::move(path)) {}
  Storage(const Storage&) = delete;
  Storage& operator=(const Storage&) = delete;

  [[nodiscard]] virtual bool HasFreeSpace() const = 0;
  virtual ~Storage() = default;
  virtual void ClearAsync(DoneCallback callback) = 0;
  // Deletes the file that `previous` stands for. False when it is gone or replaced.
  virtual bool Delete(std::unique_ptr<StorageResult> previous) = 0;
  virtual void DeleteAsync(std::unique_ptr<StorageResult> previous, DoneCallback callback) = 0;
  virtual std::unique_ptr<StorageResult> Read() = 0;
  virtual void ReadAsync(ResultCallback callback) = 0;
  virtual std::unique_ptr<StorageResult> Write(Bytes data) = 0;
  virtual std::unique_ptr<StorageResult> Append(Bytes data, std::unique_ptr<StorageResult> previous) = 0;
  virtual void WriteAsync(Bytes data, ResultCallback callback) = 0;

  [[nodiscard]] const std::string& GetPath() const { return path_; }

 private:
  std::string path_;
};

}  // namespace zagent::common

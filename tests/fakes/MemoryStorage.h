#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/src/storage/Storage.h"

namespace zagent::fakes {

// A spool in memory for tests of those who write to one or read from one. Items written are kept; files to be read are
// put there by the test, oldest first. For one thread.
class MemoryStorage final : public common::Storage {
 public:
  MemoryStorage() : Storage("/memory") {}

  // What was written, in order.
  std::vector<std::string> written;
  // Larger items are refused as a spool refuses them: with an exception.
  std::size_t max_item_size = static_cast<std::size_t>(-1);
  // What the callbacks of writes answer. With another code than Success the item is refused and handed back, unless
  // only the flush of what came before it has failed.
  common::StorageCode write_code = common::StorageCode::Success;
  bool only_flush_fails = false;
  // Write and Read throw this, unless it is empty: what no storage is meant to throw.
  std::string error;
  // Read answers this instead of a file, unless it is Success.
  common::StorageCode read_code = common::StorageCode::Success;
  // Names of files that cannot be deleted.
  std::set<std::string> undeletable;
  bool clear_result = true;
  int clears = 0;

  void AddFile(const std::string& name, const std::string& text) { files_.push_back({name, text, next_inode_++}); }
  [[nodiscard]] std::vector<std::string> FileNames() const {
    std::vector<std::string> names;
    for (const File& file : files_) names.push_back(file.name);
    return names;
  }

  [[nodiscard]] bool HasFreeSpace() const override { return true; }
  void ClearAsync(DoneCallback callback) override {
    ++clears;
    files_.clear();
    callback(clear_result);
  }
  bool Delete(std::unique_ptr<common::StorageResult> previous) override {
    if (undeletable.count(previous->path) != 0) return false;
    for (auto file = files_.begin(); file != files_.end(); ++file) {
      if (file->name != previous->path) continue;
      files_.erase(file);
      return true;
    }
    return false;
  }
  void DeleteAsync(std::unique_ptr<common::StorageResult> previous, DoneCallback callback) override {
    callback(Delete(std::move(previous)));
  }
  std::unique_ptr<common::StorageResult> Read() override {
    if (!error.empty()) throw std::runtime_error(error);
    auto result = std::make_unique<common::StorageResult>();
    result->code = read_code;
    if (read_code != common::StorageCode::Success) return result;
    if (files_.empty()) {
      result->code = common::StorageCode::NotFound;
      return result;
    }
    result->path = files_.front().name;
    result->stat_info = std::make_unique<struct stat>();
    result->stat_info->st_ino = files_.front().inode;
    result->stat_info->st_size = static_cast<off_t>(files_.front().text.size());
    result->data.assign(files_.front().text.begin(), files_.front().text.end());
    return result;
  }
  void ReadAsync(ResultCallback callback) override { callback(Read()); }
  std::unique_ptr<common::StorageResult> Write(common::Bytes data) override {
    if (!error.empty()) throw std::runtime_error(error);
    if (data.size() > max_item_size) {
      throw common::StorageException("SpoolStorage::WriteAsync: data is larger than max file size");
    }
    auto result = std::make_unique<common::StorageResult>();
    result->code = write_code;
    if (write_code == common::StorageCode::Success || only_flush_fails) {
      written.emplace_back(data.begin(), data.end());
    } else {
      result->data = std::move(data);
    }
    return result;
  }
  std::unique_ptr<common::StorageResult> Append(common::Bytes, std::unique_ptr<common::StorageResult>) override {
    throw common::StorageException("SpoolStorage::Write is not implemented");
  }
  void WriteAsync(common::Bytes data, ResultCallback callback) override { callback(Write(std::move(data))); }

 private:
  struct File {
    std::string name;
    std::string text;
    ino_t inode;
  };
  std::deque<File> files_;
  ino_t next_inode_ = 1;
};

}  // namespace zagent::fakes

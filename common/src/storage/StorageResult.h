#pragma once

#include <sys/stat.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace zagent::common {

using Bytes = std::vector<unsigned char>;

enum class StorageCode : int {
  Success = 0,
  NotFound = 1,
  AlreadyExists = 2,
  IOError = 3,
  SerializationFailed = 4,
  NotAFile = 5,
  FileReplaced = 6,
  PermissionDenied = 7,
  Unknown = 8,
};

// The code of a failure's errno value; what has no code of its own is Unknown. Never Success.
StorageCode StorageCodeFromErrno(int error);

// The outcome of one storage operation.
struct StorageResult {
  Bytes data;  // what was read, or what was to be written
  StorageCode code = StorageCode::Success;
  std::unique_ptr<struct stat> stat_info;  // the file right after the operation; may be null
  std::string path;                        // the file concerned, or empty
  bool has_free_space = false;             // the storage's HasFreeSpace() when the result was made
};

// Carries an errno-style code; built from a message and a code its text is "<message>: <the system's words>".
class StorageException : public std::runtime_error {
 public:
  explicit StorageException(const std::string& text, int code = 0);
  static StorageException FromErrno(const std::string& message, int code);
  [[nodiscard]] int Code() const { return code_; }

 private:
  int code_;
};

}  // namespace zagent::common

#include "common/src/storage/StorageResult.h"

#include <cerrno>

#include "common/src/util/ErrnoText.h"

namespace zagent::common {

StorageCode StorageCodeFromErrno(int error) {
  switch (error) {
    case ENOENT:
      return StorageCode::NotFound;
    case EEXIST:
      return StorageCode::AlreadyExists;
    case EIO:
      return StorageCode::IOError;
    case ENOTDIR:
    case EISDIR:
      return StorageCode::NotAFile;
    case EINVAL:
      return StorageCode::FileReplaced;
    case EPERM:
    case EACCES:
      return StorageCode::PermissionDenied;
    default:
      return StorageCode::Unknown;
  }
}

StorageException::StorageException(const std::string& text, int code) : std::runtime_error(text), code_(code) {}

StorageException StorageException::FromErrno(const std::string& message, int code) {
  return StorageException(message + ": " + util::ErrnoText(code), code);
}

}  // namespace zagent::common

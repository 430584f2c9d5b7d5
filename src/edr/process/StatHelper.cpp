#include "src/edr/process/StatHelper.h"

#include <cerrno>

#include "common/src/util/DeviceText.h"
#include "common/src/util/ErrnoText.h"
#include "common/src/util/Log.h"

namespace zagent::common {

std::unique_ptr<struct stat> StatImage(const ImageInfo& image) {
  auto result = std::make_unique<struct stat>();
  if (lstat(image.GetPath().c_str(), result.get()) != 0) {
    const int error = errno;
    ZLOG_DEBUG("Failed to stat " << image.GetPath() << " (" << util::ErrnoText(error) << ")");
    return nullptr;
  }
  if (result->st_ino != image.GetInode() || util::DeviceText(result->st_dev) != image.GetDevice()) {
    throw StatHelperException("Actual file path " + image.GetPath() + " differs from the ImageInfo.");
  }
  return result;
}

}  // namespace zagent::common

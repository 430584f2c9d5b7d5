#include "src/edr/process/StatHelper.h"

#include <cerrno>

#include "common/src/util/DeviceText.h"
#include "common/src/util/ErrnoText.h"
#include "common/src/util/Log.h"

namespace zagent::common {

bool IsOf(const struct stat& result, const ImageInfo& image) {
  return result.st_ino == image.GetInode() && util::DeviceText(result.st_dev) == image.GetDevice();
}

std::unique_ptr<struct stat> StatImage(const ImageInfo& image) {
  auto result = std::make_unique<struct stat>();
  if (lstat(image.GetPath().c_str(), result.get()) != 0) {
    const int error = errno;
    ZLOG_DEBUG("Failed to stat " << image.GetPath() << " (" << util::ErrnoText(error) << ")");
    return nullptr;
  }
  if (!IsOf(*result, image)) {
    throw StatHelperException("Actual file path " + image.GetPath() + " differs from the ImageInfo.");
  }
  return result;
}

}  // namespace zagent::common

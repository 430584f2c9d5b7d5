#pragma once

#include <sys/stat.h>

#include <memory>
#include <stdexcept>

#include "src/edr/process/ImageInfo.h"

namespace zagent::common {

class StatHelperException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Whether this is a look at the image's object, by inode and device.
bool IsOf(const struct stat& result, const ImageInfo& image);

// lstat of the image's path. Nothing when it is not there; throws StatHelperException "Actual file path <path> differs
// from the ImageInfo." when another object (inode or device) is in its place.
std::unique_ptr<struct stat> StatImage(const ImageInfo& image);

}  // namespace zagent::common

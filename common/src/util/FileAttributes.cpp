#include "common/src/util/FileAttributes.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <cerrno>

#include "common/src/util/DeviceText.h"
#include "common/src/util/ErrnoText.h"
#include "common/src/util/Log.h"
#include "common/src/util/UniqueFd.h"

namespace zagent::common::util {

std::string ReadFileSystemAttributes(const std::string& path, const std::string& device, std::uint64_t inode) {
  ZLOG_TRACE("Reading file system attributes from '" << path << "'");
  // Opening alone can do harm to a device.
  struct stat before {};
  if (stat(path.c_str(), &before) == 0 && !S_ISREG(before.st_mode) && !S_ISDIR(before.st_mode)) return "";
  const UniqueFd fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!fd) {
    ZLOG_DEBUG("Failed to open file '" << path << "'. " << ErrnoText(errno));
    return "";
  }
  struct stat opened {};
  if (fstat(fd.Get(), &opened) != 0) {
    ZLOG_DEBUG("Failed to fstat file at '" << path << "'");
    return "";
  }
  struct stat named {};
  if (lstat(path.c_str(), &named) != 0) {
    ZLOG_DEBUG("Failed to lstat file at '" << path << "'");
    return "";
  }
  if (opened.st_ino != inode || DeviceText(opened.st_dev) != device) {
    ZLOG_DEBUG("The file at '" << path << "' has been replaced");
    return "";
  }
  if (S_ISLNK(named.st_mode)) {
    ZLOG_DEBUG("Not reading attributes symlink '" << path << "'");
    return "";
  }
  int flags = 0;
  if (ioctl(fd.Get(), FS_IOC_GETFLAGS, &flags) != 0) {
    ZLOG_DEBUG("Failed to read file system attributes for '" << path << "': " << ErrnoText(errno));
    return "";
  }
  return std::to_string(flags);
}

}  // namespace zagent::common::util

#pragma once

#include <sys/stat.h>

namespace zagent::common::util {

// Whether nobody but root can change what is in the file.
inline bool IsRootsAlone(const struct stat& file) {
  const bool group_may_write = (file.st_mode & S_IWGRP) != 0 && file.st_gid != 0;
  return file.st_uid == 0 && !group_may_write && (file.st_mode & S_IWOTH) == 0;
}

}  // namespace zagent::common::util

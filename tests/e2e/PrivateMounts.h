#pragma once

#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

namespace zagent::e2e {

// In a mount namespace of its own (unshare): no mount of this process, and of those that it starts, is seen by others
// from here on. False with errno when the kernel refuses.
//
// The root of a plain chroot is a folder and no mount, whose mounts cannot be made private. There this process moves to
// a mount of the same root, which is bound over /proc: that is a mount everywhere, so that it can be made private
// first, and nobody else sees even that one.
inline bool MakeMountsPrivate() {
  if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0) return true;
  if (errno != EINVAL) return false;
  std::error_code ignored;
  const std::filesystem::path folder = std::filesystem::current_path(ignored);
  return mount("none", "/proc", nullptr, MS_PRIVATE, nullptr) == 0 &&
         mount("/", "/proc", nullptr, MS_BIND | MS_REC, nullptr) == 0 && chroot("/proc") == 0 &&
         chdir(folder.c_str()) == 0 && mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

}  // namespace zagent::e2e

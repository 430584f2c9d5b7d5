#pragma once

#include <gtest/gtest.h>
#include <sys/mount.h>

#include <string>
#include <utility>

namespace zagent::e2e {

// A small disk of its own under a folder.
class Tmpfs {
 public:
  Tmpfs(std::string folder, const std::string& size) : folder_(std::move(folder)) {
    EXPECT_EQ(mount("tmpfs", folder_.c_str(), "tmpfs", 0, ("mode=0700,size=" + size).c_str()), 0);
  }
  Tmpfs(const Tmpfs&) = delete;
  Tmpfs& operator=(const Tmpfs&) = delete;
  ~Tmpfs() { umount2(folder_.c_str(), MNT_DETACH); }

  void Remount(bool read_only) const {
    EXPECT_EQ(mount("tmpfs", folder_.c_str(), "tmpfs",
                    read_only ? MS_REMOUNT | MS_RDONLY : static_cast<unsigned long>(MS_REMOUNT), nullptr),
              0);
  }

 private:
  const std::string folder_;
};

}  // namespace zagent::e2e

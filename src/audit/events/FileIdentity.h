#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string_view>

namespace zagent::audit::internal {

// Which object of which file system, whatever it is called.
struct FileIdentity {
  std::uint64_t device = 0;  // a dev_t as makedev puts it together
  std::uint64_t inode = 0;   // no object has 0
  bool operator==(const FileIdentity&) const = default;

  static FileIdentity Of(const struct stat& found) { return {found.st_dev, found.st_ino}; }
};

// The number of a device as PATH records write it ("fd:00": two numbers in hexadecimal); 0 for another text.
[[nodiscard]] std::uint64_t DeviceNumberOf(std::string_view text);

}  // namespace zagent::audit::internal

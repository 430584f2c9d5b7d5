#pragma once

#include <cstdint>

namespace zagent::audit::internal {

// Which object of which file system, whatever it is called.
struct FileIdentity {
  std::uint64_t device = 0;  // a dev_t as makedev puts it together
  std::uint64_t inode = 0;   // no object has 0
  bool operator==(const FileIdentity&) const = default;
};

}  // namespace zagent::audit::internal

#pragma once

#include <cstdint>
#include <string>

namespace zagent::common::util {

// The attribute flags of a file system (chattr's, from FS_IOC_GETFLAGS) as a decimal number in text, read only while
// the file at the path is still the one that is meant by `device` (as audit writes it, "fd:00") and `inode`. Empty for
// a symbolic link, for what is neither file nor folder, and on every failure, which a debug line tells.
std::string ReadFileSystemAttributes(const std::string& path, const std::string& device, std::uint64_t inode);

}  // namespace zagent::common::util

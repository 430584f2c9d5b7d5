#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>

namespace zagent::common {

// The spool file whose events an upload carries. A spool renames its files, so the name says only whose they are.
struct UploadSource {
  std::string path;    // for log lines
  std::string prefix;  // of the spool: the file's name without folder and number
  std::uint64_t inode = 0;
  std::int64_t modified = 0;  // nanoseconds since the epoch
  std::uint64_t size = 0;     // bytes

  // `status`: of the open file that was read.
  static UploadSource Of(const std::string& path, const struct stat& status);

  // A UUID of version 5 that is the same whenever `agent_id` sends this same file, before and after a restart: SHA-1
  // over kNamespace and "<agent id>;<prefix>;<inode>;<modified>;<size>".
  [[nodiscard]] std::string MakeRequestId(const std::string& agent_id) const;

  static constexpr const char* kNamespace = "7d0e3f52-5b1a-4c9e-8f64-2a9b1c6d3e70";
};

}  // namespace zagent::common

#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "src/edr/Event.h"

namespace zagent::audit::internal {

class SyscallRecordException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// What a SYSCALL record says.
struct SyscallRecord {
  // Throws SyscallRecordException for a field that does not read, std::out_of_range for one that is missing.
  explicit SyscallRecord(const edr::RecordFields& fields);

  std::vector<std::uint64_t> arguments;  // a0 to a3, those present
  std::int32_t ppid = 0;
  std::int32_t pid = 0;
  std::string process_path;
  std::uint32_t uid = 0;
  std::uint32_t auid = 0;
  std::uint32_t euid = 0;
  std::int32_t exit = 0;
  std::uint64_t items = 0;  // how many PATH records the kernel announced
  std::string key;          // "(null)" is kept as a word
  bool success = true;
  std::uint32_t syscall = 0;
};

}  // namespace zagent::audit::internal

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

#include "src/edr/RecordFields.h"

namespace zagent::audit::internal {

class SyscallRecordException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// What a SYSCALL record says.
struct SyscallRecord {
  SyscallRecord() = default;
  // Throws SyscallRecordException for a field that does not read, std::out_of_range for one that is missing.
  explicit SyscallRecord(const edr::RecordFields& fields);

  std::array<std::uint64_t, 4> arguments{};  // a0 to a3, those present
  std::uint8_t argument_count = 0;
  bool success = true;
  std::int32_t ppid = 0;
  std::int32_t pid = 0;
  std::uint32_t uid = 0;
  std::uint32_t auid = 0;
  std::uint32_t euid = 0;
  std::int32_t exit = 0;
  std::uint32_t syscall = 0;
  std::uint64_t items = 0;  // how many PATH records the kernel announced
  std::string process_path;
  std::string key;  // "(null)" is kept as a word
};

}  // namespace zagent::audit::internal

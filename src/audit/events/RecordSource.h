#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "src/edr/RecordFields.h"

namespace zagent::audit::internal {

// Kernel numbers of the record types that events are built from.
namespace record_type {
inline constexpr int kSyscall = 1300;
inline constexpr int kPath = 1302;
inline constexpr int kConfigChange = 1305;
inline constexpr int kSockaddr = 1306;
inline constexpr int kCwd = 1307;
inline constexpr int kExecve = 1309;
inline constexpr int kEndOfEvent = 1320;
inline constexpr int kProctitle = 1327;
inline constexpr int kUringOp = 1336;
inline constexpr int kOpenAt2 = 1337;
inline constexpr int kAnomAbend = 1701;
}  // namespace record_type

// A set of record types, so that an event walks only the records that it reads.
using RecordKinds = std::uint16_t;

// The set of one type; empty for a type that no event reads.
constexpr RecordKinds KindOf(int type) {
  constexpr std::array kTypes = {record_type::kSyscall,     record_type::kPath,    record_type::kSockaddr,
                                 record_type::kCwd,         record_type::kExecve,  record_type::kProctitle,
                                 record_type::kUringOp,     record_type::kOpenAt2, record_type::kAnomAbend,
                                 record_type::kConfigChange};
  for (std::size_t at = 0; at < kTypes.size(); ++at) {
    if (kTypes[at] == type) return static_cast<RecordKinds>(1U << at);
  }
  return 0;
}

template <typename... Types>
constexpr RecordKinds KindsOf(Types... types) {
  return static_cast<RecordKinds>((KindOf(types) | ...));
}

// One audit record: its kernel type and the fields that events read of such a record, rendered as they read them
// (names, paths and titles decoded, numbers as the kernel wrote them).
struct Record {
  int type = 0;
  edr::RecordFields fields;
};

// The records of one complete audit event, read once from front to back.
class RecordSource {
 public:
  RecordSource() = default;
  RecordSource(const RecordSource&) = delete;
  RecordSource& operator=(const RecordSource&) = delete;
  virtual ~RecordSource() = default;

  // The next record of a wanted kind that has fields; null after the last one. The record is valid until the next call.
  // Throws std::runtime_error when the event cannot be read.
  virtual const Record* Next(RecordKinds wanted) = 0;

  // Serial number of the event.
  [[nodiscard]] virtual std::uint32_t Id() const = 0;
  // Nanoseconds since the epoch, whole seconds: the kernel's milliseconds are dropped on purpose.
  [[nodiscard]] virtual std::int64_t Timestamp() const = 0;
};

}  // namespace zagent::audit::internal

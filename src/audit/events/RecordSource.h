#pragma once

#include <cstdint>

#include "src/edr/Event.h"

// libauparse's opaque parser, as its own header names it.
struct opaque;
using auparse_state_t = opaque;

namespace zagent::audit::internal {

// Kernel numbers of the record types that events are built from.
namespace record_type {
inline constexpr int kSyscall = 1300;
inline constexpr int kPath = 1302;
inline constexpr int kSockaddr = 1306;
inline constexpr int kCwd = 1307;
inline constexpr int kExecve = 1309;
inline constexpr int kProctitle = 1327;
inline constexpr int kAnomAbend = 1701;
}  // namespace record_type

// One audit record: its kernel type and its fields, rendered as the events read them (names, paths and titles decoded,
// numbers as the kernel wrote them).
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

  // Reads the next record of a wanted type that has fields; false after the last one. Throws std::runtime_error when
  // the event cannot be read.
  virtual bool Next(Record& record) = 0;

  // Serial number of the event. Valid after the first Next.
  [[nodiscard]] virtual std::uint32_t Id() const = 0;
  // Nanoseconds since the epoch, whole seconds: the kernel's milliseconds are dropped on purpose. Valid after the first
  // Next.
  [[nodiscard]] virtual std::int64_t Timestamp() const = 0;
};

}  // namespace zagent::audit::internal

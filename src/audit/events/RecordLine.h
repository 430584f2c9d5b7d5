#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace zagent::audit::internal {

// One record as a line of the audit log, in views of that line:
//   node=web-1 type=PATH msg=audit(1795162410.936:126): item=0 name="/srv" ...
struct RecordLine {
  int type = 0;            // the kernel's number; -1 for a name that libaudit does not know either
  std::string_view host;   // "web-1"; empty but for a dispatcher that is told to name its machine
  std::string_view stamp;  // "1795162410.936:126": with the host, what all records of an event have in common
  std::string_view text;   // the whole line, without its end
  std::string_view body;   // the fields that the kernel wrote
};

// Nothing for text that does not begin as a record does.
[[nodiscard]] std::optional<RecordLine> ReadRecordLine(std::string_view text);

// What a stamp says.
struct EventStamp {
  std::uint64_t seconds = 0;  // since the epoch
  std::uint64_t serial = 0;
};

// Nothing for a stamp that is damaged.
[[nodiscard]] std::optional<EventStamp> ReadStamp(std::string_view stamp);

}  // namespace zagent::audit::internal

#include "src/audit/events/Event.h"

#include "common/src/util/Log.h"
#include "src/audit/events/PathResolution.h"

namespace zagent::audit::internal {

void Event::Feed(RecordSource& source, RecordKinds wanted) {
  id_ = source.Id();
  timestamp_ = source.Timestamp();
  while (const Record* record = source.Next(wanted)) ParseRecord(record->type, record->fields);
  Validate();
}

void Event::Validate() {
  if (id_ == 0 || timestamp_ == 0) throw edr::EventException("Missing event ID or timestamp");
  ZLOG_DEBUG("Event Action: " << GetAction());
}

std::string Event::ResolvePath(const std::string& cwd, const std::string& parent, const std::string& child) {
  if (child.empty()) throw edr::EventException("Missing path for child");
  if (child.front() == '/') return NormalisePath(child);
  if (!parent.empty()) {
    if (parent.front() == '/') return NormalisePath(parent + "/" + child);
    if (cwd.empty()) throw edr::EventException("Missing CWD with relative paths");
    return NormalisePath(cwd + "/" + parent + "/" + child);
  }
  if (cwd.empty()) throw edr::EventException("Missing CWD with relative path");
  return NormalisePath(cwd + "/" + child);
}

}  // namespace zagent::audit::internal

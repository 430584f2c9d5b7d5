#include "src/audit/events/RecordList.h"

#include <algorithm>

namespace zagent::audit::internal {

RecordList::RecordList(RecordSource& source, RecordKinds wanted) : RecordList(source.Id(), source.Timestamp()) {
  while (const Record* record = source.Next(wanted)) records_.push_back(*record);
}

Record* RecordList::Find(int type) {
  const auto found =
      std::find_if(records_.begin(), records_.end(), [type](const Record& record) { return record.type == type; });
  return found != records_.end() ? &*found : nullptr;
}

const Record* RecordList::Next(RecordKinds wanted) {
  while (next_ < records_.size()) {
    const Record& record = records_[next_++];
    if ((wanted & KindOf(record.type)) != 0) return &record;
  }
  return nullptr;
}

}  // namespace zagent::audit::internal

#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "src/audit/events/RecordSource.h"

namespace zagent::audit::internal {

// The records of one event held together, so that they can be looked at, changed and put into another order before an
// event is built of them. Values that come from another source belong to that source's event; what is put in here
// belongs to the list.
class RecordList final : public RecordSource {
 public:
  RecordList(std::uint32_t id, std::int64_t timestamp) : id_(id), timestamp_(timestamp) {}
  // What `source` has left of the wanted kinds.
  RecordList(RecordSource& source, RecordKinds wanted);

  [[nodiscard]] std::vector<Record>& Records() { return records_; }
  // The first record of this type; null without one.
  [[nodiscard]] Record* Find(int type);
  // A text that lives as long as the list, to be set as a value of its records.
  [[nodiscard]] std::string_view Keep(std::string text) { return texts_.emplace_back(std::move(text)); }

  const Record* Next(RecordKinds wanted) override;
  [[nodiscard]] std::uint32_t Id() const override { return id_; }
  [[nodiscard]] std::int64_t Timestamp() const override { return timestamp_; }

 private:
  std::uint32_t id_;
  std::int64_t timestamp_;
  std::vector<Record> records_;
  std::size_t next_ = 0;
  std::deque<std::string> texts_;
};

}  // namespace zagent::audit::internal

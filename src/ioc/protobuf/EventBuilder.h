#pragma once

#include <vector>

#include "common/src/storage/StorageResult.h"
#include "src/edr/Event.h"
#include "src/ioc/protobuf/ReportedObjects.h"

namespace zagent::ioc::internal::protobuf {

// What is told of an event.
struct Report {
  struct Item {
    common::Bytes message;                           // as MakeItem makes it
    std::vector<ReportedObjects::Change> changes{};  // of what the platform knows once the spool has taken it
  };
  std::vector<Item> items;  // for the spool, in this order; none: nothing is told
};

// Makes the messages of one kind of event. For the thread that changes the tree.
class EventBuilder {
 public:
  EventBuilder() = default;
  EventBuilder(const EventBuilder&) = delete;
  EventBuilder& operator=(const EventBuilder&) = delete;
  virtual ~EventBuilder() = default;

  // Throws Exception, or what an accessor of the event or the tree throws, for an event that cannot be told of.
  [[nodiscard]] virtual Report Build(const edr::Event& event) const = 0;
};

}  // namespace zagent::ioc::internal::protobuf

#include "src/ioc/protobuf/EventActions.h"

#include <array>
#include <string>

#include "src/ioc/protobuf/Exception.h"

namespace zagent::ioc::internal::protobuf {
namespace {

namespace wire = com::ostrel::ioc::model::proto::event;

struct Row {
  unsigned type;
  wire::EventAction action;
};

// By number: the platform has words for some types that no event has yet (6, closed, and 14, loaded).
constexpr std::array<Row, 14> kActions = {{
    {1, wire::ESTABLISHED},
    {2, wire::CREATE},
    {3, wire::DELETE},
    {4, wire::READ},
    {5, wire::WRITE},
    {6, wire::CLOSED},
    {7, wire::CHANGE},
    {8, wire::RENAME},
    {9, wire::RUNNING},
    {11, wire::TERMINATED},
    {12, wire::ESTABLISHED},
    {13, wire::LISTEN},
    {14, wire::LOAD},
    {16, wire::TERMINATED},
}};

}  // namespace

wire::EventAction ActionOf(edr::EventType type) {
  for (const Row& row : kActions) {
    if (row.type == static_cast<unsigned>(type)) return row.action;
  }
  throw Exception("No action for event type " + std::to_string(static_cast<unsigned>(type)));
}

}  // namespace zagent::ioc::internal::protobuf

#pragma once

#include "src/edr/Event.h"
#include "src/ioc/protobuf/IocEvents.pb.h"

namespace zagent::ioc::internal::protobuf {

// What the platform calls an event. Throws Exception for one that it has no word for.
com::ostrel::ioc::model::proto::event::EventAction ActionOf(edr::EventType type);

}  // namespace zagent::ioc::internal::protobuf

#pragma once

#include "src/ioc/process/TtlProcessTree.h"
#include "src/ioc/protobuf/EventBuilder.h"

namespace zagent::ioc::internal::protobuf {

// Connections and listening. Audit tells one address of a call: that of the peer, or the own one of a bind. It does not
// tell the protocol; the words of the platform are those of TCP.
class NetworkEvent final : public EventBuilder {
 public:
  explicit NetworkEvent(const TtlProcessTree& tree) : tree_(tree) {}

  [[nodiscard]] Report Build(const edr::Event& event) const override;

 private:
  const TtlProcessTree& tree_;
};

}  // namespace zagent::ioc::internal::protobuf

#pragma once

#include <memory>

#include "src/ioc/config/Config.h"
#include "src/ioc/process/TtlProcessTree.h"
#include "src/ioc/protobuf/EventBuilder.h"
#include "src/ioc/protobuf/EventGenerator.h"

namespace zagent::common {
class SqlStorage;
class Storage;
}  // namespace zagent::common

namespace zagent::health {
class ComponentHealth;
}

namespace zagent::ioc::internal::protobuf {

// Makes messages of the events that are to be reported and gives them to the spool, which makes batches of them. What
// the platform was told of is kept in the snapshot; what the spool refuses, later too, is not, and is told again at the
// next occasion. When the messages of an event have gone to the spool its actor gets the tag "Reported": the end of the
// process may already be on its way to be judged.
class Generator final : public EventGenerator {
 public:
  // All outlive the object; the snapshot runs on a Scheduler.
  Generator(TtlProcessTree& tree, common::Storage& spool, common::SqlStorage& snapshot, const Config& config,
            const health::ComponentHealth& health);
  ~Generator() override;

  // Throws what a builder throws, "Cannot generate protobuf for invalid event type: <code>" for an object of no kind,
  // and common::StorageException for a message that the spool refuses.
  void Process(const edr::Event& event, bool send_metadata) override;

  // Forgets what was told and is not in the snapshot yet. To be called before the snapshot is cleared, from any thread.
  void Clear();

 private:
  struct Builders;

  void Write(Report::Item item);

  TtlProcessTree& tree_;
  common::Storage& spool_;
  const health::ComponentHealth& health_;
  const std::unique_ptr<Builders> builders_;
};

}  // namespace zagent::ioc::internal::protobuf

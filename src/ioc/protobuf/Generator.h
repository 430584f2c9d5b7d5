#pragma once

#include <memory>
#include <mutex>
#include <optional>

#include "common/src/util/Clock.h"
#include "common/src/util/DigestCache.h"
#include "common/src/util/LinePace.h"
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
//
// What is remembered only so that a burst costs less is freed behind a minute without an event to report: it lies among
// what has gone since, and would keep that memory from the system as well.
class Generator final : public EventGenerator {
 public:
  // All outlive the object; the snapshot runs on a Scheduler. `digests` is the cache of the events; without it a large
  // file that is not written goes without digests as well for a while after it was read.
  Generator(TtlProcessTree& tree, common::Storage& spool, common::SqlStorage& snapshot, const Config& config,
            const health::ComponentHealth& health, common::util::Clock& clock = common::util::Clock::Real(),
            std::shared_ptr<common::util::DigestCache> digests = nullptr);
  Generator(const Generator&) = delete;
  Generator& operator=(const Generator&) = delete;
  ~Generator() override;

  // Throws what a builder throws, "Cannot generate protobuf for invalid event type: <code>" for an object of no kind,
  // and common::StorageException for a message that the spool refuses.
  void Process(const edr::Event& event, bool send_metadata) override;

  void BeginTurn() override;
  void KeepHouse() override;

  // From any thread. Whoever is disabled tells nothing, from the return of the call on, and forgets what was told and
  // is not in the snapshot yet: to be called before the snapshot and the spool are cleared.
  void Enable(bool enabled);

 private:
  struct Builders;

  void Write(Report::Item item);
  void ForgetWhenQuiet();

  TtlProcessTree& tree_;
  common::Storage& spool_;
  common::SqlStorage& snapshot_;
  const health::ComponentHealth& health_;
  const std::shared_ptr<common::util::LinePace> failures_;
  const common::util::Clock& clock_;
  const std::unique_ptr<Builders> builders_;
  bool is_busy_ = false;  // an event has come since house was kept
  std::optional<common::util::Clock::SteadyTime> forget_at_;
  std::mutex mutex_;  // held while the messages of an event go to the spool
  bool is_enabled_ = true;
};

}  // namespace zagent::ioc::internal::protobuf

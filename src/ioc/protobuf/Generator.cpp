#include "src/ioc/protobuf/Generator.h"

#include <chrono>
#include <string>
#include <utility>

#include "common/src/storage/SqlStorage.h"
#include "common/src/storage/Storage.h"
#include "common/src/util/Log.h"
#include "src/health/ComponentHealth.h"
#include "src/ioc/config/LogPrefix.h"
#include "src/ioc/process/ProcessTags.h"
#include "src/ioc/protobuf/DirectoryEvent.h"
#include "src/ioc/protobuf/Exception.h"
#include "src/ioc/protobuf/FileEvent.h"
#include "src/ioc/protobuf/NetworkEvent.h"
#include "src/ioc/protobuf/ProcessEvent.h"
#include "src/ioc/protobuf/UniqueId.h"

namespace zagent::ioc::internal::protobuf {
namespace {

constexpr std::chrono::minutes kQuiet{1};

// Whether the item was taken: a code without it tells of what the spool held before it.
bool TellOfWritten(const health::ComponentHealth& health, common::util::LinePace& failures,
                   const common::StorageResult* result) {
  const common::StorageCode code = result == nullptr ? common::StorageCode::Unknown : result->code;
  if (code == common::StorageCode::Success) {
    ZLOG_DEBUG("Protobuf written to spool storage successfully");
    return true;
  }
  if (const std::uint64_t times = failures.Take()) {
    ZLOG_ERROR("Failed to write protobuf to spool storage. Error code " << static_cast<int>(code)
                                                                        << common::util::LinePace::Times(times));
  }
  if (result != nullptr && result->data.empty()) return true;
  health.CountRefused();
  return false;
}

}  // namespace

struct Generator::Builders {
  Builders(const TtlProcessTree& tree, common::SqlStorage& snapshot, const Config& config, common::util::Clock& clock,
           std::shared_ptr<common::util::DigestCache> known_digests)
      : reported(snapshot, ReportedObjects::kMaxRows, clock),
        digests(known_digests ? std::move(known_digests) : std::make_shared<common::util::DigestCache>(clock)),
        pace(*digests, clock, LogPrefix()),
        directory(tree, reported),
        file(tree, reported, directory, pace, *digests, clock),
        network(tree),
        process(tree, config) {}

  [[nodiscard]] const EventBuilder& For(edr::ObjectType type) const {
    switch (type) {
      case edr::ObjectType::File:
        return file;
      case edr::ObjectType::Directory:
        return directory;
      case edr::ObjectType::Process:
        return process;
      case edr::ObjectType::Network:
        return network;
    }
    throw Exception("Cannot generate protobuf for invalid event type: " + std::to_string(static_cast<unsigned>(type)));
  }

  ReportedObjects reported;
  const std::shared_ptr<common::util::DigestCache> digests;
  edr::DigestPace pace;
  const DirectoryEvent directory;
  FileEvent file;
  const NetworkEvent network;
  ProcessEvent process;
};

Generator::Generator(TtlProcessTree& tree, common::Storage& spool, common::SqlStorage& snapshot, const Config& config,
                     const health::ComponentHealth& health, common::util::Clock& clock,
                     std::shared_ptr<common::util::DigestCache> digests)
    : tree_(tree),
      spool_(spool),
      snapshot_(snapshot),
      health_(health),
      failures_(std::make_shared<common::util::LinePace>(clock)),
      clock_(clock),
      builders_(std::make_unique<Builders>(tree, snapshot, config, clock, std::move(digests))) {}

Generator::~Generator() = default;

void Generator::Process(const edr::Event& event, bool /*send_metadata*/) {
  is_busy_ = true;
  Report report = builders_->For(event.GetObjectType()).Build(event);
  if (report.items.empty()) return;
  const std::lock_guard lock(mutex_);
  if (!is_enabled_) return;
  for (Report::Item& item : report.items) Write(std::move(item));
  tree_.Get(event.GetActorProcessId())->AddTag(process_tag::kReported);
}

// The answer comes later, on another thread, and perhaps when the generator has gone.
void Generator::Write(Report::Item item) {
  const auto answer = builders_->reported.Expect(std::move(item.changes));
  try {
    spool_.WriteAsync(std::move(item.message), [&health = health_, failures = failures_,
                                                answer](const std::unique_ptr<common::StorageResult>& result) {
      answer(TellOfWritten(health, *failures, result.get()));
    });
  } catch (const std::exception&) {
    answer(false);
    throw;
  }
}

void Generator::BeginTurn() {
  builders_->file.BeginTurn();
}

void Generator::KeepHouse() {
  builders_->reported.HandOverWhatIsDue();
  ForgetWhenQuiet();
}

void Generator::ForgetWhenQuiet() {
  const common::util::Clock::SteadyTime now = clock_.SteadyNow();
  if (std::exchange(is_busy_, false)) forget_at_ = now + kQuiet;
  if (!forget_at_ || now < *forget_at_) return;
  forget_at_.reset();
  builders_->file.Forget();
  builders_->process.Forget();
  ForgetUniqueIds();
  snapshot_.ForgetCached();
}

void Generator::Enable(bool enabled) {
  const std::lock_guard lock(mutex_);
  is_enabled_ = enabled;
  if (!enabled) builders_->reported.Clear();
}

}  // namespace zagent::ioc::internal::protobuf

#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "bench/IntakeMeasures.h"
#include "bench/PatientKernel.h"
#include "common/src/config/CommonConfig.h"
#include "common/src/http/Uploader.h"
#include "common/src/tasks/Scheduler.h"
#include "common/src/util/DigestCache.h"
#include "src/audit/engine/RuleEngine.h"
#include "src/audit/events/IntakeCounters.h"
#include "src/edr/LibMagicWrapper.h"
#include "src/health/HealthReporter.h"

namespace zagent::bench {

// The daemon's road of a recorded log, with everything between the channel and its components, which stand on Engine()
// while Run goes on. For the root of RunInPreparedRoot.
class DaemonRoad {
 public:
  // Of what it is told only what was lost.
  class Health final : public health::HealthReporter {
   public:
    void Report(health::HealthStatus) noexcept override {}
    void CountRefused(std::uint64_t documents) noexcept override { lost_ += documents; }
    void CountRemovedFile(std::uint64_t /*bytes*/) noexcept override { ++lost_; }
    void CountDropped(std::uint64_t events) noexcept override { lost_ += events; }
    [[nodiscard]] std::uint64_t GetLost() const { return lost_; }

   private:
    std::atomic<std::uint64_t> lost_{0};
  };

  // In percent, of the processor and of the memory.
  static constexpr std::uint64_t kCpuLimit = 100;
  static constexpr std::uint64_t kMemoryLimit = 50;

  // With what tells types of files; null: nobody is to ask for them.
  explicit DaemonRoad(std::shared_ptr<edr::LibMagicWrapper> magic = nullptr);

  [[nodiscard]] audit::RuleEngine& Engine() { return engine_; }
  [[nodiscard]] common::Scheduler& Scheduler() { return scheduler_; }
  [[nodiscard]] Health& GetHealth() { return health_; }
  [[nodiscard]] const std::shared_ptr<common::util::DigestCache>& Digests() const { return context_.digests; }
  [[nodiscard]] const std::shared_ptr<edr::LibMagicWrapper>& Magic() const { return context_.lib_magic; }
  // Uploads nothing.
  [[nodiscard]] static std::unique_ptr<common::Uploader> MakeUploader();
  [[nodiscard]] static common::CommonConfig MakeCommonConfig();

  // Delivers the log in bursts, as the dispatcher does. Returns when each event was handed to the components.
  void Run(const std::string& log);

 private:
  const audit::internal::FileContext context_;
  PatientKernel kernel_;
  Health health_;
  audit::IntakeCounters counters_;
  common::Scheduler scheduler_;
  audit::RuleEngine engine_;
};

// laurel, as scripts/bench has unpacked it in kResults, with the file as its standard input; counts its lines. In the
// root of RunInPreparedRoot.
IntakeCost MeasureLaurel(const std::string& log_file);

// The processor time that `work` takes of this process, and what it counts.
IntakeCost MeasureCost(const std::function<std::size_t()>& work);

}  // namespace zagent::bench

#include "src/audit/routing/EventGuard.h"

#include <exception>

#include "common/src/util/Log.h"
#include "src/edr/EventRuleEngine.h"
#include "src/edr/process/ProcessTree.h"
#include "src/edr/process/StatHelper.h"

namespace zagent::audit::internal {
namespace {

using Reason = IntakeCounters::Reason;

bool BelongsToAnEventsLife(const std::exception& error) {
  return dynamic_cast<const edr::RuleEngineException*>(&error) != nullptr ||
         dynamic_cast<const edr::EventException*>(&error) != nullptr ||
         dynamic_cast<const common::StatHelperException*>(&error) != nullptr ||
         dynamic_cast<const common::ProcessInfoException*>(&error) != nullptr ||
         dynamic_cast<const common::GenericProcessTreeException*>(&error) != nullptr;
}

}  // namespace

void LoseEvent(std::uint32_t event_id, IntakeCounters& counters, Reason expected_loss) {
  const auto lose = [&](const char* cause) {
    counters.Add(Reason::NotProcessed);
    ZLOG_ERROR("Failed to process event with ID " << event_id << ": " << cause);
  };
  try {
    throw;
  } catch (const std::exception& error) {
    if (!BelongsToAnEventsLife(error)) return lose(error.what());
    counters.Add(expected_loss);
    ZLOG_DEBUG("Failed to process event with ID " << event_id << ": " << error.what());
  } catch (...) {
    lose("unknown failure");
  }
}

}  // namespace zagent::audit::internal

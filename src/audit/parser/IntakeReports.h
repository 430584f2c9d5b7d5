#pragma once

#include <functional>
#include <string>

#include "src/audit/events/IntakeCounters.h"

namespace zagent::audit {

// Where a stage of the intake tells what becomes of it.
struct IntakeReports {
  // What is lost; outlives the stage.
  IntakeCounters& counters;
  // The stage has died of `cause`: it takes nothing in any more and drops what it had. Called once a run, on the
  // stage's own thread, which ends behind it; Start and Stop of the stage must not be called from within.
  std::function<void(const std::string& cause)> ended;
  // Records are taken again after some were dropped at the bound: what is concluded from their order may be wrong.
  // Called with the stage's queue locked; may be empty.
  std::function<void()> resumed = nullptr;
};

}  // namespace zagent::audit

#pragma once

#include <string>

#include "bench/IntakeMeasures.h"

namespace zagent::bench {

// The recorded log through intake, rules, the chain that judges, and protocol buffers in files on disk; counts what was
// told. `settings` are members of the manifest beside its rules, which want everything that the log speaks of. For the
// root of RunInPreparedRoot. Throws std::runtime_error when an event was lost.
IntakeCost MeasureIocRoad(const std::string& log, const std::string& settings);

}  // namespace zagent::bench

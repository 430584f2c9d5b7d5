#pragma once

#include "common/src/config/CommonConfig.h"

namespace zagent::edr::host {

// Sets the proxy variables that the configuration names (its other variables are not the daemon's) in the environment
// of this process, in the place of those that it was started with. Before there is another thread that reads the
// environment.
void SetProxyEnvironment(const common::CommonConfig& config);

}  // namespace zagent::edr::host

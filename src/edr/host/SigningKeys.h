#pragma once

#include <memory>

#include "common/src/config/CommonConfig.h"
#include "common/src/http/HmacConfig.h"

namespace zagent::edr::host {

// The keys that sign this agent's requests, of the version that the configuration asks for; one that this process does
// not support is replaced with a warning. The activation id has done its service then: it is wiped from `config`.
// Throws std::invalid_argument "Invalid customer id, agent id or activation id".
std::shared_ptr<const common::HmacConfig> TakeSigningKeys(common::CommonConfig& config);

}  // namespace zagent::edr::host

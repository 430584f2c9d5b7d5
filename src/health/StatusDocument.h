#pragma once

#include <string>
#include <vector>

#include "src/health/AHSRecord.h"

namespace zagent::health {

// The payload of one upload: {"status": [{"dateTime", "contextId", "statusCode", "state", "additionalFields"}, ...]}.
// `additionalFields` is left out when a record has none, and when what it has is no JSON object, which is logged.
std::string BuildStatusDocument(const std::vector<AHSRecord>& records);

}  // namespace zagent::health

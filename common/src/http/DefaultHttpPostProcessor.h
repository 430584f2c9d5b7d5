#pragma once

#include <memory>

#include "common/src/http/HttpErrorParser.h"

namespace zagent::common {

class HttpService;

// Gives the service, which is stopped, an error parser with a handler for each of the nine actions. Revoking and
// reprovisioning an agent go to `recovery`; the other six are the parent agent's business and only leave a log line.
// Answers false, with a log line and the service as it was, when `recovery` is empty. Throws what SetPostProcessor
// throws.
bool ConfigureDefaultHttpPostProcessor(HttpService& service, const HttpPostProcessor::ActionHandler& recovery);

// The recovery of a daemon whose parent agent owns its identity: one Error line that names the action.
void LogRecoveryAction(const HttpErrorRecord& record);

}  // namespace zagent::common

#pragma once

#include <string>

#include "common/src/http/HttpTypes.h"

namespace zagent::common {

// What is known of a finished transfer, as libcurl tells it.
struct TransferOutcome {
  std::string url;
  long response_code = 0;
  long connect_code = 0;  // the proxy's answer to CONNECT
  int curl_code = 0;
  bool proxy_used = false;
  bool from_platform = false;  // the answer has the header "Z-SRV", which the platform sets on everything it answers
  bool proxy_certificate_failed = false;
  bool cancelled = false;
};

struct TransferVerdict {
  HttpStatus status = HttpStatus::Unknown;
  long http_code = 0;
};

// Judges first by the HTTP code, then by libcurl's result, which overrides it. An error that came through a proxy
// without "Z-SRV" is the proxy's own.
TransferVerdict Classify(const TransferOutcome& outcome);

}  // namespace zagent::common

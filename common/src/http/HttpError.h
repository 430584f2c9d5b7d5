#pragma once

#include <cstdint>
#include <string>

namespace zagent::common {

// What the platform wants done about a request that it refused: the member "action" of an error body, by its number.
enum class HttpErrorAction {
  None = 0,
  Revoke = 1,
  ReprovisionWithSameAgentId = 2,
  ReprovisionWithDifferentAgentId = 3,
  RotateSecret = 4,
  RenewPlatformKey = 5,
  RegisterPublicKey = 6,
  SynchronizeClock = 7,
  UploadMetadata = 8,
  RaiseAuthentication = 9,
};

// The word of an action, under which it is handled; "none" for None, empty for a number that is no action.
std::string ActionWord(std::int64_t action);

// The member "errorCode" of an error body: a number from 1 on, each with a name and words.
struct HttpErrorCode {
  const char* name;  // "NONE" for 0, empty for a number that is not known
  const char* text;  // "No recognized error code" for a number that is not known
};
HttpErrorCode LookUpErrorCode(std::int64_t error_code);

// What an error body says.
struct HttpErrorRecord {
  std::string url;
  long http_status = 0;
  std::int64_t action = 0;
  std::int64_t error_code = 0;
  std::string error_type;  // the name of the code
  std::string error_text;
  std::string raw_payload;
};

}  // namespace zagent::common

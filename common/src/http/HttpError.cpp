#include "common/src/http/HttpError.h"

#include <array>

namespace zagent::common {
namespace {

constexpr std::array<const char*, 10> kActionWords = {
    "none",
    "revoke",
    "reprovision_with_same_agent_id",
    "reprovision_with_different_agent_id",
    "rotate_secret",
    "renew_platform_key",
    "register_public_key",
    "synchronize_clock",
    "upload_metadata",
    "raise_authentication",
};

// The number of a code is its place in this table.
constexpr std::array<HttpErrorCode, 29> kErrorCodes = {{
    {"NONE", ""},
    {"ERROR_INVALID_HEADERS", "Invalid request headers"},
    {"ERROR_TAG_NOT_SUPPORTED", "Auth tag is invalid for the endpoint"},
    {"FAILURE_UNSUPPORTED_TAG", "Auth tag is not supported"},
    {"ERROR_INVALID_TIMESTAMP", "Timestamp is invalid"},
    {"FAILURE_TAG2_SIGNATURE_VERIFICATION", "Agent identity validation failed"},
    {"INVALID_AGENT_PUBLIC_KEY_ID", "Agent public key is invalid"},
    {"ERROR_SAS_SERVICE_DISABLED", "SAS service is disabled"},
    {"FAILURE_UNSUPPORTED_CUSTOMER", "Customer uuid is invalid or not supported"},
    {"FAILURE_UNSUPPORTED_SENSOR", "Sensor uuid is invalid or not supported"},
    {"FAILURE_UNSUPPORTED_SENSOR_TYPE", "Sensor type is invalid or not supported"},
    {"FAILURE_DECRYPT_PAYLOAD_USING_SYMMETRIC_KEY", "Decryption failure"},
    {"FAILURE_VALIDATION_METADATA_USING_SENSOR_TYPE", "Sensor meta-data not uploaded"},
    {"FAILURE_INVALID_SENSOR_PUBLIC_KEY_SENT", "Decryption failure: sensor public key error"},
    {"FAILURE_DECRYPT_SYMMETRIC_KEY_USING_OSTREL_PRIVATE_KEY", "Decryption failure: platform key error"},
    {"FAILURE_INVALID_PLATFORM_PUBLIC_KEY_ID", "Platform public key id incorrect"},
    {"FAILURE_SENSOR_ACTIVATION_PENDING", "Sensor public key id incorrect"},
    {"FAILURE_TIMESTAMP_WINDOW_EXCEEDED", "Timestamp outside allowed window (possible clock skew or delayed request)"},
    {"FAILURE_SENSOR_PUBLIC_KEY_NOT_REGISTERED", "Sensor public key is not registered"},
    {"FAILURE_SENSOR_SECRET_EXPIRED", "Sensor HMAC secret lease expired"},
    {"FAILURE_HASH_MISMATCH", "Hash mismatch"},
    {"HIGHER_AUTH_REQUIRED", "Higher authentication level required"},
    {"FAILURE_TAG1_SENSOR_ALREADY_ACTIVATED_WITH_DIFF_PUBLIC_KEY",
     "Sensor already activated with a different public key"},
    {"ERROR_SECRET_ROTATION_NOT_ALLOWED", "Secret rotation is not permitted at this time"},
    {"FAILURE_DECRYPTION_UNKNOWN_REASON", "Decryption failure: unknown reason"},
    {"REVOKE", "Revoke Agent"},
    {"REPROVISION_WITH_SAME_AGENT_ID", "Soft Reprovision Agent"},
    {"REPROVISION_WITH_DIFFERENT_AGENT_ID", "Hard Reprovision Agent"},
    {"INTERNAL_FAILURE", "Internal failure"},
}};

template <std::size_t Size>
bool IsWithin(std::int64_t number) {
  return number >= 0 && number < static_cast<std::int64_t>(Size);
}

}  // namespace

std::string ActionWord(std::int64_t action) {
  return IsWithin<kActionWords.size()>(action) ? kActionWords[static_cast<std::size_t>(action)] : "";
}

HttpErrorCode LookUpErrorCode(std::int64_t error_code) {
  if (IsWithin<kErrorCodes.size()>(error_code)) return kErrorCodes[static_cast<std::size_t>(error_code)];
  return {"", "No recognized error code"};
}

}  // namespace zagent::common

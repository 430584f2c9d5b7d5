#pragma once

#include <string>

namespace zagent::tools {

// What an upload looks like in the stream: a message on the subject "edr.<customer>.<agent>.<fim|ioc|status>" whose
// data is the payload, uncompressed, with these headers. Times are those of the receiver's clock,
// "2024-05-01T10:20:30Z".
inline constexpr const char* kSubjectRoot = "edr";
inline constexpr const char* kIdHeader = "Nats-Msg-Id";  // Z-REQID; the engine's own header for what it knows again
inline constexpr const char* kTypeHeader = "Content-Type";
inline constexpr const char* kCustomerHeader = "Edr-Customer";
inline constexpr const char* kAgentHeader = "Edr-Agent";
inline constexpr const char* kReceivedHeader = "Edr-Received";

// Whether an id can be a word of a subject.
bool IsSubjectWord(const std::string& text);

}  // namespace zagent::tools

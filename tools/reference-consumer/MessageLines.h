#pragma once

#include <string>
#include <vector>

#include "tools/event-stream/StreamReader.h"

namespace zagent::tools {

// The lines that the receiver would have printed for this upload. What cannot be read is
// "payload <n> bytes type=<content type>".
std::vector<std::string> DescribeMessage(const StreamReader::Message& message);

// The upload as one line of JSON:
//   {"customer":"..","agent":"..","kind":"fim","id":"..","received":"..","type":"..","document":{...}}
// with the document as it came; what is no JSON object, as a batch of indicators of compromise, is "payload" in base64
// in its place.
std::string JsonLineOf(const StreamReader::Message& message);

}  // namespace zagent::tools

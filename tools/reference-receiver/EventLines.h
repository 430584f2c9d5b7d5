#pragma once

#include <string>
#include <vector>

namespace zagent::tools {

// One line for each event of a FIM document:
//   event <eventAction> <imagePath, or "old -> new"> actor=<path> pid=<n> user=<name> audit-user=<name> id=<eventId>
// and for each row of a status document:
//   status <statusCode> <contextId> state=<n> <additionalFields as JSON>
// What there is not is "-". Empty for a text that is no such document.
std::vector<std::string> DescribeDocument(const std::string& document);

// The same, and for a text that is no such document one line: payload <n> bytes type=<content type>
std::vector<std::string> DescribePayload(const std::string& text, const std::string& content_type);

// Whether the text is a document of events at all: a JSON object with a member "events".
bool IsEventDocument(const std::string& document);

// Control bytes as \xNN, those of UTF-8 (U+0080 to U+009F) as well, and the backslash as \\, so that a name cannot fake
// a line.
std::string EscapeControls(const std::string& text);
// The same with blanks as \x20, so that it cannot fake a part of a line.
std::string EscapeBlanks(const std::string& text);

}  // namespace zagent::tools

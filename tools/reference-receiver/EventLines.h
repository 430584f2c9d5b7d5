#pragma once

#include <string>
#include <vector>

namespace zagent::tools {

// One line for each event of a FIM document:
//   event <eventAction> <imagePath, or "old -> new"> actor=<path> pid=<n> user=<name> audit-user=<name> id=<eventId>
// What an event does not have is "-". Empty for a text that is no such document.
std::vector<std::string> DescribeEvents(const std::string& document);

// Control bytes as \xNN and the backslash as \\, so that a name cannot fake a line.
std::string EscapeControls(const std::string& text);

}  // namespace zagent::tools

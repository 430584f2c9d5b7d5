#pragma once

#include <optional>
#include <string>

namespace zagent::reference_agent {

// One command of the control link as a person writes it: "config /etc/agent/edr.json", "fim_status", "exit".
struct Command {
  std::string word;
  std::string argument;  // the rest of the line, blanks around it cut

  // Nothing for an empty line or one with control bytes.
  static std::optional<Command> Parse(const std::string& line);
};

// The JSON text of a command for the daemon; nothing for a word that the daemon does not know or a "config" without a
// file.
std::optional<std::string> ToJson(const Command& command);

}  // namespace zagent::reference_agent

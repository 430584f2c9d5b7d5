#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "common/src/util/Json.h"

namespace zagent::edr::host {

// A configuration file or command that cannot be used; the text is for the operator.
class ConfigDocumentException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Who the parent agent is, for the rules that keep its own activity out of the stream.
struct AgentIdentity {
  std::int32_t pid;
  std::string path;
};

// The configuration file that the agent names: one JSON object with the sections "common_config", "fim_config",
// "ioc_config" and "edr_config". It holds a secret, the activation id, and wipes itself when it goes.
class ConfigDocument {
 public:
  ConfigDocument(ConfigDocument&&) = default;
  ConfigDocument(const ConfigDocument&) = delete;
  ConfigDocument& operator=(const ConfigDocument&) = delete;
  ~ConfigDocument();

  // Throws ConfigDocumentException "Failed to read config file: <path>" or "Invalid configuration file.".
  static ConfigDocument Read(const std::string& path);

  // True when the member exists and is an object.
  [[nodiscard]] bool HasSection(const char* name) const;
  // Of a section that HasSection has confirmed.
  [[nodiscard]] const rapidjson::Value& GetSection(const char* name) const;
  // "host_warden_pid" and "host_warden_path" of the top level; nothing when one is missing or of the wrong type.
  [[nodiscard]] std::optional<AgentIdentity> GetAgentIdentity() const;

 private:
  ConfigDocument() : text_(std::make_unique<std::string>()) {}

  std::unique_ptr<std::string> text_;  // json_ points into it
  rapidjson::Document json_;
};

// One command of the agent: {"command": "config", "config_file": "<path>"}.
struct Command {
  std::string word;
  std::optional<std::string> config_file;

  // Nothing when the text is no JSON object with a string "command".
  static std::optional<Command> Parse(const std::string& text);
};

}  // namespace zagent::edr::host

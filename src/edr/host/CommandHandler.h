#pragma once

#include <string>

#include "common/src/util/Json.h"
#include "src/edr/host/ConfigDocument.h"

namespace zagent::edr::host {

// What a command may change in the running daemon. Called on the main thread with the control lock held.
class CommandTarget {
 public:
  CommandTarget() = default;
  CommandTarget(const CommandTarget&) = delete;
  CommandTarget& operator=(const CommandTarget&) = delete;
  virtual ~CommandTarget() = default;

  virtual void ReloadLogLevels() = 0;
  virtual void UpdateFim(const rapidjson::Value& section) = 0;
  virtual void UpdateIoc(const rapidjson::Value& section) = 0;
  virtual void UpdateAgentIdentity(const AgentIdentity& identity) = 0;
  virtual void Exit() = 0;
};

// Carries out one command text. A command that cannot be used is one error line and changes nothing; a section that
// is refused (std::invalid_argument) skips the steps behind it, and those before it stay in force. Any other exception
// leaves this call and ends the daemon in order.
class CommandHandler {
 public:
  explicit CommandHandler(CommandTarget& target) : target_(target) {}

  void Handle(const std::string& message);

 private:
  void HandleConfig(const Command& command);
  void Apply(const ConfigDocument& document, const AgentIdentity& identity);

  CommandTarget& target_;
};

}  // namespace zagent::edr::host

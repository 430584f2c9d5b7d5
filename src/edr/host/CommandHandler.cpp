#include "src/edr/host/CommandHandler.h"

#include <algorithm>
#include <array>
#include <stdexcept>

#include "common/src/util/Log.h"

namespace zagent::edr::host {

void CommandHandler::Handle(const std::string& message) {
  const std::optional<Command> command = Command::Parse(message);
  if (!command) {
    ZLOG_ERROR("Invalid json received from the agent.");
  } else if (command->word == "fim_status") {
    ZLOG_INFO("Command 'fim_status' received from agent");
  } else if (command->word == "ioc_status") {
    ZLOG_INFO("Command 'ioc_status' received from agent");
  } else if (command->word == "config") {
    ZLOG_INFO("Command 'config' received from agent");
    HandleConfig(*command);
  } else if (command->word == "exit") {
    ZLOG_INFO("Command 'exit' received from agent.");
    target_.Exit();
  } else {
    ZLOG_ERROR("Invalid command found in json received from agent: " << command->word);
  }
}

void CommandHandler::HandleConfig(const Command& command) {
  if (!command.config_file) {
    ZLOG_ERROR("Incomplete 'config' command received from the agent");
    return;
  }
  try {
    const ConfigDocument document = ConfigDocument::Read(*command.config_file);
    static constexpr std::array<const char*, 3> kSections = {"common_config", "fim_config", "ioc_config"};
    const std::optional<AgentIdentity> identity = document.GetAgentIdentity();
    if (!identity || !std::all_of(kSections.begin(), kSections.end(),
                                  [&](const char* section) { return document.HasSection(section); })) {
      ZLOG_ERROR("Incomplete configuration file: " << *command.config_file);
      return;
    }
    Apply(document, *identity);
  } catch (const ConfigDocumentException& error) {
    ZLOG_ERROR(error.what());
  }
}

void CommandHandler::Apply(const ConfigDocument& document, const AgentIdentity& identity) {
  try {
    target_.ReloadLogLevels();
    target_.UpdateFim(document.GetSection("fim_config"));
    target_.UpdateIoc(document.GetSection("ioc_config"));
    target_.UpdateAgentIdentity(identity);
  } catch (const std::invalid_argument& error) {
    ZLOG_ERROR("Failed to update configuration: " << error.what());
  }
}

}  // namespace zagent::edr::host

#include "tools/reference-agent/Command.h"

#include <algorithm>
#include <array>

#include "common/src/util/Json.h"

namespace zagent::reference_agent {
namespace {

constexpr std::array kPlainWords = {"fim_status", "ioc_status", "exit"};

std::string Trimmed(const std::string& text) {
  const std::size_t begin = text.find_first_not_of(' ');
  if (begin == std::string::npos) return "";
  return text.substr(begin, text.find_last_not_of(' ') - begin + 1);
}

bool HasControlBytes(const std::string& text) {
  return std::any_of(text.begin(), text.end(), [](unsigned char byte) { return byte < 0x20 || byte == 0x7F; });
}

}  // namespace

std::optional<Command> Command::Parse(const std::string& line) {
  const std::string text = Trimmed(line);
  if (text.empty() || HasControlBytes(text)) return std::nullopt;
  const std::size_t blank = text.find(' ');
  if (blank == std::string::npos) return Command{text, ""};
  return Command{text.substr(0, blank), Trimmed(text.substr(blank))};
}

std::optional<std::string> ToJson(const Command& command) {
  const bool is_config = command.word == "config";
  const bool is_plain = std::find(kPlainWords.begin(), kPlainWords.end(), command.word) != kPlainWords.end();
  if (is_config ? command.argument.empty() : !is_plain) return std::nullopt;

  rapidjson::Document document(rapidjson::kObjectType);
  rapidjson::Document::AllocatorType& allocator = document.GetAllocator();
  document.AddMember("command", rapidjson::Value(command.word, allocator), allocator);
  if (is_config) document.AddMember("config_file", rapidjson::Value(command.argument, allocator), allocator);
  return common::util::WriteJson(document);
}

}  // namespace zagent::reference_agent

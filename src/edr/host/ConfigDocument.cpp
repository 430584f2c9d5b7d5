#include "src/edr/host/ConfigDocument.h"

#include "common/src/storage/FileStorage.h"
#include "common/src/util/Cleanse.h"

namespace zagent::edr::host {

using common::util::FindMember;

ConfigDocument ConfigDocument::Read(const std::string& path) {
  const auto file = common::FileStorage(path).Read();
  // What is no regular file reads as nothing and carries no attributes of one.
  if (file->code != common::StorageCode::Success || !file->stat_info || !S_ISREG(file->stat_info->st_mode)) {
    throw ConfigDocumentException("Failed to read config file: " + path);
  }
  ConfigDocument document;
  // Not by iterators: those make a copy of their own on the way.
  document.text_->assign(reinterpret_cast<const char*>(file->data.data()), file->data.size());
  common::util::Cleanse(file->data);
  if (!common::util::ParseJsonInPlace(document.json_, *document.text_) || !document.json_.IsObject()) {
    throw ConfigDocumentException("Invalid configuration file.");
  }
  return document;
}

ConfigDocument::~ConfigDocument() {
  if (text_) common::util::Cleanse(*text_);  // not when it was moved from
}

bool ConfigDocument::HasSection(const char* name) const {
  const rapidjson::Value* section = FindMember(json_, name);
  return section != nullptr && section->IsObject();
}

const rapidjson::Value& ConfigDocument::GetSection(const char* name) const {
  return json_[name];
}

std::optional<AgentIdentity> ConfigDocument::GetAgentIdentity() const {
  const rapidjson::Value* pid = FindMember(json_, "host_warden_pid");
  const rapidjson::Value* path = FindMember(json_, "host_warden_path");
  if (pid == nullptr || !pid->IsInt() || path == nullptr || !path->IsString()) return std::nullopt;
  return AgentIdentity{pid->GetInt(), common::util::ToString(*path)};
}

std::optional<Command> Command::Parse(const std::string& text) {
  rapidjson::Document json;
  common::util::ParseJson(json, text);
  if (json.HasParseError()) return std::nullopt;
  const rapidjson::Value* word = FindMember(json, "command");
  if (word == nullptr || !word->IsString()) return std::nullopt;
  Command command{common::util::ToString(*word), std::nullopt};
  const rapidjson::Value* file = FindMember(json, "config_file");
  if (file != nullptr && file->IsString()) command.config_file = common::util::ToString(*file);
  return command;
}

}  // namespace zagent::edr::host

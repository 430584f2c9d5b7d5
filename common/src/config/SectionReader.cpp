#include "common/src/config/SectionReader.h"

namespace zagent::common {

using util::FindMember;

std::uint32_t SectionReader::Uint(const char* key) {
  const rapidjson::Value* member = FindMember(json_, key);
  if (member != nullptr && member->IsUint()) return member->GetUint();
  valid_ = false;
  return 0;
}

bool SectionReader::Bool(const char* key) {
  const rapidjson::Value* member = FindMember(json_, key);
  if (member != nullptr && member->IsBool()) return member->GetBool();
  valid_ = false;
  return false;
}

std::string SectionReader::Text(const char* key) {
  const rapidjson::Value* member = FindMember(json_, key);
  if (member != nullptr && member->IsString()) return util::ToString(*member);
  valid_ = false;
  return "";
}

std::string SectionReader::FileName(const char* key) {
  std::string name = Text(key);
  valid_ = valid_ && name.find('/') == std::string::npos && name.find('\0') == std::string::npos;
  return name;
}

std::vector<ManifestEntry> SectionReader::Manifests(const char* key) {
  const rapidjson::Value* member = FindMember(json_, key);
  std::vector<ManifestEntry> entries;
  if (member == nullptr || !member->IsArray()) {
    valid_ = false;
    return entries;
  }
  for (const rapidjson::Value& element : member->GetArray()) {
    SectionReader entry(element);
    entries.push_back({entry.Text("manifest_path"), entry.Text("manifest_type")});
    valid_ = valid_ && entry.IsValid();
  }
  return entries;
}

}  // namespace zagent::common

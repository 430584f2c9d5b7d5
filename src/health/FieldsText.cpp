#include "src/health/FieldsText.h"

#include <Poco/TextConverter.h>
#include <Poco/UTF8Encoding.h>

#include "common/src/util/Json.h"

namespace zagent::health {
namespace {

void AddFields(rapidjson::Document& json, const Fields& fields) {
  auto& memory = json.GetAllocator();
  for (const auto& [name, value] : fields) {
    rapidjson::Value member;
    if (const auto* number = std::get_if<std::int64_t>(&value)) {
      member.SetInt64(*number);
    } else {
      member.SetString(ReplaceInvalidText(std::get<std::string>(value)), memory);
    }
    json.AddMember(rapidjson::Value(name, memory), member, memory);
  }
}

}  // namespace

std::string ReplaceInvalidText(const std::string& text) {
  const Poco::UTF8Encoding utf8;
  Poco::TextConverter converter(utf8, utf8, '?');
  std::string valid;
  converter.convert(text, valid);
  return valid;
}

std::string WriteFields(const Fields& fields, const Fields& details) {
  if (fields.empty() && details.empty()) return {};
  rapidjson::Document json(rapidjson::kObjectType);
  AddFields(json, fields);
  AddFields(json, details);
  return common::util::WriteJson(json);
}

}  // namespace zagent::health

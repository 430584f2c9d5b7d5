#include "tools/reference-receiver/EventLines.h"

#include <array>

#include "common/src/util/Digest.h"
#include "common/src/util/Json.h"

namespace zagent::tools {
namespace {

using common::util::FindMember;

std::string TextOf(const rapidjson::Value* value) {
  if (value == nullptr) return "-";
  if (value->IsString()) return EscapeControls(common::util::ToString(*value));
  return value->IsNumber() ? common::util::WriteJson(*value) : "-";
}

std::string PathOf(const rapidjson::Value& event) {
  const rapidjson::Value* operation = FindMember(event, "operation");
  if (operation == nullptr) return TextOf(FindMember(event, "imagePath"));
  return TextOf(FindMember(*operation, "old")) + " -> " + TextOf(FindMember(*operation, "new"));
}

std::string DescribeEvent(const rapidjson::Value& event) {
  static const rapidjson::Value kNone;
  const rapidjson::Value* found = FindMember(event, "actor");
  const rapidjson::Value& actor = found == nullptr ? kNone : *found;
  return "event " + TextOf(FindMember(event, "eventAction")) + " " + PathOf(event) +
         " actor=" + TextOf(FindMember(actor, "imagePath")) + " pid=" + TextOf(FindMember(actor, "processID")) +
         " user=" + TextOf(FindMember(actor, "userName")) +
         " audit-user=" + TextOf(FindMember(actor, "auditUserName")) + " id=" + TextOf(FindMember(event, "eventId"));
}

std::string DescribeStatus(const rapidjson::Value& row) {
  const rapidjson::Value* fields = FindMember(row, "additionalFields");
  return "status " + TextOf(FindMember(row, "statusCode")) + " " + TextOf(FindMember(row, "contextId")) +
         " state=" + TextOf(FindMember(row, "state")) + " " +
         (fields == nullptr ? "-" : EscapeControls(common::util::WriteJson(*fields)));
}

struct Kind {
  const char* member;  // an array
  std::string (*describe)(const rapidjson::Value& item);
};

constexpr std::array<Kind, 2> kKinds = {{{"events", DescribeEvent}, {"status", DescribeStatus}}};

}  // namespace

std::string EscapeControls(const std::string& text) {
  std::string escaped;
  unsigned char last = 0;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    const bool is_control_of_utf8 = last == 0xC2 && byte >= 0x80 && byte <= 0x9F;
    last = byte;
    if (is_control_of_utf8) escaped.replace(escaped.size() - 1, 1, "\\xc2");
    if (c == '\\') {
      escaped += "\\\\";
    } else if (byte < 0x20 || byte == 0x7f || is_control_of_utf8) {
      escaped += "\\x" + common::util::ToHex({&c, 1});
    } else {
      escaped += c;
    }
  }
  return escaped;
}

std::string EscapeBlanks(const std::string& text) {
  std::string escaped;
  for (const char c : EscapeControls(text)) {
    if (c == ' ') {
      escaped += "\\x20";
    } else {
      escaped += c;
    }
  }
  return escaped;
}

bool IsEventDocument(const std::string& document) {
  rapidjson::Document json;
  common::util::ParseJson(json, document);
  return !json.HasParseError() && FindMember(json, "events") != nullptr;
}

std::vector<std::string> DescribeDocument(const std::string& document) {
  rapidjson::Document json;
  common::util::ParseJson(json, document);
  if (json.HasParseError()) return {};
  std::vector<std::string> lines;
  for (const Kind& kind : kKinds) {
    const rapidjson::Value* items = FindMember(json, kind.member);
    if (items == nullptr || !items->IsArray()) continue;
    for (const rapidjson::Value& item : items->GetArray()) lines.push_back(kind.describe(item));
  }
  return lines;
}

std::vector<std::string> DescribePayload(const std::string& text, const std::string& content_type) {
  std::vector<std::string> lines = DescribeDocument(text);
  if (lines.empty()) {
    lines.push_back("payload " + std::to_string(text.size()) + " bytes type=" + EscapeControls(content_type));
  }
  return lines;
}

}  // namespace zagent::tools

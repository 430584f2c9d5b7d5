#include "src/health/StatusDocument.h"

#include "common/src/util/Json.h"
#include "common/src/util/Log.h"
#include "src/health/LogPrefix.h"

namespace zagent::health {
namespace {

using Memory = rapidjson::Document::AllocatorType;

// Parsed where it will stay: a copy would go down once for each level of a text that comes from a file.
void AddAdditionalFields(rapidjson::Value& row, const std::string& text, Memory& memory) {
  if (text.empty()) return;
  rapidjson::Document fields(&memory);
  common::util::ParseJson(fields, text);
  if (fields.HasParseError() || !fields.IsObject()) {
    ZLOG_ERROR("Error in parsing Extra fields column from AgentStatus table");
    return;
  }
  row.AddMember("additionalFields", static_cast<rapidjson::Value&>(fields), memory);
}

rapidjson::Value MakeRow(const AHSRecord& record, Memory& memory) {
  rapidjson::Value row(rapidjson::kObjectType);
  row.AddMember("dateTime", rapidjson::Value(record.time, memory), memory);
  row.AddMember("contextId", rapidjson::Value(record.context_id, memory), memory);
  row.AddMember("statusCode", rapidjson::Value(record.status_code), memory);
  row.AddMember("state", rapidjson::Value(record.state), memory);
  AddAdditionalFields(row, record.additional_fields, memory);
  return row;
}

}  // namespace

std::string BuildStatusDocument(const std::vector<AHSRecord>& records) {
  rapidjson::Document document(rapidjson::kObjectType);
  Memory& memory = document.GetAllocator();
  rapidjson::Value rows(rapidjson::kArrayType);
  for (const AHSRecord& record : records) rows.PushBack(MakeRow(record, memory), memory);
  document.AddMember("status", rows, memory);
  return common::util::WriteJson(document);
}

}  // namespace zagent::health

#include "tools/reference-consumer/MessageLines.h"

#include <algorithm>

#include "common/src/util/Base64.h"
#include "common/src/util/Json.h"
#include "common/src/util/Utf8.h"
#include "tools/event-stream/StreamMessage.h"
#include "tools/reference-receiver/EventLines.h"
#include "tools/reference-receiver/IocBatch.h"

namespace zagent::tools {
namespace {

std::string KindOf(const StreamReader::Message& message) {
  return message.subject.substr(message.subject.rfind('.') + 1);
}

bool IsUtf8(const std::string& text) {
  for (std::size_t i = 0; i < text.size();) {
    if (!common::util::NextCodePoint(text, i)) return false;
  }
  return true;
}

bool IsJsonObject(const std::string& text) {
  rapidjson::Document document;
  common::util::ParseJson(document, text);
  return !document.HasParseError() && document.IsObject() && IsUtf8(text);
}

std::string Quoted(const std::string& text) {
  rapidjson::Document document;
  document.SetString(common::util::ReplaceInvalidUtf8(text), document.GetAllocator());
  return common::util::WriteJson(document);
}

}  // namespace

std::vector<std::string> DescribeMessage(const StreamReader::Message& message) {
  if (KindOf(message) == "ioc") {
    if (const auto batch = IocBatch::Decode(message.text)) return batch->lines;
  }
  const std::string type = message.Header(kTypeHeader);
  return DescribePayload(message.text, type.empty() ? "-" : type);
}

std::string JsonLineOf(const StreamReader::Message& message) {
  std::string line = "{\"customer\":" + Quoted(message.Header(kCustomerHeader)) +
                     ",\"agent\":" + Quoted(message.Header(kAgentHeader)) + ",\"kind\":" + Quoted(KindOf(message)) +
                     ",\"id\":" + Quoted(message.Header(kIdHeader)) +
                     ",\"received\":" + Quoted(message.Header(kReceivedHeader)) +
                     ",\"type\":" + Quoted(message.Header(kTypeHeader));
  if (!IsJsonObject(message.text)) {
    return line + ",\"payload\":\"" + common::util::Base64Encode(message.text) + "\"}";
  }
  // Within texts of JSON there are no line ends: these stand between its parts.
  std::string document = message.text;
  std::replace_if(
      document.begin(), document.end(), [](char c) { return c == '\n' || c == '\r'; }, ' ');
  return line + ",\"document\":" + document + "}";
}

}  // namespace zagent::tools

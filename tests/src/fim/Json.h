#pragma once

#include <gtest/gtest.h>

#include <string>

#include "common/src/util/Json.h"

namespace zagent::fim {

// A parsed text for tests; a text that is no JSON fails the test.
class Json {
 public:
  explicit Json(const std::string& text) {
    common::util::ParseJson(document_, text);
    EXPECT_FALSE(document_.HasParseError()) << text;
  }

  [[nodiscard]] const rapidjson::Value& Value() const { return document_; }

  // The text at a path of member names and array positions; numbers in decimal. "(none)" when there is nothing.
  template <typename... Steps>
  [[nodiscard]] std::string At(Steps... steps) const {
    const rapidjson::Value* value = &document_;
    ((value = value == nullptr ? nullptr : Step(*value, steps)), ...);
    return value == nullptr ? "(none)" : Text(*value);
  }

  // The keys of the top level, in order, with commas between them.
  [[nodiscard]] std::string Keys() const { return Keys(document_); }
  [[nodiscard]] std::string Keys(const char* member) const { return Keys(document_[member]); }

 private:
  static const rapidjson::Value* Step(const rapidjson::Value& value, const char* key) {
    return common::util::FindMember(value, key);
  }
  static const rapidjson::Value* Step(const rapidjson::Value& value, int index) {
    if (!value.IsArray() || static_cast<int>(value.Size()) <= index) return nullptr;
    return &value[static_cast<rapidjson::SizeType>(index)];
  }
  static std::string Text(const rapidjson::Value& value) {
    return value.IsString() ? common::util::ToString(value) : common::util::WriteJson(value);
  }
  static std::string Keys(const rapidjson::Value& object) {
    std::string keys;
    for (const auto& member : object.GetObject())
      keys += (keys.empty() ? "" : ",") + common::util::ToString(member.name);
    return keys;
  }

  rapidjson::Document document_;
};

}  // namespace zagent::fim

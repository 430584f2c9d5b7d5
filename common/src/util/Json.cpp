#include "common/src/util/Json.h"

#include <algorithm>
#include <vector>

namespace zagent::common::util {
namespace {

using Writer = rapidjson::Writer<rapidjson::StringBuffer>;

// An array or object that is being written, and how many of its values have been.
struct Level {
  const rapidjson::Value* container;
  rapidjson::SizeType written;
};

// Writes a whole scalar, or the beginning of a container that then stands on `open`.
void Begin(const rapidjson::Value& value, Writer& writer, std::vector<Level>& open) {
  if (value.IsObject()) {
    writer.StartObject();
    open.push_back({&value, 0});
  } else if (value.IsArray()) {
    writer.StartArray();
    open.push_back({&value, 0});
  } else {
    value.Accept(writer);
  }
}

// The next value of the level, behind its key; nullptr once the container is complete.
const rapidjson::Value* Next(Level& level, Writer& writer) {
  const rapidjson::Value& container = *level.container;
  if (container.IsArray()) {
    if (level.written < container.Size()) return &container[level.written++];
    writer.EndArray();
    return nullptr;
  }
  if (level.written < container.MemberCount()) {
    const auto member = container.MemberBegin() + level.written++;
    writer.Key(member->name.GetString(), member->name.GetStringLength());
    return &member->value;
  }
  writer.EndObject();
  return nullptr;
}

}  // namespace

bool IsNestedDeeperThan(const rapidjson::Value& value, int limit) {
  if (!value.IsObject() && !value.IsArray()) return false;
  if (limit == 0) return true;
  if (value.IsArray()) {
    const auto elements = value.GetArray();
    return std::any_of(elements.begin(), elements.end(),
                       [&](const rapidjson::Value& element) { return IsNestedDeeperThan(element, limit - 1); });
  }
  const auto members = value.GetObject();
  return std::any_of(members.begin(), members.end(), [&](const rapidjson::Value::Member& member) {
    return IsNestedDeeperThan(member.value, limit - 1);
  });
}

std::string WriteJson(const rapidjson::Value& value) {
  rapidjson::StringBuffer buffer;
  Writer writer(buffer);
  std::vector<Level> open;
  Begin(value, writer, open);
  while (!open.empty()) {
    if (const rapidjson::Value* next = Next(open.back(), writer)) {
      Begin(*next, writer, open);
    } else {
      open.pop_back();
    }
  }
  return {buffer.GetString(), buffer.GetSize()};
}

}  // namespace zagent::common::util

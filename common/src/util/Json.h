#pragma once

// The only door to RapidJSON. Its assertions throw instead of ending the daemon, and every parse is iterative, so
// that a document of a million "[" costs memory in proportion to its size and never the stack. Accept, CopyFrom and the
// comparison of values go down once for each level: use them on documents of the program's own making only.
//
// In C++20 `value == 1` on a RapidJSON value recurses for ever: use the typed getters.

#include <stdexcept>
#include <string>
#include <string_view>

namespace zagent::common::util {

class JsonAssertion : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace zagent::common::util

#ifdef RAPIDJSON_RAPIDJSON_H_
#error "Include common/src/util/Json.h instead of a RapidJSON header"
#endif
#define RAPIDJSON_HAS_STDSTRING 1
#define RAPIDJSON_ASSERT(x)                                    \
  do {                                                         \
    if (!(x)) throw ::zagent::common::util::JsonAssertion(#x); \
  } while (false)

#include <rapidjson/document.h>
#include <rapidjson/error/en.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

namespace zagent::common::util {

inline constexpr unsigned kJsonParseFlags = rapidjson::kParseIterativeFlag;

// Parses exactly one document; blanks after it are allowed, a second document or a NUL byte is an error.
// Look at document.HasParseError() afterwards.
inline void ParseJson(rapidjson::Document& document, std::string_view text) {
  document.Parse<kJsonParseFlags>(text.data(), text.size());
}

// Parses in place: the document's texts stay where they are in `text`, which is changed, must outlive the document, and
// is all that holds them. So whoever wipes `text` has wiped a secret that stood in it. False when it is no document.
inline bool ParseJsonInPlace(rapidjson::Document& document, std::string& text) {
  if (text.find('\0') != std::string::npos) return false;
  document.ParseInsitu<kJsonParseFlags | rapidjson::kParseInsituFlag>(text.data());
  return !document.HasParseError();
}

// The member, or nullptr when `object` is no object or has none of this name.
inline const rapidjson::Value* FindMember(const rapidjson::Value& object, const char* name) {
  if (!object.IsObject()) return nullptr;
  const auto member = object.FindMember(name);
  return member == object.MemberEnd() ? nullptr : &member->value;
}

inline std::string ToString(const rapidjson::Value& value) {
  return {value.GetString(), value.GetStringLength()};
}

// Whether objects and arrays stand in each other more than `limit` deep; goes down no further. What is done with a
// value from outside level by level, a copy for example, asks this first.
bool IsNestedDeeperThan(const rapidjson::Value& value, int limit);

// Without a blank or a line end. Iterative like the parse.
std::string WriteJson(const rapidjson::Value& value);

}  // namespace zagent::common::util

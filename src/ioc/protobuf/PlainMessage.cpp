#include "src/ioc/protobuf/PlainMessage.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <optional>

#include "common/src/util/Utf8.h"
#include "src/ioc/protobuf/IocEvents.pb.h"

namespace zagent::ioc::internal::protobuf {
namespace {

namespace wire = com::ostrel::ioc::model::proto::event;

// Bytes that a number may take: a reader refuses the longer forms of tags and lengths, and values of ten bytes are
// negative or out of range.
constexpr std::size_t kTagBytes = 2;
constexpr std::size_t kLengthBytes = 4;
constexpr std::size_t kValueBytes = 9;

constexpr unsigned kVarint = 0;
constexpr unsigned kLengthDelimited = 2;

// A bit for each field.
constexpr std::uint64_t Fields(std::initializer_list<int> numbers) {
  std::uint64_t fields = 0;
  for (const int number : numbers) fields |= std::uint64_t{1} << static_cast<unsigned>(number);
  return fields;
}

struct Shape {
  std::uint64_t texts;
  std::uint64_t actors;
};

constexpr Shape kActor = {Fields({wire::Actor::kUniqueImageIdFieldNumber, wire::Actor::kSecuritySettingsFieldNumber,
                                  wire::Actor::kUserIdFieldNumber, wire::Actor::kUserNameFieldNumber,
                                  wire::Actor::kImagePathFieldNumber, wire::Actor::kUniqueProcessIdFieldNumber}),
                          0};

// Nothing for a kind that this program does not make.
std::optional<Shape> ShapeOf(Kind kind) {
  switch (kind) {
    case Kind::Directory: {
      using Message = wire::DirectoryEvent;
      return Shape{
          Fields({Message::kUniqueIdFieldNumber, Message::kPathFieldNumber, Message::kSecuritySettingsFieldNumber}),
          Fields({Message::kActorFieldNumber})};
    }
    case Kind::File: {
      using Message = wire::FileEvent;
      return Shape{
          Fields({Message::kUniqueIdFieldNumber, Message::kParentDirectoryIdFieldNumber, Message::kFileNameFieldNumber,
                  Message::kSha1FieldNumber, Message::kSha256FieldNumber, Message::kMd5FieldNumber,
                  Message::kSecuritySettingsFieldNumber, Message::kTypeFieldNumber, Message::kExtensionFieldNumber,
                  Message::kFullPathFieldNumber, Message::kOldPathFieldNumber}),
          Fields({Message::kActorFieldNumber})};
    }
    case Kind::Network: {
      using Message = wire::NetworkEvent;
      return Shape{Fields({Message::kUniqueIdFieldNumber, Message::kLocalAddressFieldNumber,
                           Message::kRemoteAddressFieldNumber, Message::kUniqueProcessIdFieldNumber}),
                   Fields({Message::kActorFieldNumber})};
    }
    case Kind::Process: {
      using Message = wire::ProcessEvent;
      return Shape{
          Fields({Message::kUniqueIdFieldNumber, Message::kProcessNameFieldNumber, Message::kArgumentsFieldNumber,
                  Message::kUniqueImageIdFieldNumber, Message::kUserIdFieldNumber, Message::kUserNameFieldNumber,
                  Message::kSecuritySettingsFieldNumber, Message::kCurrentDirectoryFieldNumber,
                  Message::kStatusFieldNumber, Message::kImagePathFieldNumber}),
          Fields({Message::kActorFieldNumber})};
    }
    case Kind::LoadedModule:
      break;
  }
  return std::nullopt;
}

// The number in front of `bytes`, which is cut off them. False when it is cut short or takes more than so many bytes.
inline bool TakeNumber(std::string_view& bytes, std::size_t most_bytes, std::uint64_t& number) {
  const auto* const begin = reinterpret_cast<const unsigned char*>(bytes.data());
  // Nearly all tags and lengths are one byte.
  if (!bytes.empty() && *begin < 0x80U) {
    number = *begin;
    bytes.remove_prefix(1);
    return true;
  }
  const unsigned char* const end = begin + std::min(bytes.size(), most_bytes);
  number = 0;
  unsigned shift = 0;
  for (const unsigned char* at = begin; at != end; ++at, shift += 7) {
    number |= std::uint64_t{*at & 0x7FU} << shift;
    if (*at >= 0x80U) continue;
    bytes.remove_prefix(static_cast<std::size_t>(at + 1 - begin));
    return true;
  }
  return false;
}

bool IsPlain(std::string_view bytes, const Shape& shape) {
  std::uint64_t tag = 0;
  std::uint64_t length = 0;
  while (!bytes.empty()) {
    if (!TakeNumber(bytes, kTagBytes, tag)) return false;
    const std::uint64_t number = tag >> 3U;
    if (number == 0 || number >= 64) return false;
    if ((tag & 7U) == kVarint) {
      std::uint64_t value = 0;
      if (!TakeNumber(bytes, kValueBytes, value)) return false;
      continue;
    }
    if ((tag & 7U) != kLengthDelimited || !TakeNumber(bytes, kLengthBytes, length) || length > bytes.size()) {
      return false;
    }
    const std::string_view value = bytes.substr(0, length);
    bytes.remove_prefix(length);
    const std::uint64_t field = std::uint64_t{1} << number;
    const bool is_plain = (shape.texts & field) != 0 ? common::util::SkipAscii(value, 0) == value.size()
                                                     : (shape.actors & field) != 0 && IsPlain(value, kActor);
    if (!is_plain) return false;
  }
  return true;
}

}  // namespace

bool IsPlainMessage(Kind kind, std::string_view bytes) {
  const std::optional<Shape> shape = ShapeOf(kind);
  return shape && IsPlain(bytes, *shape);
}

}  // namespace zagent::ioc::internal::protobuf

#pragma once

#include <cstdint>
#include <initializer_list>
#include <string_view>

#include "common/src/storage/StorageResult.h"

namespace google::protobuf {
class MessageLite;
}

namespace zagent::ioc::internal::protobuf {

// What an item of the spool is: the repeated field of IoCEvent that it becomes an element of.
enum class Kind : std::uint8_t { Directory = 0, File = 1, LoadedModule = 2, Network = 3, Process = 4 };

// An item as the spool takes it: one byte for the kind, then the message as it is serialised, behind those of its
// `fields` that are serialised already. Throws Exception for a message of more than 2 GiB.
common::Bytes MakeItem(Kind kind, const google::protobuf::MessageLite& message,
                       std::initializer_list<std::string_view> fields = {});

}  // namespace zagent::ioc::internal::protobuf

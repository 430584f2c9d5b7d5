#include "src/ioc/protobuf/BatchItem.h"

#include <google/protobuf/message_lite.h>

#include <cstring>
#include <limits>

#include "src/ioc/protobuf/Exception.h"

namespace zagent::ioc::internal::protobuf {

common::Bytes MakeItem(Kind kind, const google::protobuf::MessageLite& message, std::string_view fields) {
  const std::size_t size = fields.size() + message.ByteSizeLong();
  if (size > std::numeric_limits<int>::max()) throw Exception("Event is too large for protobuf");
  common::Bytes item(1 + size);
  item[0] = static_cast<unsigned char>(kind);
  if (!fields.empty()) std::memcpy(item.data() + 1, fields.data(), fields.size());
  message.SerializeWithCachedSizesToArray(item.data() + 1 + fields.size());
  return item;
}

}  // namespace zagent::ioc::internal::protobuf

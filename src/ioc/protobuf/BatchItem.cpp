#include "src/ioc/protobuf/BatchItem.h"

#include <google/protobuf/message_lite.h>

#include <cstring>
#include <limits>

#include "src/ioc/protobuf/Exception.h"

namespace zagent::ioc::internal::protobuf {

common::Bytes MakeItem(Kind kind, const google::protobuf::MessageLite& message,
                       std::initializer_list<std::string_view> fields) {
  std::size_t size = message.ByteSizeLong();
  for (const std::string_view field : fields) size += field.size();
  if (size > std::numeric_limits<int>::max()) throw Exception("Event is too large for protobuf");
  common::Bytes item(1 + size);
  item[0] = static_cast<unsigned char>(kind);
  unsigned char* end = item.data() + 1;
  for (const std::string_view field : fields) {
    if (!field.empty()) std::memcpy(end, field.data(), field.size());
    end += field.size();
  }
  message.SerializeWithCachedSizesToArray(end);
  return item;
}

}  // namespace zagent::ioc::internal::protobuf

#include "src/ioc/protobuf/UniqueId.h"

#include "common/src/util/Digest.h"

namespace zagent::ioc::internal::protobuf {

std::string UniqueId(std::initializer_list<std::string_view> parts) {
  std::string joined;
  for (const std::string_view part : parts) (joined += part) += '\0';
  if (!joined.empty()) joined.pop_back();
  return common::util::Sha256Hex(joined);
}

std::string UniquePathId(std::string_view path) {
  return UniqueId({path});
}

std::string UniqueProcessId(std::int32_t pid, std::int64_t creation_time, std::string_view image_path) {
  return UniqueId({std::to_string(pid), std::to_string(creation_time), image_path});
}

}  // namespace zagent::ioc::internal::protobuf

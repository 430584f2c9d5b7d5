#include "src/ioc/protobuf/UniqueId.h"

#include "common/src/util/Digest.h"
#include "src/edr/LRUCache.h"

namespace zagent::ioc::internal::protobuf {
namespace {

constexpr std::size_t kMaxKnown = 1'024;
// Longer texts are not remembered.
constexpr std::size_t kMaxKnownText = 512;

// What a burst tells of is told of again and again: a few files, their folders, and who works on them.
edr::LRUCache<std::string, std::string>& KnownDigests() {
  thread_local edr::LRUCache<std::string, std::string> known(kMaxKnown);
  return known;
}

std::string DigestOf(std::string_view text) {
  if (text.size() > kMaxKnownText) return common::util::Sha256Hex(text);
  auto& known = KnownDigests();
  if (const std::string* const digest = known.Find(text)) return *digest;
  std::string digest = common::util::Sha256Hex(text);
  known.Put(std::string(text), digest);
  return digest;
}

}  // namespace

std::string UniqueId(std::initializer_list<std::string_view> parts) {
  std::string joined;
  for (const std::string_view part : parts) (joined += part) += '\0';
  if (!joined.empty()) joined.pop_back();
  return DigestOf(joined);
}

std::string UniquePathId(std::string_view path) {
  return DigestOf(path);
}

std::string UniqueProcessId(std::int32_t pid, std::int64_t creation_time, std::string_view image_path) {
  return UniqueId({std::to_string(pid), std::to_string(creation_time), image_path});
}

void ForgetUniqueIds() {
  KnownDigests().Clear();
}

}  // namespace zagent::ioc::internal::protobuf

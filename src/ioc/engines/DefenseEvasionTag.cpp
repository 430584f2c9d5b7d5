#include "src/ioc/engines/DefenseEvasionTag.h"

#include <Poco/File.h>

#include "common/src/util/Log.h"
#include "src/ioc/config/LogPrefix.h"

namespace zagent::ioc::internal {
namespace {

using edr::EventType;

constexpr std::uint32_t kSpecialBits = 07000;
constexpr std::uint32_t kExecuteBits = 0111;
constexpr std::uint32_t kLargestPermission = 7777;

// The bits of a mode whose octal digits were read as a decimal number.
std::uint32_t BitsOf(std::uint32_t permission) {
  std::uint32_t bits = 0;
  for (std::uint32_t shift = 0; permission != 0; permission /= 10, shift += 3) bits |= (permission % 10) << shift;
  return bits;
}

// In the sense of Poco::File, which copies the path piece by piece: that is left to paths that events hardly ever have.
bool IsHiddenPath(const std::string& path) {
  if (path.empty()) return false;
  return path.back() == '/' ? Poco::File(path).isHidden() : path[path.rfind('/') + 1] == '.';
}

// Nothing is known of the mode of an object that no record describes.
bool HasMode(const common::ImageInfo* file) {
  return file != nullptr && file->GetPermission() <= kLargestPermission;
}

// Somebody else's rights come with it, or it can be run now.
bool IsRaised(const common::ImageInfo* old_file, const common::ImageInfo* new_file) {
  if (!HasMode(old_file) || !HasMode(new_file)) return false;
  const std::uint32_t old_bits = BitsOf(old_file->GetPermission());
  const std::uint32_t new_bits = BitsOf(new_file->GetPermission());
  return ((old_bits ^ new_bits) & kSpecialBits) != 0 || (new_bits & ~old_bits & kExecuteBits) != 0;
}

}  // namespace

DefenseEvasionTag::DefenseEvasionTag(const TtlProcessTree& tree, const rapidjson::Value& settings)
    : Tag(kName, tree, settings) {
  DefenseEvasionTag::Configure(settings);
}

void DefenseEvasionTag::Configure(const rapidjson::Value& settings) {
  CheckIsObject(settings);
  Permissions permissions = ParsePermissions(settings);
  const std::lock_guard lock(GetMutex());
  permissions_ = std::move(permissions);
}

DefenseEvasionTag::Permissions DefenseEvasionTag::DefaultPermissions() {
  return {0, 777, 666, 664, 644, 600, 700, 750, 711, 744, 775, 755, 1777, 4777, 6777, 2770, 6700, 2777, 7777, 4755};
}

DefenseEvasionTag::Permissions DefenseEvasionTag::ParsePermissions(const rapidjson::Value& settings) const {
  const rapidjson::Value* array = common::util::FindMember(settings, "permissions");
  if (array == nullptr) {
    ZLOG_WARNING("Missing permissions from " << GetName() << " tag. Using default permissions ...");
    return DefaultPermissions();
  }
  if (!array->IsArray()) {
    ZLOG_WARNING("Expected an array of suspicious permissions for " << GetName()
                                                                    << " tag. Using default permissions ...");
    return DefaultPermissions();
  }
  Permissions permissions;
  for (rapidjson::SizeType i = 0; i < array->Size(); ++i) {
    const rapidjson::Value& permission = (*array)[i];
    if (permission.IsUint()) {
      permissions.insert(permission.GetUint());
    } else {
      ZLOG_WARNING("Invalid permission found at index " << i << " in definition of " << GetName() << " tag");
    }
  }
  return permissions;
}

bool DefenseEvasionTag::Check(const edr::Event& event) const {
  ZLOG_DEBUG("Checking for " << GetName() << " tag");
  if (HasTag(event)) return true;
  const std::int32_t pid = event.GetActorProcessId();
  if (event.GetObjectType() == edr::ObjectType::File &&
      !IsExcluded(PathOf(event.GetImage()), PathOf(event.GetFile()))) {
    if (event.GetType() != EventType::Read && IsHidden(event)) {
      ZLOG_DEBUG("Defense Evasion Hidden Artifacts technique is applicable for this process id " << pid);
      return true;
    }
    ZLOG_DEBUG("Checking if executable tag is applicable here for process id " << pid);
    if (HasSuspiciousMode(event)) {
      ZLOG_DEBUG("Defense Evasion Permissions Change technique is applicable for this process id " << pid);
      return true;
    }
  }
  ZLOG_DEBUG("Defense Evasion tactic is not applicable for this process id " << pid);
  return false;
}

bool DefenseEvasionTag::IsHidden(const edr::Event& event) {
  return AnyPathOf(event, IsHiddenPath);
}

bool DefenseEvasionTag::HasSuspiciousMode(const edr::Event& event) const {
  switch (event.GetType()) {
    case EventType::AttributeChange:
      return IsRaised(event.GetFile(), event.GetNewFile()) || IsSuspicious(event.GetNewFile());
    case EventType::Rename:
      return IsSuspicious(event.GetNewFile());
    case EventType::Create:
      return IsSuspicious(event.GetFile());
    default:
      return false;
  }
}

bool DefenseEvasionTag::IsSuspicious(const common::ImageInfo* file) const {
  if (file == nullptr) return false;
  const std::lock_guard lock(GetMutex());
  return permissions_.count(file->GetPermission()) != 0;
}

}  // namespace zagent::ioc::internal

#include "src/ioc/engines/PrivilegeEscalationTag.h"

#include "common/src/util/Log.h"
#include "src/ioc/config/LogPrefix.h"

namespace zagent::ioc::internal {

PrivilegeEscalationTag::PrivilegeEscalationTag(const TtlProcessTree& tree, const rapidjson::Value& settings)
    : Tag(kName, tree, settings) {
  PrivilegeEscalationTag::Configure(settings);
}

void PrivilegeEscalationTag::Configure(const rapidjson::Value& settings) {
  CheckIsObject(settings);
}

bool PrivilegeEscalationTag::Check(const edr::Event& event) const {
  ZLOG_DEBUG("Checking for " << GetName() << " tag");
  if (HasTag(event) || !event.IsElevated()) return false;
  if (const common::ImageInfo* image = event.GetImage(); image != nullptr) return !IsExcluded(image->GetPath(), "");
  // An abnormal end does not name the program.
  return !IsExcluded(PathOf(GetTree().Get(event.GetActorProcessId())->GetImage()), "");
}

}  // namespace zagent::ioc::internal

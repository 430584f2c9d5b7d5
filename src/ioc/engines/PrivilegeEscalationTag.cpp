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
  return !HasTag(event) && !IsExcluded(PathOf(event.GetImage()), "") && event.IsElevated();
}

}  // namespace zagent::ioc::internal

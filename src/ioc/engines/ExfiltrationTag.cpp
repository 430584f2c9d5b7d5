#include "src/ioc/engines/ExfiltrationTag.h"

#include "common/src/util/Log.h"
#include "src/ioc/config/LogPrefix.h"
#include "src/ioc/engines/TagPatterns.h"

namespace zagent::ioc::internal {

ExfiltrationTag::ExfiltrationTag(const TtlProcessTree& tree, const rapidjson::Value& settings)
    : Tag(kName, tree, settings), programs_(tag_patterns::kExfiltrationPrograms) {
  ExfiltrationTag::Configure(settings);
}

void ExfiltrationTag::Configure(const rapidjson::Value& settings) {
  CheckIsObject(settings);
  WholeTextPattern programs = ParsePattern(settings, "processRegex", tag_patterns::kExfiltrationPrograms);
  const std::lock_guard lock(GetMutex());
  programs_ = std::move(programs);
}

bool ExfiltrationTag::Check(const edr::Event& event) const {
  ZLOG_DEBUG("Checking for " << GetName() << " tag");
  if (HasTag(event) || event.GetObjectType() != edr::ObjectType::Network) return false;
  const std::string& image = PathOf(event.GetImage());
  if (IsExcluded(image, event.GetNetworkAddress())) return false;
  const std::lock_guard lock(GetMutex());
  return programs_.Matches(image);
}

}  // namespace zagent::ioc::internal

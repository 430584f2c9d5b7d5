#include "src/ioc/engines/PersistenceTag.h"

#include "common/src/util/Log.h"
#include "src/ioc/config/LogPrefix.h"
#include "src/ioc/engines/TagPatterns.h"

namespace zagent::ioc::internal {

PersistenceTag::PersistenceTag(const TtlProcessTree& tree, const rapidjson::Value& settings)
    : Tag(kName, tree, settings), paths_(tag_patterns::kPersistencePaths) {
  PersistenceTag::Configure(settings);
}

void PersistenceTag::Configure(const rapidjson::Value& settings) {
  CheckIsObject(settings);
  WholeTextPattern paths = ParsePattern(settings, "pathRegex", tag_patterns::kPersistencePaths);
  const std::lock_guard lock(GetMutex());
  paths_ = std::move(paths);
}

bool PersistenceTag::Check(const edr::Event& event) const {
  ZLOG_DEBUG("Checking for " << GetName() << " tag");
  if (HasTag(event)) return true;
  if (event.GetType() == edr::EventType::Read || event.GetObjectType() != edr::ObjectType::File) return false;
  if (IsFileExcluded(event)) return false;
  const std::lock_guard lock(GetMutex());
  return AnyPathOf(event, [&](const std::string& path) { return paths_.Matches(path); });
}

}  // namespace zagent::ioc::internal

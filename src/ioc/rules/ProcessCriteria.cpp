#include "src/ioc/rules/ProcessCriteria.h"

#include <memory>
#include <stdexcept>
#include <utility>

#include "common/src/util/Log.h"
#include "src/ioc/config/LogPrefix.h"

namespace zagent::ioc::internal {
namespace {

std::shared_ptr<ProcessInfo> Find(const TtlProcessTree& tree, std::int32_t pid) {
  try {
    return tree.Has(pid) ? tree.Get(pid) : nullptr;
  } catch (const common::GenericProcessTreeException&) {
    return nullptr;  // gone in between
  }
}

}  // namespace

ProcessCriteria::ProcessCriteria(Group group, std::vector<edr::PathGlob> patterns, const TtlProcessTree& tree)
    : FilterCriteria(group, std::move(patterns)), tree_(tree) {}

bool ProcessCriteria::Match(const edr::Event& event) const {
  ZLOG_DEBUG("Matching Actor Process Filters");
  if (GetPatterns().empty()) return !IsExclusion();
  const bool is_about_process = event.GetObjectType() == edr::ObjectType::Process;
  const std::shared_ptr<ProcessInfo> actor =
      is_about_process ? tree_.FindParent(event) : Find(tree_, event.GetActorProcessId());
  if (actor == nullptr) return false;
  return MatchesAny(actor->GetImage()->GetPath()) ||
         (actor->HasSecondaryImage() && MatchesAny(actor->GetSecondaryImage()->GetPath()));
}

}  // namespace zagent::ioc::internal

#include "src/ioc/engines/CredentialAccessTag.h"

#include <algorithm>

#include "common/src/util/Log.h"
#include "src/ioc/config/LogPrefix.h"
#include "src/ioc/engines/TagPatterns.h"

namespace zagent::ioc::internal {

CredentialAccessTag::CredentialAccessTag(const TtlProcessTree& tree, const rapidjson::Value& settings)
    : Tag(kName, tree, settings),
      paths_(tag_patterns::kCredentialAccessPaths),
      programs_(tag_patterns::kCredentialAccessPrograms) {
  CredentialAccessTag::Configure(settings);
}

void CredentialAccessTag::Configure(const rapidjson::Value& settings) {
  CheckIsObject(settings);
  WholeTextPattern paths = ParsePattern(settings, "pathRegex", tag_patterns::kCredentialAccessPaths);
  WholeTextPattern programs = ParsePattern(settings, "processRegex", tag_patterns::kCredentialAccessPrograms);
  const std::lock_guard lock(GetMutex());
  paths_ = std::move(paths);
  programs_ = std::move(programs);
}

bool CredentialAccessTag::Check(const edr::Event& event) const {
  ZLOG_DEBUG("Checking for " << GetName() << " tag");
  const std::lock_guard lock(GetMutex());
  return event.GetType() == edr::EventType::ProcessStart ? CheckStart(event) : CheckAccess(event);
}

// Who has it from its parent gets it without a check.
bool CredentialAccessTag::CheckStart(const edr::Event& event) const {
  const std::int32_t parent = GetTree().Get(event.GetActorProcessId())->GetParent();
  if (parent <= 0 || GetTree().Get(parent)->HasTag(GetName())) return false;
  const std::string& image = PathOf(event.GetImage());
  if (!programs_.Matches(image)) return false;
  const std::vector<std::string>& arguments = event.GetActorProcessArguments();
  return std::any_of(arguments.begin(), arguments.end(), [&](const std::string& argument) {
    return paths_.Matches(argument) && !IsExcluded(image, argument);
  });
}

bool CredentialAccessTag::CheckAccess(const edr::Event& event) const {
  if (event.GetObjectType() != edr::ObjectType::File || HasTag(event) || IsFileExcluded(event)) return false;
  return programs_.Matches(PathOf(event.GetImage())) &&
         AnyPathOf(event, [&](const std::string& path) { return paths_.Matches(path); });
}

}  // namespace zagent::ioc::internal

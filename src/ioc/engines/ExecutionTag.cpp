#include "src/ioc/engines/ExecutionTag.h"

#include "common/src/util/Log.h"
#include "src/ioc/config/LogPrefix.h"
#include "src/ioc/engines/TagPatterns.h"

namespace zagent::ioc::internal {

ExecutionTag::ExecutionTag(const TtlProcessTree& tree, const rapidjson::Value& settings)
    : Tag(kName, tree, settings),
      startup_file_option_(tag_patterns::kStartupFileOption),
      paths_(tag_patterns::kExecutionPaths),
      programs_(tag_patterns::kExecutionPrograms) {
  ExecutionTag::Configure(settings);
}

void ExecutionTag::Configure(const rapidjson::Value& settings) {
  CheckIsObject(settings);
  WholeTextPattern paths = ParsePattern(settings, "pathRegex", tag_patterns::kExecutionPaths);
  WholeTextPattern programs = ParsePattern(settings, "processRegex", tag_patterns::kExecutionPrograms);
  const std::lock_guard lock(GetMutex());
  paths_ = std::move(paths);
  programs_ = std::move(programs);
}

bool ExecutionTag::Check(const edr::Event& event) const {
  ZLOG_DEBUG("Checking for " << GetName() << " tag");
  if (event.GetType() != edr::EventType::ProcessStart) return false;
  const std::lock_guard lock(GetMutex());
  const std::string& image = PathOf(event.GetImage());
  const auto applies_to = [&](const std::string& script) {
    return !IsExcluded(image, script) && paths_.Matches(script);
  };
  if (event.HasSecondaryImage()) return applies_to(PathOf(event.GetSecondaryImage()));
  if (!programs_.Matches(image)) return false;
  const std::string* const script = FindScript(event);
  if (script == nullptr) return false;
  if (script->front() == '/') return applies_to(*script);
  return applies_to(event.GetCwd() + "/" + *script);
}

// The argument that an interpreter runs; null when it is given nothing to run.
const std::string* ExecutionTag::FindScript(const edr::Event& event) const {
  const std::vector<std::string>& arguments = event.GetActorProcessArguments();
  for (std::size_t i = 1; i < arguments.size(); ++i) {
    const std::string& argument = arguments[i];
    if (argument.empty()) continue;
    const std::string& previous = arguments[i - 1];
    if (previous != "--" && (argument.front() == '-' || startup_file_option_.Matches(previous))) continue;
    return &argument;
  }
  return nullptr;
}

}  // namespace zagent::ioc::internal

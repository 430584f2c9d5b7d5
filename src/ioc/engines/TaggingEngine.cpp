#include "src/ioc/engines/TaggingEngine.h"

#include <stdexcept>
#include <utility>

#include "common/src/util/Log.h"
#include "src/ioc/config/LogPrefix.h"
#include "src/ioc/engines/CredentialAccessTag.h"
#include "src/ioc/engines/DefenseEvasionTag.h"
#include "src/ioc/engines/ExecutionTag.h"
#include "src/ioc/engines/ExfiltrationTag.h"
#include "src/ioc/engines/PersistenceTag.h"
#include "src/ioc/engines/PrivilegeEscalationTag.h"

namespace zagent::ioc::internal {
namespace {

using common::util::FindMember;

constexpr std::int32_t kInit = 1;
// Beyond it all are forgotten: the next child of each parent asks all its siblings again.
constexpr std::size_t kMaxHeirs = 10'000;

const std::string& PathOf(const ProcessInfo& process) {
  return process.GetImage()->GetPath();
}

void Give(const Tag& tag, ProcessInfo& process) {
  process.AddTag(tag.GetName());
  process.AddScore(tag.GetScore());
}

}  // namespace

TaggingEngine::TaggingEngine(TtlProcessTree& tree, const rapidjson::Value& settings) : tree_(tree) {
  Configure(settings);
}

void TaggingEngine::Configure(const rapidjson::Value& settings) {
  const rapidjson::Value* threshold = FindMember(settings, "thresholdScore");
  if (threshold == nullptr) {
    ZLOG_ERROR("Tag settings does not have threshold score");
    return;
  }
  if (!threshold->IsInt64()) {
    ZLOG_ERROR("Threshold score is not an integer");
    return;
  }
  Tags tags;
  if (threshold->GetInt64() == 0) {
    ZLOG_INFO("Tag score threshold is 0. Disabling tagging ...");
  } else {
    try {
      tags = MakeTags(settings);
    } catch (const std::invalid_argument& error) {
      ZLOG_ERROR(error.what());
      return;
    }
  }
  const std::lock_guard lock(mutex_);
  tags_.swap(tags);
  heirs_.clear();
  threshold_score_ = threshold->GetInt64();
}

TaggingEngine::Tags TaggingEngine::MakeTags(const rapidjson::Value& settings) const {
  Tags tags;
  MakeTag<PersistenceTag>(settings, tags);
  MakeTag<ExfiltrationTag>(settings, tags);
  MakeTag<PrivilegeEscalationTag>(settings, tags);
  MakeTag<ExecutionTag>(settings, tags);
  MakeTag<CredentialAccessTag>(settings, tags);
  MakeTag<DefenseEvasionTag>(settings, tags);
  return tags;
}

template <typename Kind>
void TaggingEngine::MakeTag(const rapidjson::Value& settings, Tags& tags) const {
  const std::string name = Kind::kName;
  const rapidjson::Value* own = FindMember(settings, Kind::kName);
  if (own == nullptr) {
    ZLOG_INFO("Disabling " << name << " tag as it is not configured");
    return;
  }
  if (!own->IsObject()) throw std::invalid_argument("Invalid setting json for " + name + " tag");
  try {
    if (Tag::ParseScore(name, *own) == 0) {
      ZLOG_INFO("Disabling " << name << " tag with score 0");
      return;
    }
    tags.emplace(name, std::make_shared<const Kind>(tree_, *own));
  } catch (const std::exception& error) {
    throw std::invalid_argument("Invalid setting for " + name + " tag: " + error.what());
  }
}

Verdict TaggingEngine::Process(const edr::Event& event) {
  ZLOG_DEBUG("Getting tag verdict for event with ID " << event.GetId());
  const std::lock_guard lock(mutex_);
  if (threshold_score_ == 0) {
    ZLOG_DEBUG("Tagging is disabled");
    return Verdict::Clean;
  }
  const std::shared_ptr<ProcessInfo> process = tree_.Get(event.GetActorProcessId());
  if (event.GetType() == edr::EventType::ProcessStart) Inherit(process);
  Judge(event, *process);
  const std::int64_t score = process->GetScore();
  const Verdict verdict = score >= threshold_score_ ? Verdict::Suspicious : Verdict::Clean;
  ZLOG_DEBUG("PID: " << process->GetPid() << " Threshold: " << threshold_score_ << " Score: " << score);
  ZLOG_DEBUG("Returning tag verdict '" << VerdictWord(verdict) << "' to process (" << PathOf(*process) << ", "
                                       << process->GetPid() << ")");
  return verdict;
}

void TaggingEngine::Inherit(const std::shared_ptr<ProcessInfo>& process) {
  const std::int32_t ppid = process->GetParent();
  if (ppid <= kInit) return;
  const auto take_from = [&](const ProcessInfo& from, const std::string& whom) {
    for (const auto& [name, tag] : tags_) {
      if (process->HasTag(name) || !from.HasTag(name)) continue;
      Give(*tag, *process);
      ZLOG_DEBUG("Adding tag '" << name << "' to process (" << PathOf(*process) << ", " << process->GetPid()
                                << ") from " << whom);
    }
  };
  take_from(*tree_.Get(ppid), "parent process (" + std::to_string(ppid) + ")");
  for (const auto& sibling : SiblingsToAsk(*process)) take_from(*sibling, "sibling process");
  if (heirs_.size() >= kMaxHeirs) heirs_.clear();
  heirs_.insert_or_assign(ppid, process);
}

// All of them, or the one that has what they have, as long as it is one of them.
std::vector<std::shared_ptr<ProcessInfo>> TaggingEngine::SiblingsToAsk(const ProcessInfo& process) const {
  const auto found = heirs_.find(process.GetParent());
  const std::shared_ptr<const ProcessInfo> heir = found != heirs_.end() ? found->second.lock() : nullptr;
  if (heir != nullptr && heir->GetPid() != process.GetPid() && heir->GetParent() == process.GetParent() &&
      tree_.Has(heir->GetPid())) {
    std::shared_ptr<ProcessInfo> known = tree_.Get(heir->GetPid());
    if (known == heir) return {std::move(known)};
  }
  return tree_.GetSiblings(process.GetPid());
}

void TaggingEngine::Judge(const edr::Event& event, ProcessInfo& process) const {
  for (const auto& [name, tag] : tags_) {
    if (!process.HasTag(name) && tag->Check(event)) {
      Give(*tag, process);
      ZLOG_DEBUG("Added Tag: " << name << ", Updated Score: " << process.GetScore()
                               << ", for PID: " << process.GetPid());
      Spread(*tag, process);
    }
    if (process.GetScore() >= threshold_score_) return;
  }
}

void TaggingEngine::Spread(const Tag& tag, const ProcessInfo& source) const {
  if (source.GetPid() == kInit) return;
  ZLOG_DEBUG("Applying tag '" << tag.GetName() << "' to child processes");
  GiveToAll(tag, tree_.GetChildren(source.GetPid()), source);
  if (source.GetParent() == kInit) return;
  ZLOG_DEBUG("Applying tag '" << tag.GetName() << "' to sibling processes");
  GiveToAll(tag, tree_.GetSiblings(source.GetPid()), source);
}

void TaggingEngine::GiveToAll(const Tag& tag, const std::vector<std::shared_ptr<ProcessInfo>>& processes,
                              const ProcessInfo& source) {
  for (const auto& process : processes) {
    if (process->HasTag(tag.GetName())) continue;
    Give(tag, *process);
    ZLOG_DEBUG("Adding tag '" << tag.GetName() << "' to process (" << PathOf(*process) << ", " << process->GetPid()
                              << ") from related process (" << source.GetPid() << ")");
  }
}

}  // namespace zagent::ioc::internal

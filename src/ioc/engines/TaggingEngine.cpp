#include "src/ioc/engines/TaggingEngine.h"

#include <algorithm>
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
// Beyond them all are forgotten: the next child of each parent asks all its siblings again.
constexpr std::size_t kMaxFamilies = 4'000;

const std::string& PathOf(const ProcessInfo& process) {
  return process.GetImage()->GetPath();
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
  families_.clear();
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
  Judge(event, process);
  const std::int64_t score = process->GetScore();
  const Verdict verdict = score >= threshold_score_ ? Verdict::Suspicious : Verdict::Clean;
  ZLOG_DEBUG("PID: " << process->GetPid() << " Threshold: " << threshold_score_ << " Score: " << score);
  ZLOG_DEBUG("Returning tag verdict '" << VerdictWord(verdict) << "' to process (" << PathOf(*process) << ", "
                                       << process->GetPid() << ")");
  return verdict;
}

void TaggingEngine::Inherit(const Pointer& process) {
  const std::int32_t ppid = process->GetParent();
  if (ppid <= kInit) return;
  const auto take = [&](const Tag& tag, const std::string& whom) {
    Give(tag, process);
    ZLOG_DEBUG("Adding tag '" << tag.GetName() << "' to process (" << PathOf(*process) << ", " << process->GetPid()
                              << ") from " << whom);
  };
  const Pointer parent = tree_.Get(ppid);
  for (const auto& [name, tag] : tags_) {
    if (!process->HasTag(name) && parent->HasTag(name)) take(*tag, "parent process (" + std::to_string(ppid) + ")");
  }
  const Family& family = FamilyOf(*process);
  for (const auto& [name, tag] : tags_) {
    const auto bearers = family.find(tag.get());
    if (bearers == family.end() || process->HasTag(name)) continue;
    if (HasBearer(bearers->second, *tag, ppid)) take(*tag, "sibling process");
  }
}

// As its siblings are at this moment.
const TaggingEngine::Family& TaggingEngine::FamilyOf(const ProcessInfo& child) {
  const auto known = families_.find(child.GetParent());
  if (known != families_.end() && CanTell(known->second, child.GetParent())) return known->second;
  if (families_.size() >= kMaxFamilies) families_.clear();
  Family& family = families_[child.GetParent()];
  family.clear();
  // Its own tags were given by its parent, and count with those of the siblings.
  std::vector<Pointer> children = tree_.GetSiblings(child.GetPid());
  children.push_back(tree_.Get(child.GetPid()));
  for (const Pointer& one : children) {
    for (const auto& [name, tag] : tags_) {
      if (one->HasTag(name)) Note(family, *tag, one);
    }
  }
  return family;
}

// Of a tag whose known bearers are gone nobody knows whether there are others.
bool TaggingEngine::CanTell(const Family& family, std::int32_t parent) {
  return std::all_of(family.begin(), family.end(),
                     [&](const auto& entry) { return HasBearer(entry.second, *entry.first, parent); });
}

bool TaggingEngine::HasBearer(const Bearers& bearers, const Tag& tag, std::int32_t parent) {
  return std::any_of(bearers.begin(), bearers.end(),
                     [&](const auto& bearer) { return IsBearer(bearer.lock().get(), tag, parent); });
}

// Not one that is gone, that has started another program since or hangs under somebody else by now.
bool TaggingEngine::IsBearer(const ProcessInfo* process, const Tag& tag, std::int32_t parent) {
  return process != nullptr && process->GetParent() == parent && process->HasTag(tag.GetName());
}

// One that has got the tag.
void TaggingEngine::Note(Family& family, const Tag& tag, const Pointer& process) {
  Bearers& bearers = family[&tag];
  const auto gone = std::find_if(bearers.begin(), bearers.end(), [&](const auto& bearer) {
    return !IsBearer(bearer.lock().get(), tag, process->GetParent());
  });
  if (gone != bearers.end()) {
    *gone = process;
  } else if (bearers.size() < kBearers) {
    bearers.push_back(process);
  }
}

void TaggingEngine::Judge(const edr::Event& event, const Pointer& process) {
  for (const auto& [name, tag] : tags_) {
    if (!process->HasTag(name) && tag->Check(event)) {
      Give(*tag, process);
      ZLOG_DEBUG("Added Tag: " << name << ", Updated Score: " << process->GetScore()
                               << ", for PID: " << process->GetPid());
      Spread(*tag, *process);
    }
    if (process->GetScore() >= threshold_score_) return;
  }
}

void TaggingEngine::Spread(const Tag& tag, const ProcessInfo& source) {
  if (source.GetPid() == kInit) return;
  ZLOG_DEBUG("Applying tag '" << tag.GetName() << "' to child processes");
  GiveToAll(tag, tree_.GetChildren(source.GetPid()), source);
  if (source.GetParent() == kInit) return;
  ZLOG_DEBUG("Applying tag '" << tag.GetName() << "' to sibling processes");
  GiveToAll(tag, tree_.GetSiblings(source.GetPid()), source);
}

void TaggingEngine::GiveToAll(const Tag& tag, const std::vector<Pointer>& processes, const ProcessInfo& source) {
  for (const auto& process : processes) {
    if (process->HasTag(tag.GetName())) continue;
    Give(tag, process);
    ZLOG_DEBUG("Adding tag '" << tag.GetName() << "' to process (" << PathOf(*process) << ", " << process->GetPid()
                              << ") from related process (" << source.GetPid() << ")");
  }
}

void TaggingEngine::Give(const Tag& tag, const Pointer& process) {
  process->AddTag(tag.GetName());
  process->AddScore(tag.GetScore());
  const auto family = families_.find(process->GetParent());
  if (family != families_.end()) Note(family->second, tag, process);
}

}  // namespace zagent::ioc::internal

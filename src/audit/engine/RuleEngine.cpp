#include "src/audit/engine/RuleEngine.h"

#include <unistd.h>

#include <algorithm>
#include <exception>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

#include "common/src/util/CurrentException.h"
#include "common/src/util/Log.h"
#include "common/src/util/ProcessTimes.h"
#include "src/audit/routing/ProgramLook.h"
#include "src/audit/rules/AuditSocket.h"
#include "src/audit/rules/BacklogLimit.h"

namespace zagent::audit {

using edr::EventType;
using internal::AuditSocket;

namespace {

// Between two looks whether the excluded processes are still there.
constexpr std::chrono::seconds kLookInterval{60};

}  // namespace

RuleEngine::RuleEngine(AuditNetlink& netlink, Settings settings, IntakeCounters& counters, common::util::Clock& clock)
    : netlink_(netlink),
      counters_(counters),
      watch_folders_(std::move(settings.watch_folders)),
      exclusions_(getpid(), settings.agent_pid, settings.agent_path, settings.proc_root),
      rules_(clock),
      file_context_(std::move(settings.file_context)),
      look_at_paths_(std::move(settings.look_at_paths)),
      look_at_(std::move(settings.look_at)),
      listener_(std::move(settings.listener)),
      proc_root_(settings.proc_root),
      true_paths_(file_context_ ? file_context_->folders : nullptr, file_context_ ? file_context_->mounts : nullptr),
      processes_(
          clock, counters, [this](const edr::Event& event) { return IsContainerProcess(event); }, settings.proc_root),
      proof_(settings.agent_effective_uid, settings.proc_root),
      own_activity_(processes_.Tree(), proof_, std::move(settings.sibling_names),
                    std::move(settings.agent_install_path)),
      container_check_(processes_.Tree(), proof_),
      clock_(clock),
      next_look_(clock.SteadyNow() + kLookInterval),
      router_(clock, settings.max_resting_events, counters, processes_,
              {.has_process_rules = [this] { return HasProcessRules(); },
               .should_process = [this](const edr::Event& event,
                                        internal::EventSource source) { return ShouldProcessEvent(event, source); },
               .find_twin = [this](const edr::Event& event) { return FindTwin(event); },
               .deliver = [this](const edr::Event& event, const edr::Event* twin) { CallHandlers(event, twin); },
               .hand_over = [this](std::unique_ptr<edr::Event> event) { HandOver(std::move(event)); }}) {
  {
    // A late answer to the question for the limit must not be taken for the answer to a rule.
    AuditSocket status(netlink_, "RuleEngine: Failed to open audit socket");
    internal::RaiseAuditBacklogLimit(status, settings.audit_backlog_limit);
  }
  AuditSocket socket(netlink_, "RuleEngine: Failed to open audit socket");
  internal::Exclusions::DeleteAll(socket);
  rules_.SetCoverage(internal::FindCoverage(socket, settings.extended_coverage));
  exclusions_.AddAll(socket);
  PublishPids();
}

RuleEngine::~RuleEngine() {
  ZLOG_DEBUG("Destroying RuleEngine");
  try {
    const std::lock_guard lock(mutex_);
    AuditSocket socket(netlink_, "RuleEngine::~RuleEngine: Failed to open audit socket");
    DeleteEverythingFromAudit(socket);
  } catch (const edr::RuleEngineException&) {  // NOLINT(bugprone-empty-catch)
    // Without a socket, which is logged, the rules stay; the next start removes them.
  } catch (const std::exception& error) {
    ZLOG_ERROR("RuleEngine::~RuleEngine: " << error.what());
  }
}

void RuleEngine::AddRules(const std::string& tag, Rules rules) {
  if (tag.empty()) throw std::runtime_error("RuleEngine::AddRules: 'tag' is empty");
  if (std::find(rules.begin(), rules.end(), nullptr) != rules.end()) {
    throw std::runtime_error("RuleEngine::AddRules: 'rule' is nullptr");
  }
  ZLOG_INFO("RuleEngine::AddRules: Adding " << rules.size() << " rules");
  const std::vector<internal::Sight> sights = LookAtAll(internal::InstalledRules::PlacesOf(rules));
  internal::InstalledRules::Replacement replacement;
  {
    const std::lock_guard lock(mutex_);
    AuditSocket socket(netlink_, "RuleEngine::AddRules: Failed to open audit socket");
    PublishComingRules(tag, rules);
    std::exception_ptr cause;
    try {
      replacement = rules_.Replace(socket, tag, std::move(rules), sights);
    } catch (...) {
      cause = std::current_exception();
    }
    // Those that have come, however many these are.
    PublishRules();
    TellWatchedFolders();
    TellWhetherThereArePaths();
    if (cause) std::rethrow_exception(cause);
  }
  KeepFoundObjects(replacement.renewed);
  if (replacement.failure) throw *replacement.failure;
}

// What the kernel refuses of them it tells nothing of.
void RuleEngine::PublishComingRules(const std::string& tag, const Rules& rules) {
  const internal::RuleTable& known = owners_return_ ? *known_rules_.Get() : rules_.Table();
  const std::shared_ptr<internal::RuleTable> coming = known.CopyWithout(tag);
  for (const auto& rule : rules) {
    try {
      coming->Insert(tag, rule);
    } catch (const std::runtime_error&) {  // NOLINT(bugprone-empty-catch): told when it is added in earnest
    }
  }
  PublishKnown(coming);
}

void RuleEngine::PublishKnown(const Snapshot& known) {
  known_rules_.Set(known);
  has_process_rules_ = known->HasProcessRules();
}

void RuleEngine::PublishPids() {
  known_pids_.Set(std::make_shared<const Pids>(
      Pids{exclusions_.GetExcludedPids(), exclusions_.GetAgentPids(), exclusions_.GetStarts()}));
}

void RuleEngine::DeleteEverythingFromAudit(AuditSocket& socket) {
  rules_.DeleteFromAudit(socket);
  internal::Exclusions::DeleteAll(socket);
}

// Invalidate does not tell: the same rules come back at once.
void RuleEngine::TellWatchedFolders() const {
  if (watch_folders_) watch_folders_(rules_.Table().WatchedFolders());
}

void RuleEngine::TellWhetherThereArePaths() {
  const bool had_paths = has_paths_.exchange(rules_.HasPaths());
  if (has_paths_ && !had_paths && look_at_paths_) look_at_paths_();
}

void RuleEngine::Invalidate() {
  ZLOG_DEBUG("RuleEngine::Invalidate: Cleaning up all rules");
  {
    const std::lock_guard lock(mutex_);
    AuditSocket socket(netlink_, "RuleEngine::Invalidate: Failed to open audit socket");
    DeleteEverythingFromAudit(socket);
    rules_.Clear();
    owners_return_ = true;
    try {
      exclusions_.AddAll(socket);
    } catch (...) {
      // The next look at them tries again; that no rule comes back would be worse.
      ZLOG_ERROR("RuleEngine: Failed to add exclusion rules: " << common::util::DescribeCurrentException());
    }
  }
  processes_.Invalidate();
  // The owners come back through AddRules, one after the other.
  CallInvalidatedOfAllTags();
  const std::lock_guard lock(mutex_);
  owners_return_ = false;
  PublishRules();
}

// Until all owners are back, events that came before are judged by the rules that were.
void RuleEngine::PublishRules() {
  if (!owners_return_) PublishKnown(rules_.Table().Copy());
}

void RuleEngine::UpdateExclusions(std::int32_t agent_pid, const std::string& agent_path) {
  const std::lock_guard lock(mutex_);
  if (!exclusions_.NeedsUpdate(agent_pid, agent_path)) return;
  try {
    AuditSocket socket(netlink_, "RuleEngine: Failed to open audit socket");
    exclusions_.Update(socket, agent_pid, agent_path);
  } catch (const edr::RuleEngineException& error) {
    ZLOG_ERROR("RuleEngine: Failed to refresh exclusion rules in audit with new host warden pid"
               << ": " << error.what());
  }
  PublishPids();
  look_asked_ = true;  // the agent may have the pid of a process whose end is not noted yet
}

void RuleEngine::ProcessEvent(std::unique_ptr<edr::Event>&& event) {
  if (!event) throw std::runtime_error("RuleEngine::ProcessEvent: 'event' is nullptr");
  if (listener_) listener_(*event);
  RouteFoundObjects();
  CatchUp();
  if (event->GetType() == EventType::Delete && dynamic_cast<internal::RuleRemovedEvent*>(event.get()) != nullptr) {
    FollowRemoval(
        std::unique_ptr<internal::RuleRemovedEvent>(static_cast<internal::RuleRemovedEvent*>(event.release())));
    return;
  }
  Route(std::move(event));
}

void RuleEngine::Route(std::unique_ptr<edr::Event>&& event) {
  CorrectPaths(*event);
  NoteDisguise(*event);
  TellRemovalsBefore(*event);
  FollowFolders(*event);
  router_.Process(std::move(event));
}

// When the event has rested the process may be gone.
void RuleEngine::NoteDisguise(edr::Event& event) {
  if (event.GetObjectType() != edr::ObjectType::File && event.GetObjectType() != edr::ObjectType::Directory) return;
  const auto known = known_rules_.Get();
  FindFor(known, event);
  FindByAuditKey(known, event.GetAuditKey());
  const auto trust = [&event](const std::vector<internal::RuleTable::Rule>& rules) {
    return std::any_of(rules.begin(), rules.end(), [&](const auto& rule) { return rule->TrustsProgramOf(event); });
  };
  const bool is_trusted = trust(last_by_path_.of_files) || trust(last_by_key_.of_files);
  if (is_trusted && internal::IsImageProvedAnotherFile(event, proc_root_)) event.SetImageDisguised();
}

bool RuleEngine::OnIdle() {
  const bool more_was_found = RouteFoundObjects();
  const bool more_is_known = CatchUp();
  LookWhenDue();
  return router_.OnIdle() || more_was_found || more_is_known;
}

void RuleEngine::LookWhenDue() {
  const bool is_asked = look_asked_.exchange(false);
  const bool is_due = is_asked || clock_.SteadyNow() >= next_look_;
  if (is_due) {
    next_look_ = clock_.SteadyNow() + kLookInterval;
    look_waits_ = true;
  }
  if (!look_waits_) return;
  const std::unique_lock lock(mutex_, std::try_to_lock);
  if (lock) {
    look_waits_ = false;
    RenewExclusions();
    ended_pids_.clear();
  } else if (is_due) {
    for (const std::int32_t pid : FindMissing()) ForgetExcluded(pid);
  }
}

std::vector<std::int32_t> RuleEngine::FindMissing() const {
  if (!common::util::ReadStartSinceBoot(getpid(), proc_root_)) return {};  // it does not know us, and says nothing
  std::vector<std::int32_t> missing;
  const auto pids = KnownPids();
  for (const auto& [pid, start] : pids->starts) {
    if (common::util::ReadStartSinceBoot(pid, proc_root_) != start) missing.push_back(pid);
  }
  return missing;
}

void RuleEngine::OnStop(std::chrono::nanoseconds time) {
  const auto end = clock_.SteadyNow() + std::chrono::duration_cast<common::util::Clock::SteadyTime::duration>(time);
  // What is caught up with may find objects.
  for (bool is_more = true; is_more && clock_.SteadyNow() < end;) {
    is_more = CatchUp();
    is_more = RouteFoundObjects() || is_more;
  }
  DropFoundObjects();
  const auto left =
      std::count_if(news_.begin(), news_.end(), [](const News& news) { return news.removal && !news.is_removal_told; });
  counters_.Add(IntakeCounters::Reason::LeftAtStop, static_cast<std::uint64_t>(left));
  news_.clear();
  router_.DeliverRest(std::max<std::chrono::nanoseconds>(end - clock_.SteadyNow(), {}));
}

void RuleEngine::DropFoundObjects() {
  const std::lock_guard lock(found_mutex_);
  if (found_objects_.empty()) return;
  ZLOG_WARNING("RuleEngine: No time left to report " << found_objects_.size() << " objects that were found");
  counters_.Add(IntakeCounters::Reason::LeftAtStop, found_objects_.size());
  found_objects_.clear();
  found_bytes_ = 0;
}

void RuleEngine::LookAtExclusions() {
  const std::unique_lock lock(mutex_, std::try_to_lock);
  if (lock) {
    RenewExclusions();
  } else {
    look_asked_ = true;
  }
}

void RuleEngine::RenewExclusions() {
  const bool has_ended = exclusions_.EndMissing();
  PublishPids();
  if (!has_ended && exclusions_.IsComplete()) return;
  try {
    AuditSocket socket(netlink_, "RuleEngine: Failed to open audit socket");
    exclusions_.Renew(socket);
  } catch (const edr::RuleEngineException& error) {
    ZLOG_ERROR("RuleEngine: Failed to renew exclusion rules: " << error.what());
  }
}

bool RuleEngine::IsContainerProcess(const edr::Event& event) {
  return container_check_.IsContainerProcess(event);
}

bool RuleEngine::HasProcessRules() const {
  return has_process_rules_;
}

bool RuleEngine::ShouldProcessEvent(const edr::Event& event, internal::EventSource source) {
  const auto pids = KnownPids();
  if (source == internal::EventSource::FileCache) {
    // What the process was was judged when the event came in: it may have become one of the family since.
    return !IsDropped(event, own_activity_.IsDoneBelow(event, pids->agents));
  }
  // Before the end of an excluded process ends its exclusion.
  const bool is_own = event.GetType() != EventType::AbnormalEnd && own_activity_.IsSourceOf(event, pids->excluded);
  if (event.GetObjectType() == edr::ObjectType::Process) FollowFamily(event, *pids);
  return !IsDropped(event, is_own);
}

bool RuleEngine::IsDropped(const edr::Event& event, bool is_own) {
  if (is_own) {
    ZLOG_DEBUG("AuditRuleEngine::ShouldProcessEvent: Dropping Ostrel generated event with ID: " << event.GetId());
  }
  return is_own;
}

void RuleEngine::FollowFamily(const edr::Event& event, const Pids& pids) {
  const bool is_end = event.GetType() == EventType::ProcessExit || event.GetType() == EventType::AbnormalEnd;
  const std::optional<internal::ProcessClaim> sibling = own_activity_.FindSibling(event);
  News news;
  if (is_end && pids.excluded.count(event.GetActorProcessId()) != 0) news.ended = event.GetActorProcessId();
  if (sibling && event.GetType() == EventType::ProcessStart) {
    news.started = sibling;
    news.program = sibling->image;
  }
  if (!news.ended && !news.started) return;
  if (news.ended) ForgetExcluded(*news.ended);
  KeepNews(std::move(news));
  CatchUp();
}

// Whoever gets the pid must not be taken for the one that had it, whatever snapshot is made before its end is noted.
void RuleEngine::ForgetExcluded(std::int32_t pid) {
  if (pid != getpid()) ended_pids_.insert(pid);
}

std::shared_ptr<const RuleEngine::Pids> RuleEngine::KnownPids() const {
  std::shared_ptr<const Pids> known = known_pids_.Get();
  const auto has_ended = [this](std::int32_t pid) { return ended_pids_.count(pid) != 0; };
  if (std::none_of(known->excluded.begin(), known->excluded.end(), has_ended)) return known;
  Pids pids = *known;
  std::erase_if(pids.excluded, has_ended);
  std::erase_if(pids.agents, has_ended);
  std::erase_if(pids.starts, [&](const auto& start) { return has_ended(start.first); });
  return std::make_shared<const Pids>(std::move(pids));
}

void RuleEngine::KeepNews(News news) {
  if (news_.size() >= kMostNews) {
    const News& oldest = news_.front();
    if (oldest.removal && !oldest.is_removal_told) counters_.Add(IntakeCounters::Reason::NotProcessed);
    news_.pop_front();
  }
  news_.push_back(std::move(news));
}

bool RuleEngine::CatchUp() {
  if (news_.empty()) return false;
  News news = std::move(news_.front());
  news_.pop_front();
  const bool is_removal = news.removal != nullptr;
  try {
    if (!Note(news)) {
      news_.push_front(std::move(news));
      return false;
    }
  } catch (...) {
    // Not the affair of the event that is at hand.
    if (is_removal) counters_.Add(IntakeCounters::Reason::NotProcessed);
    ZLOG_ERROR(
        "RuleEngine: Failed to do what an event means for the rules: " << common::util::DescribeCurrentException());
  }
  return !news_.empty();
}

bool RuleEngine::Note(News& news) {
  if (news.removal) return NoteRemoval(news);
  if (!news.gone.empty() || !news.come.empty()) return NoteFolders(news);
  const std::unique_lock lock(mutex_, std::try_to_lock);
  if (!lock) return false;
  NoteFamily(news);
  PublishPids();
  if (news.ended) ended_pids_.erase(*news.ended);
  if (news.started) ended_pids_.erase(news.started->pid);
  return true;
}

void RuleEngine::NoteFamily(const News& news) {
  std::optional<internal::ProcessClaim> sibling = news.started;
  std::optional<std::int64_t> start;
  std::string name;
  bool has_ended = news.ended && exclusions_.End(*news.ended);
  if (sibling) {
    sibling->image = news.program;
    name = news.program.substr(news.program.rfind('/') + 1);
    // Who was killed has sent no word of it.
    has_ended = exclusions_.EndIfMissing(name) || has_ended;
    if (!exclusions_.Contains(name)) start = own_activity_.Prove(*sibling);
  }
  if (!start && !has_ended) return;
  try {
    AuditSocket socket(netlink_, "RuleEngine: Failed to open audit socket");
    if (has_ended) exclusions_.RemoveEnded(socket);
    if (start) exclusions_.Add(socket, name, sibling->pid, *start);
    // While the kernel was asked the process may have ended, or started another program, unheard from then on.
    if (start && own_activity_.Prove(*sibling) != start && exclusions_.End(sibling->pid)) {
      exclusions_.RemoveEnded(socket);
    }
  } catch (const edr::RuleEngineException&) {
    ZLOG_ERROR("Failed to open audit socket for handling ostrel process event");
  }
}

void RuleEngine::CallHandlers(const edr::Event& event, const edr::Event* twin) {
  std::exception_ptr first_failure;
  CallHandlersOf(FindRules(event, twin != nullptr), event, first_failure);
  if (twin != nullptr) CallHandlersOf(FindOtherRules(*twin, event), *twin, first_failure);
  if (first_failure) std::rethrow_exception(first_failure);
}

void RuleEngine::HandOver(std::unique_ptr<edr::Event> event) {
  std::exception_ptr first_failure;
  const edr::Event& handed_over = *event;
  CallHandlersOf(FindRules(handed_over, false), handed_over, first_failure, std::move(event));
  if (first_failure) std::rethrow_exception(first_failure);
}

// In the order of their names FIM comes before IOC, which is meant: the digests that FIM asks for stay with the event,
// and travel to IOC, which keeps it or a copy of it. A component that fails must not take the event away from the next
// one.
void RuleEngine::CallHandlersOf(const internal::RuleTable::IdsByTag& ids_by_tag, const edr::Event& event,
                                std::exception_ptr& first_failure, std::unique_ptr<edr::Event> to_keep) {
  for (auto of_tag = ids_by_tag.begin(); of_tag != ids_by_tag.end(); ++of_tag) {
    const auto& [tag, ids] = *of_tag;
    try {
      if (to_keep != nullptr && std::next(of_tag) == ids_by_tag.end()) {
        CallRuleMatched(tag, ids, std::move(to_keep));
      } else {
        CallRuleMatched(tag, ids, event);
      }
    } catch (const std::exception&) {
      if (!first_failure) first_failure = std::current_exception();
    }
  }
}

}  // namespace zagent::audit

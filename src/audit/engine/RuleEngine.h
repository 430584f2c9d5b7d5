#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "common/src/util/Clock.h"
#include "src/audit/channels/AuditNetlink.h"
#include "src/audit/engine/InstalledRules.h"
#include "src/audit/engine/Published.h"
#include "src/audit/engine/TruePaths.h"
#include "src/audit/engine/WatchedPlace.h"
#include "src/audit/events/FileEvent.h"
#include "src/audit/events/IntakeCounters.h"
#include "src/audit/events/RuleRemovedEvent.h"
#include "src/audit/events/WatchedFolder.h"
#include "src/audit/routing/ContainerCheck.h"
#include "src/audit/routing/EventRouter.h"
#include "src/audit/routing/ImageProof.h"
#include "src/audit/routing/OwnActivity.h"
#include "src/audit/routing/ProcessModel.h"
#include "src/audit/rules/Exclusions.h"
#include "src/edr/EventRuleEngine.h"

namespace zagent::audit {

// edr::EventRuleEngine on the Linux audit subsystem: translates rules into kernel rules, keeps the program's own
// family of processes out of the stream, and routes events to the handlers of the tags whose rules match.
//
// One mutex guards the tables, and the kernel calls run under it, which also serialises libaudit's global state. Every
// operation that talks to the kernel opens a netlink socket of its own. Handlers are called outside the mutex.
//
// A change of many rules keeps the kernel busy for minutes, and the event thread does not wait for it: it judges by the
// newest snapshot of rules and excluded processes. The rules of a change stand in it before the kernel has the first of
// them, so that no event comes too early for its rule. What an event means for the kernel's rules is done at once when
// the mutex is free, and otherwise with a later event or idle second, in the order in which it was told.
class RuleEngine final : public edr::EventRuleEngine {
 public:
  struct Settings {
    std::int32_t agent_pid;
    std::string agent_path;             // of the parent agent's executable
    std::uint32_t audit_backlog_limit;  // records; the kernel's limit is raised to it, never lowered
    std::string agent_install_path;
    std::set<std::string> sibling_names;    // file names of the product family's processes
    std::size_t max_resting_events;         // file events that rest at most; beyond it the oldest are delivered early
    std::uint32_t agent_effective_uid = 0;  // of the family's processes that are not root's
    bool extended_coverage = false;         // kernel rules for what no watch permission covers, too
    // Told whenever rules were added or removed, with the folders of all tags' rules in force, in order. Must not call
    // back: the engine's mutex is held, so that the last word is the newest.
    std::function<void(std::vector<internal::WatchedFolder>)> watch_folders = {};
    std::string proc_root = "/proc";
    // What file events are built with: for paths, and for what is found on the disk. Null: as an empty one.
    internal::FileEvent::Context file_context = nullptr;
    // Told when there are paths of rules, where there were none before: LookAtPaths is to be called once a second from
    // then on. Must not call back.
    std::function<void()> look_at_paths = {};
    // Asks the disk what stands at a path. Called without a lock.
    std::function<internal::Sight(const internal::WatchedPlace&)> look_at = internal::LookAt;
    // Hears of each event first, whoever caused it: what the program's own family did, too. Event thread; returns at
    // once.
    std::function<void(const edr::Event&)> listener = {};
  };

  // Raises the backlog limit, removes what an earlier run left in the kernel, installs the exclusions. Throws
  // edr::RuleEngineException "Failed to open audit socket".
  RuleEngine(AuditNetlink& netlink, Settings settings, IntakeCounters& counters,
             common::util::Clock& clock = common::util::Clock::Real());
  RuleEngine(const RuleEngine&) = delete;
  RuleEngine& operator=(const RuleEngine&) = delete;
  // Leaves the kernel without any rule of the program.
  ~RuleEngine() override;

  // A rule that cannot be installed is logged and does not keep the others out; the first failure is thrown at the end
  // as edr::RuleEngineException, with the refusals of all.
  void AddRules(const std::string& tag, Rules rules) override;
  void Invalidate() override;
  void ProcessEvent(std::unique_ptr<edr::Event>&& event) override;
  bool OnIdle() override;
  void OnStop(std::chrono::nanoseconds time) override;

  // The parent agent's pid or path has changed: moves its exclusion rules. Failures are logged.
  void UpdateExclusions(std::int32_t agent_pid, const std::string& agent_path);
  // Looks whether the excluded processes are still there, and lets those be heard that have got their pids since; tries
  // again what could not be excluded. Done once a minute anyhow; there is a reason to do it at once when the parent
  // agent is no longer connected. Failures are logged, and the next look tries again. Waits for nobody: while a change
  // of rules keeps the kernel busy the event thread looks in its place.
  void LookAtExclusions();

  // Looks whether something is at the paths of rules again that had to be given up, and puts these rules into force;
  // and whether the others still watch what is at their paths: a parent folder that is renamed or mounted over where
  // nobody watches takes the kernel's rules along without a word. A sixtieth of all paths is looked at by each call, so
  // that with one call a second an object that was swapped is noticed within a minute. A rule on it is taken out of the
  // kernel and put in anew, and what is there is reported as made by nobody known, as for a path that had to be given
  // up. The disk is asked without the mutex: a file system that does not answer stops nobody else.
  void LookAtPaths();
  // Whether there are paths to look at. Takes no lock.
  [[nodiscard]] bool HasPaths() const { return has_paths_; }

  // What the file events that rest until their file has settled hold, by an estimate. Takes no lock.
  [[nodiscard]] std::uint64_t GetRestingBytes() const { return router_.GetRestingBytes(); }

  // Objects that were found when a rule came into force, and wait for the event thread, and what these hold, by an
  // estimate. From any thread.
  [[nodiscard]] std::size_t GetFoundObjects() const {
    const std::lock_guard lock(found_mutex_);
    return found_objects_.size();
  }
  [[nodiscard]] std::uint64_t GetFoundBytes() const {
    const std::lock_guard lock(found_mutex_);
    return found_bytes_;
  }

  // Whether a container runtime has started the event's process. Event thread.
  [[nodiscard]] bool IsContainerProcess(const edr::Event& event);

 private:
  static constexpr std::size_t kMostNews = 1'000;

  using Snapshot = std::shared_ptr<const internal::RuleTable>;

  // What the rules were asked last: one event asks the same several times on its way.
  struct AnswerByPath {
    Snapshot rules;
    edr::ObjectType type = edr::ObjectType::File;
    bool is_rename = false;
    std::string path;
    std::string new_path;
    std::string told_part;  // of the path
    std::string new_told_part;
    internal::RuleTable::IdsByTag found;
    std::vector<internal::RuleTable::Rule> of_files;  // of files and folders, among the found ones
  };
  struct AnswerByKey {
    Snapshot rules;
    std::string key;
    internal::RuleTable::IdsByTag found;
    std::vector<internal::RuleTable::Rule> of_files;
  };

  struct FoundObject {
    std::unique_ptr<edr::Event> event;
    std::uint64_t bytes;
  };
  struct Pids {
    std::set<std::int32_t> excluded;
    std::set<std::int32_t> agents;                // the program and its parent agent
    std::map<std::int32_t, std::int64_t> starts;  // of those of them that are known to have been there
  };
  // What an event means for the kernel's rules: one of the three.
  struct News {
    // Rules that the kernel has dropped.
    std::unique_ptr<internal::RuleRemovedEvent> removal;
    bool is_removal_told = false;  // to the components

    // Folders that rules stand at or below; empty where the event says nothing of them.
    std::string gone;
    std::string come;

    // The program's family of processes.
    std::optional<std::int32_t> ended;
    std::optional<internal::ProcessClaim> started;  // its program's path is `program`
    std::string program;
  };

  // Event thread. RuleTable::FindFor and FindByAuditKey; the answer holds until the next question.
  const internal::RuleTable::IdsByTag& FindFor(const Snapshot& known, const edr::Event& event);
  const internal::RuleTable::IdsByTag& FindByAuditKey(const Snapshot& known, const std::string& key);
  void PublishKnown(const Snapshot& known);

  // Event thread. None waits for the mutex.
  [[nodiscard]] bool HasProcessRules() const;
  [[nodiscard]] bool ShouldProcessEvent(const edr::Event& event, internal::EventSource source);
  [[nodiscard]] static bool IsDropped(const edr::Event& event, bool is_own);
  void CallHandlers(const edr::Event& event, const edr::Event* twin);
  // `to_keep`, where it is not null, is the event itself, for the last of the handlers.
  void CallHandlersOf(const internal::RuleTable::IdsByTag& ids_by_tag, const edr::Event& event,
                      std::exception_ptr& first_failure, std::unique_ptr<edr::Event> to_keep = nullptr);
  // Calls the handlers of an event that has no twin and is needed no more.
  void HandOver(std::unique_ptr<edr::Event> event);
  // The rules that the path of the event leads to and, unless it has a twin that tells them, those that the kernel's
  // key names.
  // The answer holds until the next question of any kind.
  [[nodiscard]] const internal::RuleTable::IdsByTag& FindRules(const edr::Event& event, bool has_twin);
  // Whether an event whose path leads to other rules may concern those that the kernel's key names. What is removed may
  // be the other side of a rename, which the key was for: there the object has to be a rule's.
  [[nodiscard]] bool MayConcern(const std::vector<internal::RuleTable::Rule>& named, const edr::Event& event) const;
  // The rules that the twin concerns, without those that hear of the event itself.
  [[nodiscard]] internal::RuleTable::IdsByTag FindOtherRules(const edr::Event& twin, const edr::Event& event);
  // Event thread. Gives an event of a file the path under which rules know it, when the one that it was called by is
  // known to none. What no path leads to is left to the audit key, with the true path where that is known.
  void CorrectPaths(edr::Event& event);
  // Event thread. Looks at the program of the event's process, where a rule would believe its name.
  void NoteDisguise(edr::Event& event);
  // Event thread. Where the path of an event leads to rules of other folders than the one that the kernel has told of
  // with its key, by a link in one of them: the event under its path in the kernel's folder, for that one's rules. Null
  // when the path leads to the rule that the key names, or no path is known that does.
  [[nodiscard]] std::unique_ptr<edr::Event> FindTwin(const edr::Event& event);
  void Route(std::unique_ptr<edr::Event>&& event);
  void FollowRemoval(std::unique_ptr<internal::RuleRemovedEvent> removal);
  void FollowFolders(const edr::Event& event);
  void FollowFamily(const edr::Event& event, const Pids& pids);
  // What the process of this pid does is not the family's any more. Event thread.
  void ForgetExcluded(std::int32_t pid);
  // The newest snapshot without those. Event thread.
  [[nodiscard]] std::shared_ptr<const Pids> KnownPids() const;
  // Looks at the excluded processes when that is due or was asked for.
  void LookWhenDue();
  // Of the excluded processes, those whose pids are nobody's or somebody else's by now.
  [[nodiscard]] std::vector<std::int32_t> FindMissing() const;
  void KeepNews(News news);
  // Does the oldest of what waits for the mutex, when that is free. True when more can be done.
  bool CatchUp();
  // These are false when the mutex is not free; what is left of the news stays in it.
  bool Note(News& news);
  bool NoteRemoval(News& news);
  bool NoteFolders(News& news);
  // Before the event of what comes to the place of a folder, the components hear that it went: the event is proof of
  // that, while the kernel, which waits, can only be asked later.
  void TellRemovalsBefore(const edr::Event& event);
  void NoteGone(const std::string& folder);
  // A portion of them. True when more wait.
  bool RouteFoundObjects();
  void DropFoundObjects();
  // Any thread, without the mutex.
  [[nodiscard]] std::vector<internal::Sight> LookAtAll(const std::vector<internal::WatchedPlace>& places) const;
  // False when the mutex is not free and is not to be waited for.
  bool LookAtPlaces(const std::vector<internal::WatchedPlace>& places, bool waits);
  void KeepFoundObjects(const std::vector<internal::InstalledRules::Renewed>& renewed);
  void KeepFoundObjectsOf(const edr::EventRule& rule);
  // With found_mutex_ held.
  [[nodiscard]] bool IsFoundFull() const;

  // The caller holds the mutex.
  // True when the event says more than that the kernel has dropped rules.
  bool NoteRemovedRules(const internal::RuleRemovedEvent& told);
  // The kernel's exclusions follow the family's processes.
  void NoteFamily(const News& news);
  void RenewExclusions();
  void PublishRules();
  void PublishComingRules(const std::string& tag, const Rules& rules);
  void PublishPids();
  void DeleteEverythingFromAudit(internal::AuditSocket& socket);
  void TellWatchedFolders() const;
  void TellWhetherThereArePaths();

  AuditNetlink& netlink_;
  IntakeCounters& counters_;
  const std::function<void(std::vector<internal::WatchedFolder>)> watch_folders_;
  std::mutex mutex_;  // taken before found_mutex_
  internal::Exclusions exclusions_;
  internal::InstalledRules rules_;
  bool owners_return_ = false;  // all rules were dropped, and not everybody has added his again; with mutex_
  internal::Published<internal::RuleTable> known_rules_;
  std::atomic<bool> has_process_rules_{false};  // among them; the event thread asks several times an event
  internal::Published<Pids> known_pids_;
  const internal::FileEvent::Context file_context_;
  const std::function<void()> look_at_paths_;
  const std::function<internal::Sight(const internal::WatchedPlace&)> look_at_;
  const std::function<void(const edr::Event&)> listener_;
  std::atomic<bool> has_paths_{false};
  const std::string proc_root_;
  mutable std::mutex found_mutex_;
  // For the event thread. At their bound, in number and in bytes, what is found is dropped and counted, and one line
  // tells of it; the next one only after the event thread has taken all.
  std::deque<FoundObject> found_objects_;
  std::uint64_t found_bytes_ = 0;
  bool found_bound_told_ = false;
  // Event thread; they wait for the mutex. What is more than kMostNews is left to the looks that are due within a
  // minute anyhow; an event that goes for that is counted.
  std::deque<News> news_;
  std::set<std::int32_t> ended_pids_;   // of excluded processes whose end is not noted yet
  std::set<std::string> gone_folders_;  // whose going the components have heard of, and whose coming not
  internal::TruePaths true_paths_;
  internal::ProcessModel processes_;  // event thread
  internal::ImageProof proof_;
  internal::OwnActivity own_activity_;
  internal::ContainerCheck container_check_;
  common::util::Clock& clock_;
  common::util::Clock::SteadyTime next_look_;   // at the excluded processes; event thread
  bool look_waits_ = false;                     // for the mutex; event thread
  std::atomic<bool> look_asked_{false};         // by LookAtExclusions, for which the mutex was not free
  AnswerByPath last_by_path_;                   // event thread
  AnswerByKey last_by_key_;                     // event thread
  internal::RuleTable::IdsByTag told_by_both_;  // event thread; by path and by key
  internal::EventRouter router_;                // event thread
};

}  // namespace zagent::audit

#include "src/audit/rules/Exclusions.h"

#include <libaudit.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include "common/src/util/ErrnoText.h"
#include "common/src/util/Log.h"
#include "common/src/util/ProcessTimes.h"
#include "common/src/util/RootsFile.h"

namespace zagent::audit::internal {
namespace {

using common::util::ErrnoText;
using Action = AuditRule::Action;
using List = AuditRule::List;
using Position = AuditSocket::Position;
using Priority = Poco::Message::Priority;

constexpr const char* kOwnName = "ostrel-edr";
const std::string kIgnoreKeyPrefix = "ostrel_ignore_rule_";
const std::string kExitKeyPrefix = "ostrel_exit_rule_";
const std::string kThreadKey = "ostrel_ignore_thread_events_rule";

struct MessageType {
  const char* name;
  std::uint32_t number;
};
constexpr std::array<MessageType, 1> kExcludedMessageTypes = {{{"EOE", AUDIT_EOE}}};

std::string FileName(const std::string& path) {
  return path.substr(path.rfind('/') + 1);  // the whole text without a "/"
}

// An agent that is called as the program is must not push its entry out.
std::string AgentName(const std::string& path) {
  const std::string name = FileName(path);
  return name == kOwnName ? name + "_agent" : name;
}

// A rule of this key for another process is a leftover that could not be deleted: it silences the wrong one.
bool IsListed(const std::vector<AuditRule>& listed, const std::string& key, std::int32_t pid) {
  const bool found = std::any_of(listed.begin(), listed.end(),
                                 [&](const auto& rule) { return rule.GetKey() == key && rule.IsForPid(pid); });
  if (found) ZLOG_DEBUG("Rule with key " << key << " already exist");
  return found;
}

bool BuildIgnoreRule(const std::string& name, std::int32_t pid, AuditRule& rule, Priority priority) {
  if (!rule.AddField("arch=b64") || !rule.AddField("pid=" + std::to_string(pid)) || !rule.AddAllSyscalls()) {
    ZLOG_AT(priority, "Failed to create exclusion rule for pid " << pid);
    return false;
  }
  if (!rule.AddKey(kIgnoreKeyPrefix + name)) {
    ZLOG_AT(priority, "Failed to add key to the exclusion rule for pid " << pid);
    return false;
  }
  return true;
}

bool BuildExitRule(const std::string& name, std::int32_t pid, AuditRule& rule, Priority priority) {
  if (!rule.AddField("arch=b64") || !rule.AddField("pid=" + std::to_string(pid)) || !rule.AddSyscall("exit_group")) {
    ZLOG_AT(priority, "Failed to create exit rule for pid " << pid);
    return false;
  }
  if (!rule.AddKey(kExitKeyPrefix + name)) {
    ZLOG_AT(priority, "Failed to add key to the exit rule for pid " << pid);
    return false;
  }
  return true;
}

// 0 or errno. A rule that is there already is as good as added.
int AddInFront(AuditSocket& socket, AuditRule& rule) {
  const int error = socket.Add(rule, Position::Front);
  return error == EEXIST ? 0 : error;
}

bool AddProcessRule(AuditSocket& socket, AuditRule& rule, std::int32_t pid, Priority priority) {
  const int error = AddInFront(socket, rule);
  if (error == 0) return true;
  ZLOG_AT(priority, "Failed to add exclusion rule for pid " << pid << " (errno = " << error << ")");
  return false;
}

// The pair of rules of one process: silence for everything, and in front of it, since it is added later, its exit,
// which shows when the pair is to be dropped.
bool AddExclusionRules(AuditSocket& socket, const std::vector<AuditRule>& listed, const std::string& name,
                       std::int32_t pid, Priority priority) {
  ZLOG_DEBUG("Adding exclusion rule for pid " << pid);
  AuditRule ignore(List::Exit, Action::Never);
  AuditRule exit(List::Exit, Action::Always);
  if (!BuildIgnoreRule(name, pid, ignore, priority) || !BuildExitRule(name, pid, exit, priority)) return false;

  const bool adds_ignore = !IsListed(listed, kIgnoreKeyPrefix + name, pid);
  if (adds_ignore && !AddProcessRule(socket, ignore, pid, priority)) return false;
  if (!IsListed(listed, kExitKeyPrefix + name, pid) && !AddProcessRule(socket, exit, pid, priority)) {
    const int error = adds_ignore ? socket.Delete(ignore) : 0;
    if (error != 0) {
      ZLOG_AT(priority, "Failed to clean up exclusion rule for pid " << pid << " (errno = " << error << ")");
    }
    return false;
  }
  ZLOG_DEBUG("Exclusion rule added for pid " << pid);
  return true;
}

bool AddMessageTypeExclusion(AuditSocket& socket, const char* name, Priority priority) {
  AuditRule rule(List::Exclude, Action::Always);
  if (!rule.AddField(std::string("msgtype=") + name)) {
    ZLOG_AT(priority, "Failed to add exclusion rule for message type: " << name);
    return false;
  }
  const int error = AddInFront(socket, rule);
  if (error == 0) {
    ZLOG_DEBUG("Exclusion rule for message type: " << name << " added in audit");
    return true;
  }
  ZLOG_AT(priority, "Failed to add exclusion rule for message type: " << name << " (errno = " << error << ")");
  // The kernel may have taken it all the same, when only its answer was lost.
  const int clean_up = socket.Delete(rule);
  if (clean_up != 0 && clean_up != ENOENT) {
    ZLOG_AT(priority,
            "Failed to clean up exclusion rule for message type: " << name << " (errno = " << clean_up << ")");
  }
  return false;
}

bool AddMessageTypeExclusions(AuditSocket& socket, Priority priority) {
  ZLOG_DEBUG("Adding exclusion message type rules");
  bool is_complete = true;
  for (const MessageType& type : kExcludedMessageTypes) {
    is_complete = AddMessageTypeExclusion(socket, type.name, priority) && is_complete;
  }
  return is_complete;
}

bool AddThreadExclusion(AuditSocket& socket, Priority priority) {
  using Step = std::pair<const char*, bool (*)(AuditRule&)>;
  static constexpr std::array<Step, 4> kSteps = {{
      {"Failed to add arch to the thread exclusion rule", [](AuditRule& rule) { return rule.AddField("arch=b64"); }},
      {"Failed to add syscall to the thread exclusion rule", [](AuditRule& rule) { return rule.AddSyscall("clone"); }},
      {"Failed to add flag to the thread exclusion rule",
       [](AuditRule& rule) { return rule.AddField("a0&65536"); }},  // CLONE_THREAD
      {"Failed to add key to the thread exclusion rule", [](AuditRule& rule) { return rule.AddKey(kThreadKey); }},
  }};
  AuditRule rule(List::Exit, Action::Never);
  for (const auto& [failure, add] : kSteps) {
    if (add(rule)) continue;
    ZLOG_AT(priority, failure);
    return false;
  }
  const int error = AddInFront(socket, rule);
  if (error != 0) {
    ZLOG_AT(priority, "Failed to add thread exclusion rule to audit: " << ErrnoText(error));
    return false;
  }
  ZLOG_DEBUG("Added thread exclusion rule to audit");
  return true;
}

// Takes away what goes by a name, apart from the pair of rules of `kept`. True when nothing of it is left.
bool DeleteProcess(AuditSocket& socket, const std::string& name, std::optional<std::int32_t> kept) {
  AuditSocket::Listing listed = socket.ListRules();
  bool is_gone = listed.is_complete;
  for (AuditRule& rule : listed.rules) {
    const std::string key = rule.GetKey();
    if (key != kIgnoreKeyPrefix + name && key != kExitKeyPrefix + name) continue;
    if (kept && rule.IsForPid(*kept)) continue;
    const int error = socket.Delete(rule);
    if (error == 0) {
      ZLOG_DEBUG("Deleted exclusion rule " << key);
    } else if (error != ENOENT) {
      ZLOG_ERROR("Failed to delete exclusion rule " << key << ": " << ErrnoText(error));
      is_gone = false;
    }
  }
  return is_gone;
}

void DeleteMessageTypeExclusions(AuditSocket& socket, std::vector<AuditRule>& listed) {
  for (const auto& [name, number] : kExcludedMessageTypes) {
    for (AuditRule& rule : listed) {
      if (!rule.IsMessageTypeExclusion(number)) continue;
      const int error = socket.Delete(rule);
      if (error == 0) {
        ZLOG_DEBUG("RuleEngine::DeleteExclusionMessageTypeRulesFromAudit Deleted rule for message type: " << name);
      } else {
        ZLOG_ERROR("Failed to delete exclusion rule for message type: " << name << ": " << ErrnoText(error));
      }
    }
  }
}

}  // namespace

Exclusions::Exclusions(std::int32_t own_pid, std::int32_t agent_pid, const std::string& agent_path,
                       std::string proc_root)
    : proc_root_(std::move(proc_root)), own_pid_(own_pid) {
  processes_[kOwnName] = Enter(own_pid);
  SetAgent(agent_pid, AgentName(agent_path));
}

Exclusions::Process Exclusions::Enter(std::int32_t pid) const {
  return {.pid = pid, .start = common::util::ReadStartSinceBoot(pid, proc_root_), .program = ReadProgram(pid)};
}

std::optional<Exclusions::Program> Exclusions::ReadProgram(std::int32_t pid) const {
  const std::string link = proc_root_ + "/" + std::to_string(pid) + "/exe";
  struct stat file {};
  std::array<char, PATH_MAX> path{};
  if (stat(link.c_str(), &file) != 0) return std::nullopt;
  const ssize_t length = readlink(link.c_str(), path.data(), path.size());
  if (length <= 0) return std::nullopt;
  return Program{file.st_dev, file.st_ino, std::string(path.data(), static_cast<std::size_t>(length))};
}

bool Exclusions::IsStill(Process& process) const {
  const auto start = common::util::ReadStartSinceBoot(process.pid, proc_root_);
  if (!start || start != process.start) return false;
  const std::optional<Program> program = ReadProgram(process.pid);
  if (!program || !process.program) return true;
  if (program->device == process.program->device && program->inode == process.program->inode) return true;
  // An agent that was updated starts itself anew: what stands at its path for this process, too, and is root's.
  struct stat named {};
  const bool is_next_version = program->path == process.program->path && stat(program->path.c_str(), &named) == 0 &&
                               named.st_dev == program->device && named.st_ino == program->inode &&
                               common::util::IsRootsAlone(named);
  if (is_next_version) process.program = program;
  return is_next_version;
}

void Exclusions::SetAgent(std::int32_t pid, const std::string& name) {
  const Process agent = Enter(pid);
  if (pid < 1) ZLOG_ERROR("Failed to create exclusion rule for pid " << pid);
  agent_name_ = name;
  // One that has gone already: whoever gets its pid is heard.
  const bool is_gone = pid < 1 || (!agent.start && processes_.at(kOwnName).start);
  agent_pid_ = is_gone ? 0 : pid;
  if (!is_gone) processes_[name] = agent;
  CollectPids();
}

void Exclusions::CollectPids() {
  excluded_pids_.clear();
  if (agent_pid_ != 0) excluded_pids_.insert(agent_pid_);
  for (const auto& [name, process] : processes_) excluded_pids_.insert(process.pid);
}

bool Exclusions::IsReservedKey(const std::string& key) {
  return key.starts_with(kIgnoreKeyPrefix) || key.starts_with(kExitKeyPrefix) || key == kThreadKey;
}

void Exclusions::DeleteAll(AuditSocket& socket) {
  std::vector<AuditRule> listed = socket.GetRulesFromAudit();
  for (AuditRule& rule : listed) {
    const std::string key = rule.GetKey();
    if (!IsReservedKey(key)) continue;
    const int error = socket.Delete(rule);
    if (error == 0) {
      ZLOG_DEBUG("RuleEngine::DeleteExclusionRules: Deleted old rule " << key);
    } else {
      ZLOG_ERROR("Failed to delete exclusion rule " << key << ": " << ErrnoText(error));
    }
  }
  DeleteMessageTypeExclusions(socket, listed);
}

void Exclusions::AddAll(AuditSocket& socket) {
  for (auto& [name, process] : processes_) process.is_installed = false;
  has_message_types_ = false;
  has_threads_ = false;
  AddMissing(socket, Priority::PRIO_ERROR);
}

void Exclusions::AddMissing(AuditSocket& socket, Priority priority) {
  const std::vector<AuditRule> listed = socket.GetRulesFromAudit();
  for (auto& [name, process] : processes_) {
    if (process.is_installed) continue;
    process.is_installed = AddExclusionRules(socket, listed, name, process.pid, priority);
  }
  if (!has_message_types_) has_message_types_ = AddMessageTypeExclusions(socket, priority);
  if (!has_threads_) has_threads_ = AddThreadExclusion(socket, priority);
}

bool Exclusions::IsComplete() const {
  return has_message_types_ && has_threads_ &&
         std::all_of(processes_.begin(), processes_.end(), [](const auto& entry) { return entry.second.is_installed; });
}

void Exclusions::Renew(AuditSocket& socket) {
  RemoveEnded(socket);
  if (IsComplete()) return;
  AddMissing(socket, Priority::PRIO_DEBUG);
  if (IsComplete()) ZLOG_INFO("All exclusion rules are in force now");
}

void Exclusions::Add(AuditSocket& socket, const std::string& name, std::int32_t pid, std::int64_t start) {
  const Process process = Enter(pid);
  if (process.start != start || Contains(name)) return;
  processes_[name] = process;
  CollectPids();
  AddMissing(socket, Priority::PRIO_ERROR);
}

std::set<std::int32_t> Exclusions::GetAgentPids() const {
  std::set<std::int32_t> pids = {own_pid_};
  if (agent_pid_ != 0) pids.insert(agent_pid_);
  return pids;
}

std::map<std::int32_t, std::int64_t> Exclusions::GetStarts() const {
  std::map<std::int32_t, std::int64_t> starts;
  for (const auto& [name, process] : processes_) {
    if (process.pid != own_pid_ && process.start) starts.emplace(process.pid, *process.start);
  }
  return starts;
}

bool Exclusions::End(std::int32_t pid) {
  if (pid == own_pid_ || excluded_pids_.count(pid) == 0) return false;
  for (auto entry = processes_.begin(); entry != processes_.end();) {
    const auto& [name, process] = *entry;
    if (process.pid != pid) {
      ++entry;
      continue;
    }
    ZLOG_DEBUG("The excluded process " << name << " (" << pid << ") has ended");
    ended_.insert(name);
    entry = processes_.erase(entry);
  }
  if (agent_pid_ == pid) agent_pid_ = 0;
  CollectPids();
  return true;
}

bool Exclusions::HasGone(Process& process) const {
  const auto knows_processes = [this] { return common::util::ReadStartSinceBoot(own_pid_, proc_root_).has_value(); };
  return process.pid != own_pid_ && !IsStill(process) && knows_processes();
}

bool Exclusions::EndMissing() {
  std::vector<std::int32_t> missing;
  for (auto& [name, process] : processes_) {
    if (HasGone(process)) missing.push_back(process.pid);
  }
  for (const std::int32_t pid : missing) End(pid);
  return !ended_.empty();
}

bool Exclusions::EndIfMissing(const std::string& name) {
  const auto entry = processes_.find(name);
  return entry != processes_.end() && HasGone(entry->second) && End(entry->second.pid);
}

void Exclusions::RemoveEnded(AuditSocket& socket) {
  std::erase_if(ended_, [&](const std::string& name) {
    const auto successor = processes_.find(name);
    const bool is_kept = successor != processes_.end() && successor->second.is_installed;
    return DeleteProcess(socket, name, is_kept ? std::optional(successor->second.pid) : std::nullopt);
  });
}

bool Exclusions::IsAgent(std::int32_t pid, const std::string& path) const {
  return std::max(pid, 0) == agent_pid_ && AgentName(path) == agent_name_;
}

bool Exclusions::NeedsUpdate(std::int32_t agent_pid, const std::string& agent_path) const {
  return !IsAgent(agent_pid, agent_path) || !IsComplete();
}

void Exclusions::Update(AuditSocket& socket, std::int32_t agent_pid, const std::string& agent_path) {
  if (!IsAgent(agent_pid, agent_path)) {
    // One of the family may go by the name that is the agent's from now on.
    for (const std::string& name : {agent_name_, AgentName(agent_path)}) {
      if (processes_.erase(name) != 0) ended_.insert(name);
    }
    SetAgent(agent_pid, AgentName(agent_path));
  }
  RemoveEnded(socket);
  AddMissing(socket, Priority::PRIO_ERROR);
}

}  // namespace zagent::audit::internal

#include <charconv>
#include <exception>
#include <queue>

#include "common/src/storage/SqlException.h"
#include "common/src/util/Log.h"
#include "src/edr/process/PseudoTerminateEvent.h"
#include "src/ioc/config/LogPrefix.h"
#include "src/ioc/process/ProcessTags.h"
#include "src/ioc/process/SnapshotSqlDataFormatter.h"
#include "src/ioc/process/TtlProcessTree.h"

// What outlives a restart.
namespace zagent::ioc {
namespace {

namespace process_tag = internal::process_tag;
using internal::models::SnapshotDBTtlProcess;

constexpr std::int32_t kInit = 1;
constexpr const char* kTable = internal::SnapshotSqlDataFormatter::kTtlProcesses;

int CodeOf(const common::StorageException& error) {
  const auto* refusal = dynamic_cast<const common::SqlException*>(&error);
  return refusal != nullptr ? refusal->SqliteCode() : error.Code();
}

std::map<std::int32_t, SnapshotDBTtlProcess> ReadSaved(common::SqlStorage& snapshot) {
  common::SqlRowIterator rows;
  try {
    rows = snapshot.ReadAll(kTable);
  } catch (const common::StorageException& error) {
    throw std::runtime_error(std::string("Error reading ") + kTable +
                             " table while cleaning up: " + std::to_string(CodeOf(error)));
  }
  std::map<std::int32_t, SnapshotDBTtlProcess> saved;
  std::size_t deformed = 0;
  for (common::Bytes row = rows.Next(); !row.empty(); row = rows.Next()) {
    try {
      SnapshotDBTtlProcess process(row);
      saved.emplace(process.process_id, std::move(process));
    } catch (const std::out_of_range& error) {
      if (deformed++ == 0) ZLOG_ERROR("A process is deformed in db: " << error.what());
    }
  }
  return saved;
}

// When the process started its program: the row has a column for the start of the process alone.
std::optional<std::int64_t> ProgramStartOf(const SnapshotDBTtlProcess& saved) {
  for (const auto& [key, value] : saved.tags) {
    if (key != process_tag::kProgramStart) continue;
    std::int64_t start = 0;
    const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), start);
    if (error == std::errc() && end == value.data() + value.size()) return start;
  }
  return std::nullopt;
}

void ClearSaved(common::SqlStorage& snapshot) {
  try {
    snapshot.Clear(kTable);
    ZLOG_INFO("Successfully cleared " << kTable << " table from sql storage");
  } catch (const std::exception& error) {
    ZLOG_ERROR("Failed to clear " << kTable << " table: " << error.what());
  }
}

}  // namespace

void TtlProcessTree::Load() {
  ZLOG_INFO("Loading up processes from " << kTable << " table.");
  const std::map<std::int32_t, SnapshotDBTtlProcess> saved = ReadSaved(*snapshot_);
  ZLOG_DEBUG("Adding processes to Ttl Process Tree");
  std::set<std::int32_t> seen{kInit};
  std::queue<std::pair<std::int32_t, std::int32_t>> walk;  // with the parent
  if (saved.count(kInit) != 0) walk.emplace(kInit, common::ProcessInfo::kNoParent);
  while (!walk.empty()) {
    const auto [pid, parent] = walk.front();
    walk.pop();
    const auto found = saved.find(pid);
    if (found == saved.end()) {
      ZLOG_DEBUG("PID: " << pid << " not found in process map.");
      continue;
    }
    if (!Restore(found->second, parent)) break;
    for (const std::int32_t child : found->second.children) {
      if (seen.insert(child).second) walk.emplace(child, pid);
    }
  }
  ClearSaved(*snapshot_);
}

// False after a reboot: none of those that were saved is there any more.
bool TtlProcessTree::Restore(const SnapshotDBTtlProcess& saved, std::int32_t parent) {
  const std::int32_t pid = saved.process_id;
  const auto start = live_.FindStart(pid);
  const auto start_since_epoch = start ? live_.ToEpoch(*start) : std::nullopt;
  const bool is_alive =
      start_since_epoch && internal::LiveProcesses::IsSameStart(saved.creation_time, *start_since_epoch);
  if (!is_alive && start_since_epoch) {
    ZLOG_DEBUG("ProcessID: " << pid << " creation time from SnapshotDB differs with Proc creation time");
  } else if (!is_alive) {
    ZLOG_DEBUG("Start time for PID: " << pid << " Process: " << saved.image.file_path
                                      << " differs from stored start time.");
  }
  if (!is_alive && pid == kInit) {
    ZLOG_INFO("System reboot detected. Clearing the TtlProcessTree.");
    return false;
  }
  ProcessInfo::Description known = saved.ToDescription();
  known.creation_time = ProgramStartOf(saved).value_or(known.creation_time);
  const auto process = std::make_shared<ProcessInfo>(std::move(known), on_cache_full_);
  for (const auto& [key, value] : saved.tags) {
    // Those of a run, which nobody saves, would keep it for ever.
    if (key == process_tag::kProgramStart || key == process_tag::kTerminated || key == process_tag::kTtlExpired) {
      continue;
    }
    process->AddTag(key, value);
  }
  process->AddScore(saved.score);
  process->SetStartSinceBoot(is_alive ? start : std::nullopt);
  Enter(process, parent);
  if (!is_alive) {
    AddEvent(std::make_unique<edr::PseudoTerminateEvent>(*process, clock_));
  } else if (pid != kInit) {
    untold_.emplace(pid, Untold{.is_reported = true});
  }
  return true;
}

void TtlProcessTree::Save() {
  ZLOG_INFO("Saving Ttl Process Tree to db");
  live_.ForgetBootTime();
  std::vector<SnapshotDBTtlProcess> processes = RowsToSave();
  common::SqlStorage::Rows rows;
  rows.reserve(processes.size());
  for (SnapshotDBTtlProcess& process : processes) {
    rows.emplace_back(std::to_string(process.process_id), process.ToRow());
    process = {};  // there may be many
  }
  snapshot_->Replace(kTable, rows);
}

// Whose end was told is left out, or the next run would tell it again; those below it go under process 1.
std::vector<SnapshotDBTtlProcess> TtlProcessTree::RowsToSave() {
  std::vector<SnapshotDBTtlProcess> rows;
  std::unordered_set<std::int32_t> seen{kInit};
  std::queue<std::pair<Pointer, std::size_t>> walk;  // with the parent's row
  walk.emplace(Get(kInit), 0);
  while (!walk.empty()) {
    const auto [process, parent] = std::move(walk.front());
    walk.pop();
    const std::int32_t pid = process->GetPid();
    const bool is_told = pid != kInit && process->HasTag(process_tag::kTerminated) && !process->HasEvents();
    for (const char* tag : {process_tag::kTerminated, process_tag::kTtlExpired}) {
      if (process->HasTag(tag)) process->RemoveTag(tag);
    }
    SnapshotDBTtlProcess row(*process);
    const std::size_t place = is_told ? 0 : rows.size();
    for (const std::int32_t child : std::exchange(row.children, {})) {
      Pointer found = seen.insert(child).second ? Find(child) : nullptr;
      if (found) walk.emplace(std::move(found), place);
    }
    if (is_told) continue;
    row.creation_time = StartToSave(*process);
    if (row.creation_time != process->GetCreationTime()) {
      row.tags.emplace_back(process_tag::kProgramStart, std::to_string(process->GetCreationTime()));
    }
    if (pid != kInit) {
      row.parent = rows[parent].process_id;
      rows[parent].children.push_back(pid);
    }
    rows.push_back(std::move(row));
  }
  return rows;
}

// The next run compares it with procfs, which tells when the process was made and not when it started its program, and
// by the clock as it is set now.
std::int64_t TtlProcessTree::StartToSave(const ProcessInfo& process) {
  const auto start = process.GetStartSinceBoot();
  if (!start || live_.FindStart(process.GetPid()) != start) return process.GetCreationTime();
  return live_.ToEpoch(*start).value_or(process.GetCreationTime());
}

}  // namespace zagent::ioc

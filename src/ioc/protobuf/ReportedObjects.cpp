#include "src/ioc/protobuf/ReportedObjects.h"

#include <functional>
#include <optional>
#include <vector>

#include "common/src/storage/SqlStorage.h"
#include "common/src/util/Log.h"
#include "src/ioc/config/LogPrefix.h"
#include "src/ioc/process/SnapshotDBDirectory.h"
#include "src/ioc/process/SnapshotDBFile.h"
#include "src/ioc/process/SnapshotSqlDataFormatter.h"

namespace zagent::ioc::internal::protobuf {
namespace {

using Table = ReportedObjects::Table;

const char* NameOf(Table table) {
  return table == Table::Directory ? SnapshotSqlDataFormatter::kDirectory : SnapshotSqlDataFormatter::kFile;
}

template <typename Row>
void SetTimes(const ReportedObjects::Times& times, Row& row) {
  row.creation_time = times.creation;
  row.last_write_time = times.write;
  row.last_access_time = times.access;
  row.last_change_time = times.change;
}

void LogFailure(Table table, const std::string& path, std::size_t others) {
  std::string more;
  if (others != 0) more = " and " + std::to_string(others) + " more";
  if (table == Table::Directory) {
    ZLOG_ERROR("Failed to update 'Directory' table in snapshot for " << path << more);
  } else {
    ZLOG_ERROR("Failed to update 'File' table in snapshot DB for file " << path << more);
  }
}

}  // namespace

// Waiting changes by table and id, a later one in the place of an earlier one. Thread-safe.
struct ReportedObjects::Queue : std::enable_shared_from_this<Queue> {
  struct Waiting {
    common::Bytes row;
    std::string path;
  };
  using Changes = std::map<std::pair<Table, std::string>, Waiting>;

  explicit Queue(common::SqlStorage& storage) : snapshot(storage) {}

  // Hands over what waits; while something is under way only `at_once`, and then that with it, a second time.
  void Send(bool at_once) {
    {
      const std::lock_guard in_order(hand_over);
      {
        const std::lock_guard lock(mutex);
        if ((under_way != 0 && !at_once) || waiting.empty()) return;
        for (auto& [key, change] : waiting) sending[key] = std::move(change);
        waiting.clear();
        under_way += 1;  // until all of it was handed over
      }
      for (const Table table : {Table::Directory, Table::File}) Send(table, sending);
    }
    Done();
  }

  void Send(Table table, const Changes& changes) {
    common::SqlStorage::Rows rows;
    std::vector<std::string> keys;
    std::string first_written;
    std::string first_deleted;
    for (const auto& [key, change] : changes) {
      if (key.first != table) continue;
      if (change.row.empty()) {
        if (keys.empty()) first_deleted = change.path;
        keys.push_back(key.second);
      } else {
        if (rows.empty()) first_written = change.path;
        rows.emplace_back(key.second, change.row);
      }
    }
    if (!rows.empty()) snapshot.WriteAsync(NameOf(table), rows, Callback(table, first_written, rows.size()));
    if (!keys.empty()) snapshot.DeleteAsync(NameOf(table), keys, Callback(table, first_deleted, keys.size()));
  }

  std::function<void(const common::SqlStorage::Result&)> Callback(Table table, const std::string& first,
                                                                  std::size_t count) {
    {
      const std::lock_guard lock(mutex);
      under_way += 1;
    }
    return [self = shared_from_this(), table, first, count](const common::SqlStorage::Result& result) {
      if (!result.succeeded) LogFailure(table, first, count - 1);
      self->Done();
    };
  }

  void Done() {
    {
      const std::lock_guard lock(mutex);
      if (--under_way != 0) return;
      sending.clear();
    }
    Send(false);
  }

  // Nothing when the snapshot has the answer.
  std::optional<bool> Has(Table table, const std::string& id) {
    const std::lock_guard lock(mutex);
    for (const Changes* changes : {&waiting, &sending}) {
      const auto found = changes->find({table, id});
      if (found != changes->end()) return !found->second.row.empty();
    }
    return std::nullopt;
  }

  common::SqlStorage& snapshot;
  std::mutex hand_over;  // before mutex
  std::mutex mutex;
  Changes waiting;
  Changes sending;  // until it is on disk; stays as it is while something is under way
  std::size_t under_way = 0;
};

ReportedObjects::ReportedObjects(common::SqlStorage& snapshot)
    : snapshot_(snapshot), queue_(std::make_shared<Queue>(snapshot)) {}

ReportedObjects::~ReportedObjects() {
  queue_->Send(true);
}

bool ReportedObjects::Has(Table table, const std::string& id) const {
  if (const std::optional<bool> has = queue_->Has(table, id)) return *has;
  return !snapshot_.Read(NameOf(table), id).empty();
}

void ReportedObjects::Apply(Change change) {
  {
    const std::lock_guard lock(queue_->mutex);
    const std::pair key(change.table, change.id);
    if (queue_->waiting.size() < kMaxWaiting || queue_->waiting.count(key) != 0) {
      queue_->waiting[key] = {std::move(change.row), std::move(change.path)};
      change.id.clear();
    }
  }
  if (!change.id.empty()) return LogFailure(change.table, change.path, 0);
  queue_->Send(false);
}

common::Bytes ReportedObjects::DirectoryRow(const std::string& id, const std::string& path, const Times& times) {
  models::SnapshotDBDirectory row;
  row.row_id = id;
  row.path = path;
  SetTimes(times, row);
  return row.ToRow();
}

common::Bytes ReportedObjects::FileRow(const std::string& id, const std::string& parent_id, std::int64_t size,
                                       const Times& times, const Digests& digests) {
  models::SnapshotDBFile row;
  row.row_id = id;
  row.parent_id = parent_id;
  row.size = size;
  SetTimes(times, row);
  row.md5 = digests.md5;
  row.sha1 = digests.sha1;
  row.sha256 = digests.sha256;
  return row.ToRow();
}

}  // namespace zagent::ioc::internal::protobuf

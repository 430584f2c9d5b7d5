#include "src/ioc/protobuf/ReportedObjects.h"

#include <iterator>
#include <limits>
#include <map>
#include <mutex>
#include <optional>
#include <utility>

#include "common/src/storage/Serializer.h"
#include "common/src/storage/SqlStorage.h"
#include "common/src/util/Log.h"
#include "src/ioc/config/LogPrefix.h"
#include "src/ioc/process/SnapshotDBDirectory.h"
#include "src/ioc/process/SnapshotDBFile.h"
#include "src/ioc/process/SnapshotSqlDataFormatter.h"

namespace zagent::ioc::internal::protobuf {
namespace {

using Table = ReportedObjects::Table;

constexpr std::size_t kCountInterval = 1'000;  // rows

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

// Changes by table and id, those of one id in the order in which they came. Thread-safe.
struct ReportedObjects::Queue : std::enable_shared_from_this<Queue> {
  using Key = std::pair<Table, std::string>;
  struct Waiting {
    common::Bytes row;
    std::string path;
  };
  using Changes = std::map<Key, Waiting>;

  Queue(common::SqlStorage& storage, std::int64_t rows, const common::util::Clock& of_waits)
      : snapshot(storage), max_rows(rows), clock(of_waits), handed_over(clock.SteadyNow()) {}

  std::uint64_t Expect(std::vector<Change> changes) {
    const std::lock_guard lock(mutex);
    const std::uint64_t number = ++last_number;
    for (Change& change : changes) {
      expected[{{change.table, std::move(change.id)}, number}] = {std::move(change.row), std::move(change.path)};
    }
    return number;
  }

  void OnAnswer(std::uint64_t number, const std::vector<Key>& keys, bool is_taken) {
    {
      const std::lock_guard lock(mutex);
      for (const Key& key : keys) {
        auto change = expected.extract({key, number});
        if (change && is_taken) Keep(key, std::move(change.mapped()));
      }
    }
    Send();
  }

  // In the place of an earlier one that waits. With mutex held.
  void Keep(const Key& key, Waiting change) {
    if (waiting.size() >= kMaxWaiting && waiting.count(key) == 0) {
      if (forgotten++ == 0) first_forgotten = {key.first, std::move(change.path)};
      return;
    }
    waiting[key] = std::move(change);
  }

  void Clear() {
    const std::lock_guard lock(mutex);
    expected.clear();
    waiting.clear();
    forgotten = 0;
  }

  // Nobody asks any more.
  void End() {
    {
      const std::lock_guard lock(mutex);
      ended = true;
    }
    Send();
  }

  // Whether what waits goes now. While something is under way only at the end, when nobody may be left to send the rest
  // behind it. With mutex held.
  [[nodiscard]] bool IsDue() const {
    if (waiting.empty() || (under_way != 0 && !ended)) return false;
    // Each further answer asks again.
    if (expected.empty() || waiting.size() >= kLot) return true;
    return under_way == 0 && clock.SteadyNow() - handed_over >= kLongestWait;
  }

  // Hands over what waits, when it is due.
  void Send() {
    Changes behind;  // what is under way
    std::size_t too_many = 0;
    std::pair<Table, std::string> first;
    {
      const std::lock_guard in_order(hand_over);
      {
        const std::lock_guard lock(mutex);
        if (!IsDue()) return;
        (under_way == 0 ? sending : behind).swap(waiting);
        under_way += 1;  // until all of it was handed over
        handed_over = clock.SteadyNow();
        too_many = std::exchange(forgotten, 0);
        first = first_forgotten;
      }
      const Changes& changes = behind.empty() ? sending : behind;
      for (const Table table : {Table::Directory, Table::File}) Send(table, changes);
    }
    if (too_many != 0) LogFailure(first.first, first.second, too_many - 1);
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
    if (!rows.empty()) snapshot.WriteAsync(NameOf(table), rows, Callback(table, first_written, rows.size(), true));
    if (!keys.empty()) snapshot.DeleteAsync(NameOf(table), keys, Callback(table, first_deleted, keys.size(), false));
  }

  std::function<void(const common::SqlStorage::Result&)> Callback(Table table, const std::string& first,
                                                                  std::size_t count, bool is_written) {
    {
      const std::lock_guard lock(mutex);
      under_way += 1;
    }
    return [self = shared_from_this(), table, first, count, is_written](const common::SqlStorage::Result& result) {
      if (!result.succeeded) {
        LogFailure(table, first, count - 1);
      } else if (is_written) {
        self->OnWritten(table, count);
      }
      self->Done();
    };
  }

  void Done() {
    {
      const std::lock_guard lock(mutex);
      if (--under_way != 0) return;
      sending.clear();
    }
    Send();
  }

  // On the snapshot's thread. Rows are counted now and then: SQLite walks the whole table for it.
  void OnWritten(Table table, std::size_t count) {
    std::size_t& written = table == Table::Directory ? written_directories : written_files;
    if (written != 0 && written < kCountInterval) {
      written += count;
      return;
    }
    written = count;
    try {
      const common::Bytes answer = snapshot.Query(SnapshotSqlDataFormatter::Count(NameOf(table))).Next();
      const std::int64_t too_many = common::Serializer(answer).GetInteger() - max_rows;
      if (too_many <= 0) return;
      snapshot.Execute(SnapshotSqlDataFormatter::DeleteOldest(NameOf(table), too_many));
      ZLOG_INFO("Forgot the " << too_many << " oldest rows of '" << NameOf(table) << "' in snapshot DB: at most "
                              << max_rows << " stay");
    } catch (const std::exception& error) {
      ZLOG_ERROR("Failed to bound '" << NameOf(table) << "' table in snapshot DB: " << error.what());
    }
  }

  // Nothing when the snapshot has the answer.
  std::optional<bool> Has(Table table, const std::string& id) {
    const std::lock_guard lock(mutex);
    const Key key(table, id);
    const auto behind = expected.upper_bound({key, std::numeric_limits<std::uint64_t>::max()});
    if (behind != expected.begin()) {
      const auto& [newest, change] = *std::prev(behind);
      if (newest.first == key) return !change.row.empty();
    }
    for (const Changes* changes : {&waiting, &sending}) {
      const auto found = changes->find(key);
      if (found != changes->end()) return !found->second.row.empty();
    }
    return std::nullopt;
  }

  common::SqlStorage& snapshot;
  const std::int64_t max_rows;
  std::mutex hand_over;  // before mutex
  std::mutex mutex;
  const common::util::Clock& clock;
  common::util::Clock::SteadyTime handed_over;
  std::map<std::pair<Key, std::uint64_t>, Waiting> expected;  // until the spool answers
  std::uint64_t last_number = 0;
  Changes waiting;
  Changes sending;  // until it is on disk; stays as it is while something is under way
  std::size_t under_way = 0;
  std::size_t forgotten = 0;  // at the bound, since the last hand-over
  std::pair<Table, std::string> first_forgotten;
  bool ended = false;
  // For the snapshot's thread: since the rows were counted; 0 when they never were.
  std::size_t written_directories = 0;
  std::size_t written_files = 0;
};

ReportedObjects::ReportedObjects(common::SqlStorage& snapshot, std::int64_t max_rows, const common::util::Clock& clock)
    : snapshot_(snapshot), queue_(std::make_shared<Queue>(snapshot, max_rows, clock)) {}

ReportedObjects::~ReportedObjects() {
  queue_->End();
}

bool ReportedObjects::Has(Table table, const std::string& id) const {
  if (const std::optional<bool> has = queue_->Has(table, id)) return *has;
  return !snapshot_.Read(NameOf(table), id).empty();
}

ReportedObjects::Answer ReportedObjects::Expect(std::vector<Change> changes) {
  if (changes.empty()) return [](bool /*is_taken*/) {};
  std::vector<Queue::Key> keys;
  keys.reserve(changes.size());
  for (const Change& change : changes) keys.emplace_back(change.table, change.id);
  const std::uint64_t number = queue_->Expect(std::move(changes));
  return [queue = queue_, number, keys = std::move(keys)](bool is_taken) { queue->OnAnswer(number, keys, is_taken); };
}

void ReportedObjects::Clear() {
  queue_->Clear();
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

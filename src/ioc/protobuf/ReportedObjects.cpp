#include "src/ioc/protobuf/ReportedObjects.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <unordered_map>
#include <utility>

#include "common/src/storage/Serializer.h"
#include "common/src/storage/SqlStorage.h"
#include "common/src/util/Log.h"
#include "src/edr/TextHash.h"
#include "src/ioc/config/LogPrefix.h"
#include "src/ioc/process/SnapshotDBDirectory.h"
#include "src/ioc/process/SnapshotDBFile.h"
#include "src/ioc/process/SnapshotSqlDataFormatter.h"

namespace zagent::ioc::internal::protobuf {
namespace {

using Table = ReportedObjects::Table;

constexpr std::size_t kCountInterval = 1'000;  // rows
constexpr std::size_t kAnswersAtOnce = 64;
constexpr std::size_t kMostAnswers = 4 * kAnswersAtOnce;  // while nobody expects more

const char* NameOf(Table table) {
  return table == Table::Directory ? SnapshotSqlDataFormatter::kDirectory : SnapshotSqlDataFormatter::kFile;
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
  struct Expected;
  struct Waiting {
    common::Bytes row;
    std::string path;
  };
  // What is not on disk yet of one object. There is none without anything of it.
  struct Pending {
    Table table;
    Expected* latest = nullptr;        // of the changes that the spool has not answered
    std::optional<Waiting> waiting{};  // what the spool has taken since
    std::optional<bool> sending{};     // until it is on disk: whether the object is there
    [[nodiscard]] bool IsEmpty() const { return latest == nullptr && !waiting && !sending; }
  };
  using Objects = std::unordered_map<std::string, Pending, edr::TextHash, std::equal_to<>>;  // by id
  using Object = Objects::value_type;
  // A change that the spool has not answered, between those of the same object before and behind it.
  struct Expected {
    Object* object;
    Expected* earlier;
    Expected* later;
    Waiting change;
  };

  Queue(common::SqlStorage& storage, std::int64_t rows, const common::util::Clock& of_waits)
      : snapshot(storage), max_rows(rows), clock(of_waits), handed_over(clock.SteadyNow()) {}

  Objects& ObjectsOf(Table table) { return table == Table::Directory ? directories : files; }

  std::uint64_t Expect(std::vector<Change> changes) {
    bool is_due = false;
    std::uint64_t number = 0;
    {
      const std::lock_guard lock(mutex);
      is_due = TakeAnswers(kAnswersAtOnce) && IsDue();
      std::vector<Expected> message;
      message.reserve(changes.size());
      for (Change& change : changes) {
        Object& object = *ObjectsOf(change.table).try_emplace(std::move(change.id), Pending{change.table}).first;
        message.emplace_back(&object, nullptr, nullptr, Waiting{std::move(change.row), std::move(change.path)});
      }
      expected.push_back(std::move(message));
      ++unanswered;
      number = first_expected + expected.size() - 1;
      for (Expected& change : expected.back()) {
        Expected*& latest = change.object->second.latest;
        change.earlier = latest;
        if (latest != nullptr) latest->later = &change;
        latest = &change;
      }
    }
    if (is_due) Send();
    return number;
  }

  // In a burst whoever expects the next changes takes in the answers to those before: the two threads hardly wait for
  // each other then, and what was made for a change is destroyed where it was made.
  void OnAnswer(std::uint64_t number, bool is_taken) {
    {
      const std::lock_guard lock(answers_mutex);
      answers.push_back({number, is_taken});
      if (is_taken && answers.size() < std::min<std::size_t>(unanswered, kMostAnswers)) return;
    }
    {
      const std::lock_guard lock(mutex);
      TakeAnswers(1);
      if (!IsDue()) return;
    }
    Send();
  }

  // If there are so many. With mutex held.
  bool TakeAnswers(std::size_t at_least) {
    taken_answers.clear();
    {
      const std::lock_guard lock(answers_mutex);
      if (answers.size() < at_least) return false;
      taken_answers.swap(answers);
    }
    for (const auto& [number, is_taken] : taken_answers) {
      if (number < first_expected) continue;  // cleared since
      std::vector<Expected>& message = expected[number - first_expected];
      if (message.empty()) continue;  // it has been answered
      for (Expected& change : message) Take(change, is_taken);
      message.clear();
      --unanswered;
      // Nearly always that one: the spool takes them in order, and refuses some before.
      for (; !expected.empty() && expected.front().empty(); expected.pop_front()) ++first_expected;
    }
    return true;
  }

  // With mutex held.
  void Take(Expected& expected_change, bool is_taken) {
    auto& [object, earlier, later, change] = expected_change;
    (later != nullptr ? later->earlier : object->second.latest) = earlier;
    if (earlier != nullptr) earlier->later = later;
    if (is_taken) Keep(*object, std::move(change));
    EraseIfEmpty(*object);
  }

  // In the place of an earlier one that waits. With mutex held.
  void Keep(Object& object, Waiting change) {
    if (!object.second.waiting) {
      if (waiting.size() >= kMaxWaiting) {
        if (forgotten++ == 0) first_forgotten = {object.second.table, std::move(change.path)};
        return;
      }
      waiting.push_back(&object);
    }
    object.second.waiting = std::move(change);
  }

  // With mutex held.
  void EraseIfEmpty(const Object& object) {
    if (!object.second.IsEmpty()) return;
    Objects& objects = ObjectsOf(object.second.table);
    objects.erase(objects.find(object.first));
  }

  // What is under way stays until it is on disk.
  void Clear() {
    const std::lock_guard lock(mutex);
    first_expected += expected.size();
    expected.clear();
    unanswered = 0;
    waiting.clear();
    forgotten = 0;
    for (Objects* const objects : {&directories, &files}) {
      for (auto& [id, pending] : *objects) {
        pending.latest = nullptr;
        pending.waiting.reset();
      }
      std::erase_if(*objects, [](const Object& object) { return object.second.IsEmpty(); });
    }
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
    if (waiting.size() >= kLot || (ended && expected.empty())) return true;
    // Each further answer asks again.
    const auto now = clock.SteadyNow();
    if (expected.empty()) return now + kLongestWait >= paid_until;
    return under_way == 0 && now - handed_over >= kLongestWait;
  }

  // Changes of one table that go to the disk together, in the order in which the objects came.
  struct Lot {
    common::SqlStorage::Rows rows;
    std::string first_written;  // its path
    std::vector<std::string> keys;
    std::string first_deleted;  // likewise
  };

  // Hands over what waits, when it is due.
  void Send() {
    std::array<Lot, 2> lots;
    std::size_t too_many = 0;
    std::pair<Table, std::string> first;
    {
      const std::lock_guard in_order(hand_over);
      {
        const std::lock_guard lock(mutex);
        TakeAnswers(1);
        if (!IsDue()) return;
        TakeWaiting(lots);
        under_way += 1;  // until all of it was handed over
        handed_over = clock.SteadyNow();
        paid_until = std::max(paid_until, handed_over) + kPause;
        too_many = std::exchange(forgotten, 0);
        first = first_forgotten;
      }
      Send(Table::Directory, lots[0]);
      Send(Table::File, lots[1]);
    }
    if (too_many != 0) LogFailure(first.first, first.second, too_many - 1);
    Done();
  }

  // Behind another lot nobody asks any more. With mutex held.
  void TakeWaiting(std::array<Lot, 2>& lots) {
    for (Object* const object : waiting) {
      auto& [id, pending] = *object;
      Waiting change = std::move(*pending.waiting);
      pending.waiting.reset();
      Lot& lot = lots[pending.table == Table::Directory ? 0 : 1];
      const bool is_there = !change.row.empty();
      if (is_there) {
        if (lot.rows.empty()) lot.first_written = std::move(change.path);
        lot.rows.emplace_back(id, std::move(change.row));
      } else {
        if (lot.keys.empty()) lot.first_deleted = std::move(change.path);
        lot.keys.push_back(id);
      }
      if (under_way == 0) {
        pending.sending = is_there;
        sending.push_back(object);
      }
      EraseIfEmpty(*object);
    }
    waiting.clear();
  }

  void Send(Table table, const Lot& lot) {
    if (!lot.rows.empty()) {
      snapshot.WriteAsync(NameOf(table), lot.rows, Callback(table, lot.first_written, lot.rows.size(), true));
    }
    if (!lot.keys.empty()) {
      snapshot.DeleteAsync(NameOf(table), lot.keys, Callback(table, lot.first_deleted, lot.keys.size(), false));
    }
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
      for (Object* const object : sending) {
        object->second.sending.reset();
        EraseIfEmpty(*object);
      }
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
    const Objects& objects = ObjectsOf(table);
    const auto found = objects.find(id);
    if (found == objects.end()) return std::nullopt;
    const Pending& pending = found->second;
    if (pending.latest != nullptr) return !pending.latest->change.row.empty();
    return pending.waiting ? !pending.waiting->row.empty() : *pending.sending;
  }

  common::SqlStorage& snapshot;
  const std::int64_t max_rows;
  std::mutex hand_over;  // before mutex
  std::mutex mutex;
  const common::util::Clock& clock;
  common::util::Clock::SteadyTime handed_over;
  common::util::Clock::SteadyTime paid_until{};  // each lot pays for a pause, and may do so a while behind
  Objects directories;
  Objects files;
  // The changes of the messages that the spool has not answered, from the first of them on; none for one behind it that
  // was answered before it.
  std::deque<std::vector<Expected>> expected;
  std::uint64_t first_expected = 1;
  std::atomic<std::size_t> unanswered{0};  // messages, their answers not taken in; changes under mutex
  struct GivenAnswer {
    std::uint64_t number;
    bool is_taken;
  };
  std::mutex answers_mutex;          // behind mutex
  std::vector<GivenAnswer> answers;  // that nobody has taken in yet
  std::vector<GivenAnswer> taken_answers;
  std::vector<Object*> waiting;  // in the order in which they came
  std::vector<Object*> sending;  // stays as it is while something is under way
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
  return snapshot_.Has(NameOf(table), id);
}

ReportedObjects::Answer ReportedObjects::Expect(std::vector<Change> changes) {
  if (changes.empty()) return {};
  const std::uint64_t number = queue_->Expect(std::move(changes));
  return {queue_, number};
}

void ReportedObjects::Answer::operator()(bool is_taken) const {
  if (queue_ != nullptr) queue_->OnAnswer(number_, is_taken);
}

void ReportedObjects::HandOverWhatIsDue() {
  queue_->Send();
}

void ReportedObjects::Clear() {
  queue_->Clear();
}

common::Bytes ReportedObjects::DirectoryRow(const std::string& id, const std::string& path, const Times& times) {
  models::SnapshotDBDirectory row;
  row.row_id = id;
  row.path = path;
  row.creation_time = times.creation;
  row.last_write_time = times.write;
  row.last_access_time = times.access;
  row.last_change_time = times.change;
  return row.ToRow();
}

common::Bytes ReportedObjects::FileRow(const std::string& id, const std::string& parent_id, std::int64_t size,
                                       const Times& times, const Digests& digests) {
  return models::SnapshotDBFile::ToRow({id, parent_id, size, times.creation, times.write, times.access, times.change,
                                        digests.md5, digests.sha1, digests.sha256});
}

}  // namespace zagent::ioc::internal::protobuf

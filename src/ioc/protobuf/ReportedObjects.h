#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "common/src/storage/StorageResult.h"
#include "common/src/util/Clock.h"

namespace zagent::common {
class SqlStorage;
}

namespace zagent::ioc::internal::protobuf {

// The files and directories that the platform was told of, as rows of the tables "File" and "Directory" of the snapshot
// by their unique ids.
//
// A change counts from the moment on in which its message goes to the spool, and is forgotten again when the spool
// refuses that. Changes wait in memory while others are being written, and in a burst for the spool's next answers, a
// second at the most, and then go together: many cost the disk one transaction, the same object of a burst costs it one
// row, and nobody waits for it. Behind ten lots in a row there are ten a second: what comes then waits for a later
// answer or for HandOverWhatIsDue.
//
// Bounds: the changes whose messages the spool has not answered are as many as those. Up to 256 answers wait until they
// are taken in: by the next change that finds 64 of them, HandOverWhatIsDue, a refusal, the last answer of all or the
// end of a lot. At most kMaxWaiting wait for the disk; what comes beyond, and what the disk refuses, is forgotten with
// an Error line for each lot. Of each table at most kMaxRows rows (and those of the last lots) stay on disk: those that
// were told the longest ago go first, with an Information line. The platform is told of a directory again then, and not
// of the end of a file.
class ReportedObjects {
 public:
  static constexpr std::size_t kMaxWaiting = 20'000;
  static constexpr std::int64_t kMaxRows = 200'000;
  static constexpr std::size_t kLot = 5'000;  // changes that wait for no further answers
  static constexpr std::chrono::seconds kLongestWait{1};
  static constexpr std::chrono::milliseconds kPause{100};  // between lots, but for the first that follow each other

  enum class Table : std::uint8_t { Directory, File };
  struct Change {
    Table table;
    std::string id;
    common::Bytes row;  // empty: the object is gone
    std::string path;   // for the log
  };
  // What has become of a message, told once, from any thread, also when the ReportedObjects have gone.
  class Answer;

  // The snapshot, which runs on a Scheduler, and the clock outlive the object and all answers. `max_rows` is for tests.
  explicit ReportedObjects(common::SqlStorage& snapshot, std::int64_t max_rows = kMaxRows,
                           const common::util::Clock& clock = common::util::Clock::Real());
  ReportedObjects(const ReportedObjects&) = delete;
  ReportedObjects& operator=(const ReportedObjects&) = delete;
  // What waits is handed to the snapshot, with the spool's last answer at the latest.
  ~ReportedObjects();

  // Whether the platform knows the object. Throws common::StorageException when the snapshot cannot say.
  [[nodiscard]] bool Has(Table table, const std::string& id) const;
  // What the platform knows by a message that is about to go to the spool.
  [[nodiscard]] Answer Expect(std::vector<Change> changes);
  // To be called again and again: what waits goes when its time has come and no answer has seen to it.
  void HandOverWhatIsDue();
  // Forgets what waits, and what is expected, whatever the spool answers. From any thread.
  void Clear();

  // Rows: times in nanoseconds since the epoch, digests in hexadecimal.
  struct Times {
    std::int64_t creation = 0;
    std::int64_t write = 0;
    std::int64_t access = 0;
    std::int64_t change = 0;
  };
  struct Digests {
    std::string_view md5;
    std::string_view sha1;
    std::string_view sha256;
  };
  [[nodiscard]] static common::Bytes DirectoryRow(const std::string& id, const std::string& path, const Times& times);
  [[nodiscard]] static common::Bytes FileRow(const std::string& id, const std::string& parent_id, std::int64_t size,
                                             const Times& times, const Digests& digests);

 private:
  struct Queue;

  common::SqlStorage& snapshot_;
  const std::shared_ptr<Queue> queue_;  // what runs on the threads of spool and snapshot shares it
};

class ReportedObjects::Answer {
 public:
  Answer() = default;  // of a message by which nothing is known
  Answer(std::shared_ptr<Queue> queue, std::uint64_t number) : queue_(std::move(queue)), number_(number) {}
  void operator()(bool is_taken) const;

 private:
  std::shared_ptr<Queue> queue_;
  std::uint64_t number_ = 0;
};

}  // namespace zagent::ioc::internal::protobuf

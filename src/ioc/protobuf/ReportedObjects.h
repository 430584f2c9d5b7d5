#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "common/src/storage/StorageResult.h"

namespace zagent::common {
class SqlStorage;
}

namespace zagent::ioc::internal::protobuf {

// The files and directories that the platform was told of, as rows of the tables "File" and "Directory" of the snapshot
// by their unique ids.
//
// Changes wait in memory while others are being written, and then go together, so that many cost the disk one
// transaction and nobody waits for it. What waits counts as written. At most kMaxWaiting changes wait; what comes
// beyond, and what the disk refuses, is forgotten with an Error line: the platform is told of a directory again then,
// and not of the end of a file.
class ReportedObjects {
 public:
  static constexpr std::size_t kMaxWaiting = 20'000;

  enum class Table : std::uint8_t { Directory, File };
  struct Change {
    Table table;
    std::string id;
    common::Bytes row;  // empty: the object is gone
    std::string path;   // for the log
  };

  // The snapshot, which runs on a Scheduler, outlives the object.
  explicit ReportedObjects(common::SqlStorage& snapshot);
  ReportedObjects(const ReportedObjects&) = delete;
  ReportedObjects& operator=(const ReportedObjects&) = delete;
  // What waits is handed to the snapshot.
  ~ReportedObjects();

  // Whether the platform knows the object. Throws common::StorageException when the snapshot cannot say.
  [[nodiscard]] bool Has(Table table, const std::string& id) const;
  void Apply(Change change);

  // Rows: times in nanoseconds since the epoch, digests in hexadecimal.
  struct Times {
    std::int64_t creation = 0;
    std::int64_t write = 0;
    std::int64_t access = 0;
    std::int64_t change = 0;
  };
  struct Digests {
    std::string md5;
    std::string sha1;
    std::string sha256;
  };
  [[nodiscard]] static common::Bytes DirectoryRow(const std::string& id, const std::string& path, const Times& times);
  [[nodiscard]] static common::Bytes FileRow(const std::string& id, const std::string& parent_id, std::int64_t size,
                                             const Times& times, const Digests& digests);

 private:
  struct Queue;

  common::SqlStorage& snapshot_;
  const std::shared_ptr<Queue> queue_;  // what runs on the snapshot's thread shares it
};

}  // namespace zagent::ioc::internal::protobuf

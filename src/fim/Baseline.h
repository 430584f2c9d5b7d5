#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

#include "common/src/storage/SqlStorage.h"
#include "common/src/util/Clock.h"

namespace zagent::fim::internal {

// Which files have had their baseline: a set in memory in front of a table on disk, so that a file has one baseline
// over restarts and kills. A question costs one look into memory, whatever the number of files.
//
// A baseline is on its way from Begin on. It is in the table once its document is in a file of the spool: a kill in
// between takes both, and the next run takes the baseline again. Where the spool drops the document, the next event
// does. When the spool's files are cleared, nobody knows which documents were in them and which were sent: all
// baselines are taken again. What a full spool drops stays known: to take all again would fill it further.
//
// Bounds: 200,000 paths and 64 MiB of them. Beyond that no path is taken any more, with one warning a day.
//
// The database is "BaselineEvents.db" of `directory` (mode 0600). One that is damaged, when it is opened or later, is
// set aside ("BaselineEvents.db.damaged") and begun anew: a second baseline is better than none. Rows that cannot be
// written cost a second baseline after the next start.
//
// Thread-safe. The mutex is held while rows are written, which waits for the disk.
class Baseline {
 public:
  static constexpr const char* kFileName = "BaselineEvents.db";
  struct Bounds {
    std::size_t paths = 200'000;
    std::size_t bytes = std::size_t{64} * 1024 * 1024;
  };

  // Throws what OpenSqlStorage throws: std::runtime_error when the folder or the database cannot be made or opened.
  explicit Baseline(const std::string& directory, common::util::Clock& clock = common::util::Clock::Real())
      : Baseline(directory, clock, Bounds{}) {}
  Baseline(const std::string& directory, common::util::Clock& clock, Bounds bounds);
  Baseline(const Baseline&) = delete;
  Baseline& operator=(const Baseline&) = delete;
  ~Baseline() = default;

  // Whether a baseline of the file is to be taken: false for one that is known or on its way, and for all that come at
  // the bound. What is to be taken is on its way from now on, until KeepFiled, GiveUp or GiveUpSpooled.
  [[nodiscard]] bool Begin(const std::string& path);
  // The spool holds the baseline of the file, whose content was read with this outcome.
  void NoteSpooled(const std::string& path, const std::string& content_status);
  // There is no baseline of the file: the next event wants one.
  void GiveUp(const std::string& path);
  // What NoteSpooled was told of so far is in files of the spool.
  void KeepFiled();
  // What NoteSpooled was told of since the last KeepFiled may be in no file and never will be: as GiveUp.
  void GiveUpSpooled();
  // The spool's files are about to go: what KeepFiled was told of, by earlier runs too, is wanted again. Where the rows
  // cannot be deleted, the next start counts it as known.
  void ForgetFiled();

  // Files that are known, or whose baseline is on its way.
  [[nodiscard]] std::size_t GetSize() const;
  // Of the paths.
  [[nodiscard]] std::size_t GetBytes() const;

 private:
  struct SpooledFile {
    std::string path;
    std::string content_status;
  };

  // With mutex_ held, or before anybody else knows the object:
  void Open();
  void Load();
  void BeginAnew(const std::string& reason);
  void WriteRows(const std::vector<SpooledFile>& files);
  // Makes a change of the table, in a new one when this one turns out to be damaged.
  void ChangeTable(const std::function<void()>& change);
  void Remember(std::unordered_set<std::string>& paths, std::string path);
  void Forget(std::unordered_set<std::string>& paths, const std::string& path);
  [[nodiscard]] bool HasRoomFor(const std::string& path) const;
  void WarnOnceADay();

  const std::string directory_;
  common::util::Clock& clock_;
  const Bounds bounds_;
  mutable std::mutex mutex_;
  std::unique_ptr<common::SqlStorage> storage_;  // null once a damaged one could not be replaced
  std::unordered_set<std::string> begun_;        // on their way to the spool
  std::unordered_set<std::string> known_;        // in the spool, or in the table
  std::size_t path_bytes_ = 0;                   // of both
  std::vector<SpooledFile> spooled_;             // no more than the spool's cache holds
  std::optional<common::util::Clock::SteadyTime> warned_;
};

}  // namespace zagent::fim::internal

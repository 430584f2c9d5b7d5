// What durable storage costs: the producer's share of a write into a spool, the spool's own time against plain writes
// and syncs of the same files, and a database's against the same statements by SQLite's own interface. The files lie in
// a folder of TMPDIR, on whatever disk that is.
//
//   storage_bench
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "bench/SqlBench.h"
#include "common/src/storage/SpoolStorage.h"
#include "common/src/tasks/Scheduler.h"
#include "common/src/util/Log.h"
#include "common/src/util/UniqueFd.h"

namespace {

using zagent::common::Bytes;
using zagent::common::DataFormatter;
using zagent::common::Scheduler;
using zagent::common::SpoolStorage;
using zagent::common::StorageCode;
using zagent::common::StorageResult;
using zagent::common::util::UniqueFd;
using SteadyClock = std::chrono::steady_clock;

constexpr std::size_t kItemSize = 512;
constexpr int kProducedItems = 50'000;  // as many as may wait for a disk, at 64 MiB with their tasks
constexpr std::size_t kFileSize = 100 * 1024;
constexpr int kFiles = 200;
constexpr int kRuns = 15;

double Microseconds(SteadyClock::duration duration) {
  return std::chrono::duration<double, std::micro>(duration).count();
}

// A folder that goes with its user.
class Folder {
 public:
  Folder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "ostrel-bench-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp");
    path_ = pattern;
  }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  ~Folder() { std::filesystem::remove_all(path_); }
  [[nodiscard]] const std::string& Path() const { return path_; }
  // Gives the disk the room of its files back; their names stay.
  void Empty() const {
    for (const auto& file : std::filesystem::directory_iterator(path_)) std::filesystem::resize_file(file.path(), 0);
  }

 private:
  std::string path_;
};

// A logger at the level that is shipped: what is logged below it costs what it costs in the daemon.
void InitLog(const std::string& folder) {
  const std::string config = folder + "/log.properties";
  std::ofstream(config) << "logging.loggers.root.channel = file\nlogging.loggers.root.level = information\n"
                        << "logging.channels.file.class = FileChannel\nlogging.channels.file.path = " << folder
                        << "/edr.log\n";
  zagent::common::util::Log::Init("edr", config);
}

// The least that a formatter can do, so that it does not count.
class JoiningFormatter final : public DataFormatter {
 public:
  void Append(const Bytes& data) override { held_.insert(held_.end(), data.begin(), data.end()); }
  Bytes Finish() override { return held_; }
  [[nodiscard]] std::size_t Size() const override { return held_.size(); }
  void Clear() override { held_.clear(); }

 private:
  Bytes held_;
};

struct Latency {
  double median = 0;
  double p999 = 0;
};

// One call after the other, as fast as they go, while the spool's thread works off what came before.
Latency MeasureProducer() {
  const Folder folder;
  Scheduler scheduler;
  scheduler.Start();
  SpoolStorage spool(scheduler, folder.Path(), "items", std::make_unique<JoiningFormatter>(), {1000, 600, 100});
  spool.Read();  // the thread is there
  std::vector<double> costs;
  costs.reserve(kProducedItems);
  std::atomic<int> refused{0};
  for (int i = 0; i < kProducedItems; ++i) {
    Bytes item(kItemSize, static_cast<unsigned char>(i));
    const auto begin = SteadyClock::now();
    spool.WriteAsync(std::move(item), [&refused](std::unique_ptr<StorageResult> result) {
      if (result->code != StorageCode::Success) ++refused;
    });
    costs.push_back(Microseconds(SteadyClock::now() - begin));
  }
  spool.Read();
  if (refused != 0) throw std::runtime_error("the spool refused " + std::to_string(refused) + " items");
  std::sort(costs.begin(), costs.end());
  return {costs[costs.size() / 2], costs[costs.size() * 999 / 1000]};
}

// Seconds from the first item to the last file, for items that just fill the files.
double MeasureSpool(const Folder& folder) {
  Scheduler scheduler;
  scheduler.Start();
  SpoolStorage spool(scheduler, folder.Path(), "items", std::make_unique<JoiningFormatter>(), {1000, 600, 100});
  spool.Read();
  std::atomic<int> files{0};
  const auto begin = SteadyClock::now();
  // The item that follows a full cache makes a file of it.
  for (std::size_t i = 0; i <= kFiles * kFileSize / kItemSize; ++i) {
    spool.WriteAsync(Bytes(kItemSize, 'x'), [&files](std::unique_ptr<StorageResult> result) {
      if (result->code == StorageCode::Success && !result->path.empty()) ++files;
    });
  }
  spool.Read();
  const double seconds = Microseconds(SteadyClock::now() - begin) / 1e6;
  if (files != kFiles) throw std::runtime_error("the spool wrote " + std::to_string(files) + " files");
  return seconds;
}

enum class Safe { Content, ContentAndName };

// The same files by hand; with their names they are as safe as the spool's.
double MeasurePlain(const Folder& folder, Safe safe) {
  const UniqueFd names(open(folder.Path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const Bytes payload(kFileSize, 'x');
  const auto begin = SteadyClock::now();
  for (int i = 1; i <= kFiles; ++i) {
    const std::string name = folder.Path() + "/items." + std::to_string(i);
    const UniqueFd file(open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (write(file.Get(), payload.data(), payload.size()) != static_cast<ssize_t>(payload.size()) ||
        fsync(file.Get()) != 0 || (safe == Safe::ContentAndName && fsync(names.Get()) != 0)) {
      throw std::runtime_error("plain write of " + name);
    }
  }
  return Microseconds(SteadyClock::now() - begin) / 1e6;
}

struct Seconds {
  double spool;
  double plain;
  double plain_without_names;
};

// Best of a few runs, all in turns, so that they meet the disk in the same moods. No file is deleted before the end: a
// file system that looks for a free inode behind many deleted ones would be measured instead.
Seconds MeasureFiles() {
  constexpr double kLongest = std::numeric_limits<double>::max();
  Seconds best{kLongest, kLongest, kLongest};
  std::deque<Folder> folders;
  const auto measure = [&folders](double& best_seconds, const auto& work) {
    const Folder& folder = folders.emplace_back();
    best_seconds = std::min(best_seconds, work(folder));
    folder.Empty();
  };
  for (int run = 0; run < kRuns; ++run) {
    measure(best.spool, MeasureSpool);
    measure(best.plain, [](const Folder& folder) { return MeasurePlain(folder, Safe::ContentAndName); });
    measure(best.plain_without_names, [](const Folder& folder) { return MeasurePlain(folder, Safe::Content); });
  }
  return best;
}

int Run() {
  const Folder log;
  InitLog(log.Path());
  const Latency producer = MeasureProducer();
  const Seconds files = MeasureFiles();
  std::printf("a producer's WriteAsync of %zu bytes     median %8.2f us   99.9 %% %8.2f us\n", kItemSize,
              producer.median, producer.p999);
  std::printf("%d files of %zu bytes through a spool   %8.3f s\n", kFiles, kFileSize, files.spool);
  std::printf("the same by plain writes and syncs      %8.3f s   the spool over it %.3f\n", files.plain,
              files.spool / files.plain);
  std::printf("without a sync of the folder            %8.3f s   the spool over it %.3f\n", files.plain_without_names,
              files.spool / files.plain_without_names);
  const Folder databases;
  const double sql_over_plain = zagent::bench::MeasureSqlOverPlain(databases.Path());
  std::printf("write_async_median_us=%.2f write_async_p999_us=%.2f spool_over_plain=%.3f sql_over_plain=%.3f\n",
              producer.median, producer.p999, files.spool / files.plain, sql_over_plain);
  return 0;
}

}  // namespace

int main() {
  try {
    return Run();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "storage_bench: %s\n", error.what());
    return 1;
  }
}

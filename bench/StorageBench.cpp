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
#include <filesystem>
#include <fstream>
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
constexpr int kFilesInRound = 10;
constexpr int kRounds = 400;

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
    names_ = UniqueFd(open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  ~Folder() { std::filesystem::remove_all(path_); }
  [[nodiscard]] const std::string& Path() const { return path_; }
  [[nodiscard]] int Descriptor() const { return names_.Get(); }
  // Gives the disk the room of its new files back, all at once; their names stay. A file system that looks for a free
  // inode behind many deleted ones would be measured else.
  void Empty() const {
    for (const auto& file : std::filesystem::directory_iterator(path_)) {
      if (file.file_size() != 0) std::filesystem::resize_file(file.path(), 0);
    }
    fsync(Descriptor());
  }

 private:
  std::string path_;
  UniqueFd names_;
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
  Bytes Finish() override {
    Bytes finished = std::exchange(held_, {});
    held_.reserve(finished.capacity());
    return finished;
  }
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

// A spool at work, in rounds.
class SpoolWay {
 public:
  SpoolWay() {
    scheduler_.Start();
    // The item that follows a full cache makes a file of it: with this one each round's last item does.
    spool_.Write(Bytes(kItemSize, 'x'));
  }

  // Seconds from the first item to the last file, for items that just fill the files. They are there before, as the
  // plain way's bytes are.
  double Measure() {
    std::vector<Bytes> items(kFilesInRound * kFileSize / kItemSize, Bytes(kItemSize, 'x'));
    std::atomic<int> files{0};
    const auto count = [&files](const StorageResult& result) {
      if (result.code == StorageCode::Success && !result.path.empty()) ++files;
    };
    const auto begin = SteadyClock::now();
    for (std::size_t i = 0; i + 1 < items.size(); ++i) {
      spool_.WriteAsync(std::move(items[i]), [count](std::unique_ptr<StorageResult> result) { count(*result); });
    }
    count(*spool_.Write(std::move(items.back())));
    const double seconds = Microseconds(SteadyClock::now() - begin) / 1e6;
    if (files != kFilesInRound) throw std::runtime_error("the spool wrote " + std::to_string(files) + " files");
    folder_.Empty();
    return seconds;
  }

 private:
  const Folder folder_;
  Scheduler scheduler_;
  SpoolStorage spool_{scheduler_, folder_.Path(), "items", std::make_unique<JoiningFormatter>(), {1000, 600, 100}};
};

enum class Safe { Content, ContentAndName };

// The same files by hand; with their names they are as safe as the spool's.
class PlainWay {
 public:
  explicit PlainWay(Safe safe) : safe_(safe) {}

  double Measure() {
    const auto begin = SteadyClock::now();
    for (int i = 0; i < kFilesInRound; ++i) {
      const std::string digits = std::to_string(++files_);
      const std::string name = folder_.Path() + "/items." + std::string(4 - digits.size(), '0') + digits;
      const UniqueFd file(open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
      if (write(file.Get(), payload_.data(), payload_.size()) != static_cast<ssize_t>(payload_.size()) ||
          fsync(file.Get()) != 0 || (safe_ == Safe::ContentAndName && fsync(folder_.Descriptor()) != 0)) {
        throw std::runtime_error("plain write of " + name);
      }
    }
    const double seconds = Microseconds(SteadyClock::now() - begin) / 1e6;
    folder_.Empty();
    return seconds;
  }

 private:
  const Safe safe_;
  const Folder folder_;
  const Bytes payload_ = Bytes(kFileSize, 'x');
  int files_ = 0;
};

double Median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

// Medians of the rounds: seconds, and what the spool takes of them over the plain way of the same round.
struct Files {
  double spool;
  double plain;
  double plain_without_names;
  double spool_over_plain;
  double spool_over_plain_without_names;
};

// A sync takes from a third of a millisecond to many of them, as the disk's other users have it, and its moods last
// for a second or so. So a round is short, its ways go to the disk one right after the other, each as often first as
// last, and what counts is the relation within a round: in the middle one of so many the moods of the disk cancel out,
// while sums are those of the few slowest rounds and the best of a few runs is a matter of luck.
Files MeasureFiles() {
  SpoolWay spool;
  PlainWay plain(Safe::ContentAndName);
  PlainWay plain_without_names(Safe::Content);
  std::vector<double> spools;
  std::vector<double> plains;
  std::vector<double> without_names;
  std::vector<double> relations;
  std::vector<double> relations_without_names;
  for (int round = 0; round < kRounds; ++round) {
    const bool spool_first = round % 2 == 0;
    if (spool_first) spools.push_back(spool.Measure());
    plains.push_back(plain.Measure());
    if (!spool_first) spools.push_back(spool.Measure());
    without_names.push_back(plain_without_names.Measure());
    relations.push_back(spools.back() / plains.back());
    relations_without_names.push_back(spools.back() / without_names.back());
  }
  return {Median(spools), Median(plains), Median(without_names), Median(relations), Median(relations_without_names)};
}

int Run() {
  const Folder log;
  InitLog(log.Path());
  const Latency producer = MeasureProducer();
  const Files files = MeasureFiles();
  std::printf("a producer's WriteAsync of %zu bytes     median %8.2f us   99.9 %% %8.2f us\n", kItemSize,
              producer.median, producer.p999);
  std::printf("%d files of %zu bytes through a spool    %8.2f ms\n", kFilesInRound, kFileSize, files.spool * 1e3);
  std::printf("the same by plain writes and syncs      %8.2f ms   the spool over it %.3f\n", files.plain * 1e3,
              files.spool_over_plain);
  std::printf("without a sync of the folder            %8.2f ms   the spool over it %.3f\n",
              files.plain_without_names * 1e3, files.spool_over_plain_without_names);
  const Folder databases;
  const double sql_over_plain = zagent::bench::MeasureSqlOverPlain(databases.Path());
  std::printf("write_async_median_us=%.2f write_async_p999_us=%.2f spool_over_plain=%.3f sql_over_plain=%.3f\n",
              producer.median, producer.p999, files.spool_over_plain, sql_over_plain);
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

// Random operations against a model of the spool: numbered payloads, a cache, a payload that the disk refused.
// OSTREL_PROPERTY_STEPS is the number of operations (scripts/soak spool: 100,000).
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "common/src/storage/SpoolStorage.h"
#include "tests/fakes/FakeClock.h"
#include "tests/fakes/FakeDataFormatter.h"
#include "tests/fakes/FaultyFiles.h"
#include "tests/fakes/Gate.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::common {
namespace {

using fakes::Eventually;
using fakes::FaultyFiles;
using fakes::ToBytes;
using fakes::ToText;

constexpr std::uint64_t kKib = 1024;
constexpr std::uint64_t kDiskSize = 1024 * kKib;
constexpr std::uint64_t kMaxFileCount = 31;
constexpr std::uint64_t kNames = kMaxFileCount - 1;
constexpr std::chrono::seconds kAge{21'600};  // more than all rests between two syncs
constexpr std::chrono::seconds kRetryPause{1};

std::uint64_t FromEnvironment(const char* name, std::uint64_t otherwise) {
  const char* text = std::getenv(name);
  return text != nullptr ? std::strtoull(text, nullptr, 10) : otherwise;
}

// What a spool must look like from outside.
class Model {
 public:
  std::uint64_t max_file_size = 64 * kKib;
  bool disk_full = false;
  std::map<std::uint64_t, std::string> files;  // by index
  std::chrono::milliseconds now{0};

  enum class Outcome { Cached, Filed, Failed, Refused };

  Outcome Write(const std::string& item) {
    if (cache_.empty() || cache_.size() + item.size() <= max_file_size) {
      cache_ += item;
      return Outcome::Cached;
    }
    if (!refused_by_disk_.empty() && now - failed_at_ < kRetryPause) return Outcome::Refused;
    const bool filed = Flush();
    if (!cache_.empty()) return Outcome::Refused;
    cache_ = item;
    return filed ? Outcome::Filed : Outcome::Failed;
  }

  bool Flush() {
    if (!refused_by_disk_.empty() && (!Store() || cache_.empty())) return refused_by_disk_.empty();
    refused_by_disk_.swap(cache_);
    return Store();
  }

  void DropOldest() { files.erase(files.begin()); }

  void Clear() {
    files.clear();
    cache_.clear();
    refused_by_disk_.clear();
  }

  [[nodiscard]] bool HasUnfiled() const { return !cache_.empty() || !refused_by_disk_.empty(); }
  [[nodiscard]] std::uint64_t Usage() const {
    std::uint64_t usage = 0;
    for (const auto& [index, text] : files) usage += text.size();
    return usage;
  }
  [[nodiscard]] bool HasFreeSpace() const { return max_file_size + Usage() < kDiskSize; }

 private:
  // Makes a file of refused_by_disk_.
  bool Store() {
    if (LastIndex() == kNames) CloseGaps();
    if (LastIndex() == kNames) {
      DropOldest();
      CloseGaps();
    }
    if (disk_full) {
      failed_at_ = now;
      return false;
    }
    files[LastIndex() + 1] = std::exchange(refused_by_disk_, "");
    if (Usage() < kDiskSize) return true;
    const bool all_names_taken = files.begin()->first == 1 && LastIndex() == kNames;
    do {
      DropOldest();
    } while (!all_names_taken && files.size() > 1 && !HasFreeSpace());
    return true;
  }

  [[nodiscard]] std::uint64_t LastIndex() const { return files.empty() ? 0 : files.rbegin()->first; }
  void CloseGaps() {
    std::map<std::uint64_t, std::string> dense;
    for (auto& [index, text] : files) dense[dense.size() + 1] = std::move(text);
    files = std::move(dense);
  }

  std::string cache_;
  std::string refused_by_disk_;
  std::chrono::milliseconds failed_at_{0};
};

class SpoolPropertyTest : public ::testing::Test {
 protected:
  SpoolPropertyTest() {
    disk_.really_sync = false;
    disk_.fault = [this](FaultyFiles::Call call, const std::string&) {
      return call == FaultyFiles::Call::Write && model_.disk_full ? ENOSPC : 0;
    };
    scheduler_.Start();
    Open();
  }

  void Open() {
    spool_ = std::make_unique<SpoolStorage>(
        scheduler_, folder_.Path(), "events", std::make_unique<fakes::FakeDataFormatter>(),
        SpoolStorage::Limits{1, kAge.count(), model_.max_file_size / kKib}, kMaxFileCount, clock_, disk_);
  }

  std::uint64_t Below(std::uint64_t bound) { return random_() % bound; }

  std::string NewItem() {
    std::uint64_t size = 1 + Below(Below(8) == 0 ? model_.max_file_size : 3 * kKib);
    size = std::min(size, model_.max_file_size);
    const std::string number = std::to_string(++items_) + " ";
    return (number + std::string(size, static_cast<char>('a' + items_ % 26))).substr(0, size);
  }

  void Write() {
    const std::string item = NewItem();
    const Model::Outcome expected = model_.Write(item);
    const auto result = spool_->Write(ToBytes(item));
    switch (expected) {
      case Model::Outcome::Cached:
        EXPECT_EQ(result->code, StorageCode::Success);
        EXPECT_EQ(result->path, "");
        break;
      case Model::Outcome::Filed:
        EXPECT_EQ(result->code, StorageCode::Success);
        EXPECT_NE(result->path, "");
        break;
      case Model::Outcome::Failed:
        EXPECT_EQ(result->code, StorageCode::Unknown);
        EXPECT_TRUE(result->data.empty()) << "the item is in the cache and was handed back too";
        break;
      case Model::Outcome::Refused:
        EXPECT_EQ(result->code, StorageCode::Unknown);
        EXPECT_EQ(ToText(result->data), item);
        break;
    }
    EXPECT_EQ(spool_->HasFreeSpace(), model_.HasFreeSpace());
  }

  void Read() {
    auto result = spool_->Read();
    if (model_.files.empty()) {
      EXPECT_EQ(result->code, StorageCode::NotFound);
    } else {
      EXPECT_EQ(ToText(result->data), model_.files.begin()->second);
      read_ = std::move(result);
    }
  }

  // Deletes what was read last, which may be gone by now.
  void Delete() {
    if (!read_) return;
    const bool there = !model_.files.empty() && model_.files.begin()->second == ToText(read_->data);
    EXPECT_EQ(spool_->Delete(std::move(read_)), there);
    if (there) model_.DropOldest();
  }

  void Clear() {
    Gate done;
    spool_->ClearAsync([&](bool cleared) {
      EXPECT_TRUE(cleared);
      done.Open();
    });
    ASSERT_TRUE(done.Await());
    model_.Clear();
  }

  void Update() {
    const std::vector<std::uint64_t> sizes{1, 4, 64, 200};
    model_.max_file_size = sizes[Below(sizes.size())] * kKib;
    spool_->Update({1, kAge.count(), model_.max_file_size / kKib});
    spool_->Read();  // it was applied
    EXPECT_EQ(spool_->GetMaxFileSize(), model_.max_file_size);
  }

  // The cache grows old.
  void Sync() {
    if (model_.disk_full || !model_.HasUnfiled()) return;
    const std::size_t syncs = disk_.SyncCount();
    model_.Flush();
    ASSERT_TRUE(Eventually([&] { return clock_.EarliestDeadline() <= clock_.Now() + kAge; }));
    Advance(kAge);
    const auto is_synced = [&] { return Names().size() == model_.files.size() && disk_.SyncCount() != syncs; };
    EXPECT_TRUE(Eventually(is_synced)) << Names().size() << " files instead of " << model_.files.size();
    spool_->Read();  // the end of the sync
  }

  void Advance(std::chrono::milliseconds duration) {
    model_.now += duration;
    clock_.Advance(duration);
  }

  void Rest() { Advance(std::chrono::milliseconds(1 + Below(1500))); }

  void FillOrFreeTheDisk() { model_.disk_full = !model_.disk_full && Below(3) == 0; }

  void Restart() {
    read_.reset();
    model_.disk_full = false;
    if (model_.HasUnfiled()) model_.Flush();
    spool_.reset();
    Check();
    Open();
  }

  // Names that are nobody's, which stay as they are to the end.
  void PutForeignFile() {
    const std::vector<std::string> names{"events.abc",  "events.0",    "events.123",  "events.00012",
                                         "events.0000", "events.0031", "others.0001", "events.1e00"};
    const std::string name = names[Below(names.size())];
    folder_.Write(name, "foreign " + name);
    foreign_.insert(name);
  }

  // Somebody else removes, renames and adds files of the spool while it runs. It goes on with whole files, harms none
  // that it was not told to delete, and after a restart its order is that of the names.
  void Meddle() {
    Restart();
    for (std::uint64_t i = Below(4); i > 0; --i) MeddleOnce();
    for (std::uint64_t i = Below(4); i > 0; --i) {
      auto result = spool_->Read();
      if (result->code != StorageCode::Success) continue;
      const std::map<std::string, std::string> before = Content();
      EXPECT_EQ(before.count(result->path), 1U);
      EXPECT_EQ(before.at(result->path), ToText(result->data));
      const std::string path = result->path;
      const bool deleted = spool_->Delete(std::move(result));
      std::map<std::string, std::string> after = before;
      if (deleted) after.erase(path);
      EXPECT_EQ(Content(), after);
    }
    spool_.reset();
    model_.files.clear();
    const std::map<std::string, std::string> content = Content();
    for (std::uint64_t index = 1; index <= kNames; ++index) {
      if (const auto file = content.find(PathOf(index)); file != content.end()) model_.files[index] = file->second;
    }
    Open();
  }

  void MeddleOnce() {
    const std::vector<std::string> names = Names();
    const std::string new_name = PathOf(1 + Below(kNames));
    const bool is_free = !std::filesystem::exists(new_name);
    switch (Below(3)) {
      case 0:
        if (!names.empty()) std::filesystem::remove(names[Below(names.size())]);
        break;
      case 1:
        if (!names.empty() && is_free) std::filesystem::rename(names[Below(names.size())], new_name);
        break;
      default:
        if (is_free) folder_.Write(std::filesystem::path(new_name).filename(), "strange " + std::to_string(++items_));
    }
  }

  [[nodiscard]] std::string PathOf(std::uint64_t index) const {
    const std::string digits = std::to_string(index);
    return folder_ / ("events." + std::string(4 - digits.size(), '0') + digits);
  }
  [[nodiscard]] std::vector<std::string> Names() const {
    std::vector<std::string> names;
    for (std::uint64_t index = 1; index <= kNames; ++index) {
      if (std::filesystem::exists(PathOf(index))) names.push_back(PathOf(index));
    }
    return names;
  }
  [[nodiscard]] std::map<std::string, std::string> Content() const {
    std::map<std::string, std::string> content;
    for (const std::string& name : Names()) content[name] = folder_.Read(std::filesystem::path(name).filename());
    return content;
  }

  void Check() {
    std::map<std::string, std::string> expected;
    for (const auto& [index, text] : model_.files) expected[PathOf(index)] = text;
    const std::map<std::string, std::string> files = Content();
    EXPECT_EQ(files.size(), expected.size());
    const auto [file, wanted] = std::mismatch(files.begin(), files.end(), expected.begin(), expected.end());
    const auto tell = [](const auto& entry, const auto& end) {
      return entry == end ? "nothing" : entry->first + " that begins with '" + entry->second.substr(0, 20) + "'";
    };
    EXPECT_TRUE(files == expected) << tell(file, files.end()) << " instead of " << tell(wanted, expected.end());
    for (const std::string& name : foreign_) EXPECT_EQ(folder_.Read(name), "foreign " + name);
  }

  void Step() {
    const std::uint64_t dice = Below(1000);
    if (dice < 570) return Write();
    if (dice < 600) return Rest();
    if (dice < 760) return Read();
    if (dice < 900) return Delete();
    if (dice < 930) return Sync();
    if (dice < 950) return FillOrFreeTheDisk();
    if (dice < 965) return Update();
    if (dice < 980) return PutForeignFile();
    if (dice < 990) return Restart();
    if (dice < 996) return Meddle();
    Clear();
  }

  using Gate = fakes::Gate;
  const std::uint64_t seed_ = FromEnvironment("OSTREL_PROPERTY_SEED", std::random_device()());
  std::mt19937_64 random_{seed_};
  const fakes::TempFolder folder_;
  FaultyFiles disk_;
  fakes::FakeClock clock_;
  Scheduler scheduler_{clock_};
  Model model_;
  std::unique_ptr<SpoolStorage> spool_;
  std::unique_ptr<StorageResult> read_;
  std::set<std::string> foreign_;
  std::uint64_t items_ = 0;
};

TEST_F(SpoolPropertyTest, BehavesLikeItsModelWhateverIsDoneToIt) {
  SCOPED_TRACE("OSTREL_PROPERTY_SEED=" + std::to_string(seed_));
  const std::uint64_t steps = FromEnvironment("OSTREL_PROPERTY_STEPS", 5000);
  for (std::uint64_t step = 1; step <= steps && !HasFailure(); ++step) {
    SCOPED_TRACE("step " + std::to_string(step));
    Step();
    if (step % 100 == 0) Check();
  }
}

}  // namespace
}  // namespace zagent::common

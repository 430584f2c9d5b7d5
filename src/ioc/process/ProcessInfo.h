#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "src/edr/Event.h"
#include "src/edr/process/ImageInfo.h"
#include "src/edr/process/ProcessInfo.h"

namespace zagent::ioc {

// What is remembered of a process while its events wait for a verdict and after: who it is, its tags and its score, and
// the events themselves.
//
// Events, tags, score and the key of the heuristics are guarded by a mutex of the process, and what it was made of
// never changes: all of that may be asked for from any thread. The links to parent and children (GetParent,
// GetChildren) belong to the thread that changes the tree; others ask the tree.
class ProcessInfo final : public common::ProcessInfo {
 public:
  // So many waiting events are judged without waiting for more.
  static constexpr std::size_t kMaxCachedEvents = 1024;

  using OnCacheFull = std::function<void(std::int32_t pid)>;
  using Tags = std::unordered_map<std::string, std::string>;
  // Heap of many processes, in bytes, by estimate.
  struct Usage {
    std::atomic<std::size_t> events{0};   // those that wait
    std::atomic<std::size_t> entries{0};  // what is known of the processes, as GetEntryBytes tells it
  };

  // What is known of a process without a start event.
  struct Description {
    std::int32_t pid = 0;
    std::int32_t ppid = kNoParent;
    std::vector<std::string> arguments{};
    std::uint32_t auid = 0;
    std::uint32_t uid = 0;
    std::uint32_t euid = 0;
    std::int64_t creation_time = 0;  // ns since the epoch
    std::string cwd{};
    common::ImageInfo image{""};
    std::optional<common::ImageInfo> secondary_image{};
  };

  // From a process start, which is the first event that waits. `callback` (may be empty) is called with the pid when
  // kMaxCachedEvents wait, without a lock. Throws common::ProcessInfoException for a pid that is none.
  ProcessInfo(std::unique_ptr<edr::Event> start, OnCacheFull callback);
  ProcessInfo(Description description, OnCacheFull callback);
  ProcessInfo(const ProcessInfo&) = delete;
  ProcessInfo& operator=(const ProcessInfo&) = delete;
  ~ProcessInfo() override;

  [[nodiscard]] const std::vector<std::string>& GetArguments() const override { return known_.arguments; }
  [[nodiscard]] std::uint32_t GetAuid() const override { return known_.auid; }
  [[nodiscard]] const std::string& GetCwd() const override { return known_.cwd; }
  [[nodiscard]] std::uint32_t GetEuid() const override { return known_.euid; }
  [[nodiscard]] const common::ImageInfo* GetImage() const override { return &known_.image; }
  // The script under an interpreter; null when there is none.
  [[nodiscard]] const common::ImageInfo* GetSecondaryImage() const override {
    return known_.secondary_image ? &*known_.secondary_image : nullptr;
  }
  // The time of the event that started its program.
  [[nodiscard]] std::int64_t GetCreationTime() const override { return known_.creation_time; }
  [[nodiscard]] std::uint32_t GetUserId() const override { return known_.uid; }
  [[nodiscard]] bool HasSecondaryImage() const override { return known_.secondary_image.has_value(); }
  // Throws common::ProcessInfoException: who starts another program gets an entry of its own.
  void Update(const edr::Event& event) override;

  void AddEvent(std::unique_ptr<edr::Event> event);
  // Everything that waits, in the order in which it came.
  [[nodiscard]] std::vector<std::unique_ptr<edr::Event>> TakeEvents();
  // The events of the process that was known under this pid before come in front of its own.
  void TakeEventsOf(ProcessInfo& predecessor);
  // The newest one. Valid until events are taken. Throws common::ProcessInfoException "Failed to get last event for
  // process with pid <pid>" when none waits.
  [[nodiscard]] const edr::Event& GetLastEvent() const;
  [[nodiscard]] bool HasEvents() const;
  // Heap of the events that wait, in bytes.
  [[nodiscard]] std::size_t GetCachedBytes() const;
  // Heap of what is known of it: whoever starts a process chooses how long its arguments are.
  [[nodiscard]] std::size_t GetEntryBytes() const { return entry_bytes_; }
  // From now on its heap is part of this sum.
  void CountIn(std::shared_ptr<Usage> usage);

  // A tag that is there gets the new value.
  void AddTag(const std::string& key, const std::string& value = {});
  // Logs at error level when it is not there.
  void RemoveTag(const std::string& key);
  [[nodiscard]] bool HasTag(const std::string& key) const;
  [[nodiscard]] std::optional<std::string> FindTag(const std::string& key) const;
  [[nodiscard]] Tags GetTags() const;

  [[nodiscard]] std::int64_t GetScore() const;
  void AddScore(std::int64_t points);

  // Which process it is, whatever program it runs: pids come again. That of the process that started its program; 0 is
  // nobody. Set by the tree before it shows the process to anybody.
  [[nodiscard]] std::uint64_t GetSerial() const { return serial_; }
  void SetSerial(std::uint64_t serial) { serial_ = serial; }
  [[nodiscard]] std::uint64_t GetStarter() const { return starter_; }
  void SetStarter(std::uint64_t serial) { starter_ = serial; }

  // The part of the heuristics' key that is the same for all events of this program, so that it is made once: the first
  // one that is set stays, and lives as long as the process. Null until then.
  [[nodiscard]] const std::string* FindHeuristicsKey() const;
  void SetHeuristicsKey(std::string key);

 private:
  static Description Describe(const edr::Event& start);
  static std::size_t EstimateEntry(const Description& known);
  void Account(std::size_t bytes);  // with mutex_ held
  void CountOut();                  // with mutex_ held
  std::vector<std::unique_ptr<edr::Event>> Release();

  const Description known_;
  const std::size_t entry_bytes_;
  const OnCacheFull on_cache_full_;
  mutable std::mutex mutex_;
  std::vector<std::unique_ptr<edr::Event>> events_;
  std::size_t cached_bytes_ = 0;
  std::shared_ptr<Usage> usage_;
  Tags tags_;
  std::int64_t score_ = 0;
  std::uint64_t serial_ = 0;
  std::uint64_t starter_ = 0;
  std::optional<std::string> heuristics_key_;
};

}  // namespace zagent::ioc

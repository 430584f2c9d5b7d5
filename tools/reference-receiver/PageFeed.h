#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "common/src/util/Clock.h"
#include "common/src/util/Json.h"
#include "tools/reference-receiver/PageUpload.h"

namespace zagent::tools {

// What the page shows: the last events, the last rows of health, and the books of what came and what was lost. Takes
// uploads as the receiver accepts them; readers come by number, each at its own pace. Thread-safe. All that it holds is
// bounded: at a bound the oldest goes, and is counted.
class PageFeed {
 public:
  static constexpr std::size_t kMaxEvents = 10'000;
  static constexpr std::size_t kMaxBytes = 32UL * 1024 * 1024;  // of the events' JSON
  static constexpr std::size_t kMaxHealth = 200;
  static constexpr std::size_t kMaxAgents = 1000;       // the one that was silent for longest is forgotten
  static constexpr std::size_t kMaxReasons = 50;        // of a kind; what comes behind them is "other"
  static constexpr std::size_t kMaxProcesses = 10'000;  // whose starts are remembered for the ancestry
  static constexpr std::size_t kMaxAncestors = 32;
  static constexpr std::chrono::seconds kRateStep{5};
  static constexpr std::size_t kRateSteps = 180;

  explicit PageFeed(const common::util::Clock& clock = common::util::Clock::Real());

  // An upload that was accepted and is new. `target` is the path that it came to.
  void OnUpload(const std::string& agent_id, const std::string& target, const std::string& payload);
  // One that was accepted before.
  void OnRepeated();
  // A request that was refused. Only what stands before the first ':' of the reason is told apart.
  void OnRefused(const std::string& reason);

  // Called after each of them, on the caller's thread; must not call back. Empty: nobody is.
  void SetListener(std::function<void()> listener);

  struct Portion {
    std::string json;        // an array of events, oldest first: those of PageUpload with the further members "n"
                             // (their number, without gaps), "agent", "host", "received" (milliseconds since the epoch)
                             // and, of indicators of compromise, "ancestry": who acted, its parent, and so on
    std::uint64_t next = 1;  // the number behind the last of them
    bool is_empty = true;
  };
  // Those from this number on, as far as they are still there, until `max_bytes` are exceeded.
  [[nodiscard]] Portion EventsFrom(std::uint64_t number, std::size_t max_bytes) const;
  // The number that the next event gets; the first gets 1.
  [[nodiscard]] std::uint64_t NextNumber() const;

  // An array of rows, oldest first: those of PageUpload with "agent" and "host". The version changes with each of them.
  [[nodiscard]] std::string Health() const;
  [[nodiscard]] std::uint64_t HealthVersion() const;
  // All counts since the start, as a JSON object.
  [[nodiscard]] std::string Books() const;
  [[nodiscard]] std::uint64_t BooksVersion() const;

 private:
  static constexpr std::size_t kKinds = 3;  // Fim, Ioc, Health
  using Counts = std::map<std::string, std::uint64_t>;

  struct AgentBook {
    std::string host;
    std::uint64_t uploads = 0;
    std::array<std::uint64_t, kKinds> items{};
    std::uint64_t lost_batches = 0;
    std::uint64_t last_sequence_number = 0;
    Counts lost;
    std::int64_t heard = 0;  // milliseconds since the epoch
    std::uint64_t order = 0;
  };
  AgentBook& BookOf(const std::string& agent_id);
  void NoteSequence(AgentBook& book, std::uint64_t number);
  void WriteAgents(rapidjson::Writer<rapidjson::StringBuffer>& out) const;
  void WriteRates(rapidjson::Writer<rapidjson::StringBuffer>& out) const;
  void AddEvent(const std::string& agent_id, const AgentBook& book, const PageUpload::Event& event, bool is_ioc);
  void AddHealth(const std::string& agent_id, const AgentBook& book, const std::string& row);
  void RememberStart(const std::string& agent_id, const PageUpload::Start& start);
  void ForgetOldestStart();
  // Of this process: by its id, else the last that was told to have its pid.
  [[nodiscard]] const PageUpload::Start* FindStart(const std::string& agent_id, const std::string& unique_id,
                                                   std::int64_t pid) const;
  [[nodiscard]] std::string AncestryOf(const std::string& agent_id, const PageUpload::Event& event) const;
  void CountRate(std::size_t kind, std::uint64_t count);
  [[nodiscard]] std::int64_t CurrentStep() const;
  [[nodiscard]] std::int64_t Milliseconds() const;
  static void Add(Counts& counts, const std::string& name, std::uint64_t count);
  void Tell();

  const common::util::Clock& clock_;
  const std::int64_t started_;
  mutable std::mutex mutex_;
  std::deque<std::string> events_;  // the last has the number next_number_ - 1
  std::size_t event_bytes_ = 0;
  std::uint64_t next_number_ = 1;
  std::deque<std::string> health_;
  std::uint64_t health_version_ = 0;
  std::uint64_t books_version_ = 0;

  std::uint64_t uploads_ = 0;
  std::uint64_t bytes_ = 0;
  std::uint64_t repeated_ = 0;
  std::uint64_t unreadable_ = 0;
  std::uint64_t forgotten_agents_ = 0;
  std::uint64_t lost_batches_ = 0;
  std::array<std::uint64_t, kKinds> items_{};
  Counts refused_;
  Counts lost_;
  std::map<std::string, AgentBook> agents_;
  std::uint64_t agent_order_ = 0;
  // Counts of each step; the last is that of `last_step_`.
  std::array<std::array<std::uint64_t, kRateSteps>, kKinds> rates_{};
  std::int64_t last_step_ = 0;

  std::deque<std::pair<std::string, std::string>> start_order_;  // agent and unique id, oldest first
  std::map<std::pair<std::string, std::string>, PageUpload::Start> starts_;
  std::map<std::pair<std::string, std::int64_t>, std::string> last_of_pid_;

  std::mutex listener_mutex_;
  std::function<void()> listener_;
};

}  // namespace zagent::tools

#pragma once

#include <bitset>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "common/src/util/Clock.h"

namespace zagent::common {

class BlackoutManagerException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Reduced activity periods: the hours of the week in which a module (such as "FIM" or "IOC") keeps quiet.
//
// A week begins on Sunday 00:00 local time and has 672 slots of 15 minutes. As text a weekly schedule is 168
// hexadecimal digits, four slots each, the earliest in the highest bit; a bit of 1 is an open slot.
//
// The table changes by SetWindow only, before it is shared; all else may then be called from any thread.
class BlackoutManager {
 public:
  static constexpr std::size_t kSlots = 672;
  using Week = std::bitset<kSlots>;  // by slot; set is open

  enum class WindowType { Network, Activity };

  // From a JSON document:
  //   {"Blackout_Events": [{"@ID": "FIM", "@NETWORK_BLACKOUT": "FF...", "@ACTIVITY_BLACKOUT": "FF..."}, ...]}
  // or, in the older form, whose window becomes the network schedule of "FIM":
  //   {"Interval_Events": [{"@ID": "INTERVAL_EVENT_UPLOAD_CHANGELIST", "@WeeklyScheduleWindows": "FF..."}, ...]}
  // Throws BlackoutManagerException when it is neither, or when a schedule is no schedule.
  explicit BlackoutManager(const std::string& json, util::Clock& clock = util::Clock::Real());
  BlackoutManager(const BlackoutManager&) = delete;
  BlackoutManager& operator=(const BlackoutManager&) = delete;
  ~BlackoutManager() = default;

  // Adds a module, or replaces its windows.
  void SetWindow(const std::string& module, const Week& network, const Week& activity);

  // The table as a document with the key "Blackout_Events".
  [[nodiscard]] std::string ToJson() const;

  // Whether the module's slot of this moment is closed. False for a module without an entry.
  [[nodiscard]] bool IsNetworkBlackoutNow(const std::string& module) const;
  [[nodiscard]] bool IsActivityBlackoutNow(const std::string& module) const;

  // Seconds from now to the next run of something that last ran at `last_run` (nanoseconds since the epoch) and runs
  // every `interval_seconds`: the end of the interval, or the opening of the first open slot from there on. A week
  // without an open slot is asked again a day after the end of the interval, and told in one warning a day for each
  // module and type.
  [[nodiscard]] std::uint64_t GetSecondsToEvent(const std::string& module, WindowType type, std::int64_t last_run,
                                                std::uint64_t interval_seconds) const;

  // Seconds from `time` to the start of the first open slot, 0 when its own slot is open.
  [[nodiscard]] std::uint64_t GetSecondsToWindow(const std::string& module, WindowType type,
                                                 util::Clock::SystemTime time) const;

 private:
  struct Module {
    std::string id;
    Week network;
    Week activity;
  };

  [[nodiscard]] const Week* Find(const std::string& module, WindowType type) const;
  void WarnOfClosedWeek(const std::string& module, WindowType type) const;

  util::Clock& clock_;
  std::vector<Module> modules_;  // in the order of the document
  mutable std::mutex warning_mutex_;
  // Of each week without an open slot.
  mutable std::map<std::pair<std::string, WindowType>, std::int64_t> last_warning_day_;
};

}  // namespace zagent::common

#include "common/src/tasks/BlackoutManager.h"

#include <algorithm>
#include <cctype>
#include <ctime>
#include <optional>
#include <utility>

#include "common/src/util/Json.h"
#include "common/src/util/Log.h"

#ifdef __SANITIZE_THREAD__
// The C library reads the time zone under a lock of its own, which ThreadSanitizer does not see.
extern "C" const char* __tsan_default_suppressions();   // NOLINT(bugprone-reserved-identifier): the sanitizer's name
extern "C" const char* __tsan_default_suppressions() {  // NOLINT(bugprone-reserved-identifier)
  return "race:tzset_internal\n";
}
#endif

namespace zagent::common {
namespace {

using rapidjson::Value;

constexpr std::size_t kDigits = BlackoutManager::kSlots / 4;
constexpr int kSlotSeconds = 900;
constexpr std::int64_t kDaySeconds = 86'400;
constexpr std::uint64_t kLongestInterval = 366 * kDaySeconds;
constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;
constexpr const char* kNewForm = "Blackout_Events";
constexpr const char* kOldForm = "Interval_Events";
// What the older form steers is the upload of changed files.
constexpr const char* kOldFormModule = "FIM";

[[noreturn]] void ThrowMalformed() {
  throw BlackoutManagerException("The Blackout Settings Json is malformed");
}

const char* NameOf(BlackoutManager::WindowType type) {
  return type == BlackoutManager::WindowType::Network ? "Network" : "Activity";
}

std::optional<unsigned> DigitValue(char digit) {
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
  if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
  return std::nullopt;
}

BlackoutManager::Week WeekFromText(const std::string& text) {
  if (text.size() != kDigits) ThrowMalformed();
  BlackoutManager::Week week;
  for (std::size_t i = 0; i < kDigits; ++i) {
    const std::optional<unsigned> value = DigitValue(text[i]);
    if (!value) ThrowMalformed();
    for (std::size_t bit = 0; bit < 4; ++bit) week[4 * i + bit] = (*value >> (3 - bit) & 1U) != 0;
  }
  return week;
}

std::string WeekToText(const BlackoutManager::Week& week) {
  std::string text(kDigits, '0');
  for (std::size_t i = 0; i < kDigits; ++i) {
    unsigned value = 0;
    for (std::size_t bit = 0; bit < 4; ++bit) value = value << 1 | (week[4 * i + bit] ? 1U : 0U);
    text[i] = "0123456789ABCDEF"[value];
  }
  return text;
}

BlackoutManager::Week AllOpen() {
  return BlackoutManager::Week().set();
}

const Value* FindText(const Value& object, const char* name) {
  const Value* member = util::FindMember(object, name);
  return member != nullptr && member->IsString() ? member : nullptr;
}

rapidjson::Document Parse(const std::string& json) {
  rapidjson::Document document;
  util::ParseJson(document, json);
  if (document.HasParseError() || !document.IsObject()) {
    ZLOG_ERROR("RAP Manager: Config: Invalid json");
    ThrowMalformed();
  }
  return document;
}

// The network schedule of the older form.
BlackoutManager::Week ConvertOldForm(const Value& document) {
  ZLOG_INFO("RAP Manager: Convert Old Config Blackout To New");
  const Value* events = util::FindMember(document, kOldForm);
  if (events == nullptr || !events->IsArray()) {
    ZLOG_ERROR("RAP Manager: Json invalid. Error while Convert Old Config BlackoutManager To New");
    ThrowMalformed();
  }
  for (const Value& event : events->GetArray()) {
    const Value* id = FindText(event, "@ID");
    if (id == nullptr || util::ToString(*id) != "INTERVAL_EVENT_UPLOAD_CHANGELIST") continue;
    const Value* windows = FindText(event, "@WeeklyScheduleWindows");
    if (windows == nullptr) break;
    ZLOG_DEBUG("RAP Manager: WeeklyScheduleWindow obtained from Config: " << util::ToString(*windows));
    return WeekFromText(util::ToString(*windows));
  }
  return AllOpen();
}

// Seconds since the week began, by the clock on the wall.
std::int64_t SecondOfWeek(const std::tm& local) {
  // A leap second belongs to the minute before it.
  return ((local.tm_wday * 24LL + local.tm_hour) * 60 + local.tm_min) * 60 + std::min(local.tm_sec, 59);
}

// Seconds from `time` until the clock on the wall shows the start of a slot, `slots_ahead` slots on from its own.
std::int64_t SecondsToSlot(std::time_t time, const std::tm& local, std::size_t slots_ahead) {
  const std::int64_t second_of_week = SecondOfWeek(local);
  const std::int64_t slot = second_of_week / kSlotSeconds + static_cast<std::int64_t>(slots_ahead);
  const std::int64_t plain = slot * kSlotSeconds - second_of_week;
  ZLOG_TRACE("Current time: " << time << ", seconds to Event: " << plain);
  if (slot >= static_cast<std::int64_t>(BlackoutManager::kSlots)) ZLOG_TRACE("Event will be scheduled after 1 weeks");
  // Between the two the clock on the wall may be set for summer or winter.
  constexpr std::int64_t kSlotsADay = 96;
  const auto quarter = static_cast<int>(slot % kSlotsADay);
  std::tm target = local;
  target.tm_mday += static_cast<int>(slot / kSlotsADay) - local.tm_wday;
  target.tm_hour = quarter / 4;
  target.tm_min = quarter % 4 * 15;
  target.tm_sec = 0;
  target.tm_isdst = -1;
  const std::time_t exact = std::mktime(&target);
  return exact > time ? exact - time : plain;
}

}  // namespace

BlackoutManager::BlackoutManager(const std::string& json, util::Clock& clock) : clock_(clock) {
  const rapidjson::Document document = Parse(json);
  const Value* events = util::FindMember(document, kNewForm);
  if (events == nullptr) {
    ZLOG_INFO("RAP Manager: Blackout_Events tag missing. Updating Blackout Info from Interval_Events tag");
    const Week network = ConvertOldForm(document);
    ZLOG_DEBUG("RAP Manager: Default WeeklyScheduleWindow for activity: " << WeekToText(AllOpen()));
    SetWindow(kOldFormModule, network, AllOpen());
  } else {
    if (!events->IsArray()) {
      ZLOG_ERROR("RAP Manager: Config: Invalid json");
      ThrowMalformed();
    }
    for (const Value& event : events->GetArray()) {
      const Value* id = FindText(event, "@ID");
      const Value* network = FindText(event, "@NETWORK_BLACKOUT");
      const Value* activity = FindText(event, "@ACTIVITY_BLACKOUT");
      if (id == nullptr || network == nullptr || activity == nullptr) {
        ZLOG_ERROR("RAP Manager: Blackout_Events JSON missing mandatory tags");
        ThrowMalformed();
      }
      SetWindow(util::ToString(*id), WeekFromText(util::ToString(*network)), WeekFromText(util::ToString(*activity)));
    }
  }
  ZLOG_INFO("Reduced Activity Period(RAP) Window settings populated successfully.");
}

void BlackoutManager::SetWindow(const std::string& module, const Week& network, const Week& activity) {
  const auto known = std::find_if(modules_.begin(), modules_.end(),
                                  [&module](const Module& candidate) { return candidate.id == module; });
  if (known != modules_.end()) {
    known->network = network;
    known->activity = activity;
    ZLOG_INFO("RAP Manager: Updated Window for module " << module);
    return;
  }
  modules_.push_back({module, network, activity});
  ZLOG_INFO("RAP Manager: New Blackout schedule added for " << module << " Network schedule: " << WeekToText(network)
                                                            << " Activity schedule: " << WeekToText(activity));
}

std::string BlackoutManager::ToJson() const {
  ZLOG_DEBUG("RAP Manager: Create blackout json from BlackoutManager.");
  rapidjson::Document document(rapidjson::kObjectType);
  auto& allocator = document.GetAllocator();
  Value events(rapidjson::kArrayType);
  for (const Module& module : modules_) {
    const std::string network = WeekToText(module.network);
    const std::string activity = WeekToText(module.activity);
    ZLOG_TRACE("RAP Manager: StringFromBitfield: nwScheduleString = " << network);
    ZLOG_TRACE("RAP Manager: StringFromBitfield: activityScheduleString = " << activity);
    Value event(rapidjson::kObjectType);
    event.AddMember("@ID", Value(module.id, allocator), allocator);
    event.AddMember("@NETWORK_BLACKOUT", Value(network, allocator), allocator);
    event.AddMember("@ACTIVITY_BLACKOUT", Value(activity, allocator), allocator);
    events.PushBack(event, allocator);
  }
  document.AddMember("Blackout_Events", events, allocator);
  ZLOG_DEBUG("RAP Manager: Successfully Converted BlackoutManager object ToJson");
  return util::WriteJson(document);
}

bool BlackoutManager::IsNetworkBlackoutNow(const std::string& module) const {
  const bool now = GetSecondsToWindow(module, WindowType::Network, clock_.Now()) != 0;
  ZLOG_DEBUG("Reduced Activity Period(RAP): Is Module " << module
                                                        << " under reduced network activity period now = " << now);
  return now;
}

bool BlackoutManager::IsActivityBlackoutNow(const std::string& module) const {
  const bool now = GetSecondsToWindow(module, WindowType::Activity, clock_.Now()) != 0;
  ZLOG_DEBUG("BlackoutManager: Is Module " << module << " ActivityBlackoutNow = " << now);
  return now;
}

std::uint64_t BlackoutManager::GetSecondsToEvent(const std::string& module, WindowType type, std::int64_t last_run,
                                                 std::uint64_t interval_seconds) const {
  interval_seconds = std::min(interval_seconds, kLongestInterval);
  const util::Clock::SystemTime now = clock_.Now();
  const std::int64_t last_seconds = last_run / kNanosecondsPerSecond;
  const std::int64_t now_seconds = util::ToNanoseconds(now) / kNanosecondsPerSecond;
  // A last run that lies in the future tells nothing.
  const auto passed = static_cast<std::uint64_t>(std::max<std::int64_t>(now_seconds - last_seconds, 0));
  const std::uint64_t interval_left = passed < interval_seconds ? interval_seconds - passed : 0;
  ZLOG_TRACE("Last event time: " << last_seconds << ", current time: " << now_seconds
                                 << ", intervalSeconds: " << interval_seconds << ", diff:" << passed);
  const std::uint64_t timeout =
      interval_left + GetSecondsToWindow(module, type, now + std::chrono::seconds(interval_left));
  ZLOG_TRACE("GetSecondsToEvent calculatedTimeout: " << timeout);
  return timeout;
}

std::uint64_t BlackoutManager::GetSecondsToWindow(const std::string& module, WindowType type,
                                                  util::Clock::SystemTime time) const {
  ZLOG_TRACE("RAP: Module " << module << " windowType = " << NameOf(type));
  const Week* week = Find(module, type);
  if (week == nullptr) return 0;
  const std::time_t seconds = util::Clock::SystemTime::clock::to_time_t(time);
  std::tm local{};
  tzset();  // localtime_r alone would keep to the zone that the process began with
  if (localtime_r(&seconds, &local) == nullptr) return 0;
  const auto own_slot = static_cast<std::size_t>(SecondOfWeek(local) / kSlotSeconds);
  std::size_t ahead = 0;
  while (ahead < kSlots && !(*week)[(own_slot + ahead) % kSlots]) ++ahead;
  if (ahead == 0) return 0;
  if (ahead == kSlots) {
    WarnOfClosedWeek(module, type);
    return kDaySeconds;
  }
  const std::int64_t wait = SecondsToSlot(seconds, local, ahead);
  ZLOG_DEBUG(module << " is currently in RAP mode. seconds to window: " << wait);
  return static_cast<std::uint64_t>(wait);
}

// Asked at every walk of the Scheduler, for whatever time; said once a day.
void BlackoutManager::WarnOfClosedWeek(const std::string& module, WindowType type) const {
  const std::int64_t day = util::ToNanoseconds(clock_.Now()) / kNanosecondsPerSecond / kDaySeconds;
  {
    const std::lock_guard lock(warning_mutex_);
    const auto [last, first_time] = last_warning_day_.try_emplace({module, type}, day);
    if (!first_time && std::exchange(last->second, day) == day) return;
  }
  ZLOG_WARNING("RAP: Module " << module << " has no open " << NameOf(type) << " slot in the whole week.");
}

const BlackoutManager::Week* BlackoutManager::Find(const std::string& module, WindowType type) const {
  for (const Module& candidate : modules_) {
    if (candidate.id == module) return type == WindowType::Network ? &candidate.network : &candidate.activity;
  }
  return nullptr;
}

}  // namespace zagent::common

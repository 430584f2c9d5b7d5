#include "src/edr/TimeCriteria.h"

#include <ctime>

#include "common/src/util/Log.h"

namespace zagent::edr {
namespace {

int SecondOfDay(const std::tm& time) {
  return time.tm_hour * 3600 + time.tm_min * 60 + time.tm_sec;
}

int ParseSecondOfDay(const std::string& text, const char* complaint) {
  std::tm time{};
  const char* end = strptime(text.c_str(), "%H:%M:%S", &time);
  if (end != nullptr && end == text.c_str() + text.size()) return SecondOfDay(time);
  ZLOG_DEBUG("Failed to convert time string to time tm struct");
  throw FilterCriteriaException(complaint);
}

}  // namespace

TimeCriteria::TimeCriteria(Group group, const std::string& start, const std::string& end)
    : FilterCriteria(group), span_(ParseSpan(start, end)) {}

TimeCriteria::Span TimeCriteria::ParseSpan(const std::string& start, const std::string& end) {
  ZLOG_DEBUG("Setting time span start and end filters");
  if (start.empty() || end.empty()) throw FilterCriteriaException("Empty argument passed");
  const Span span{ParseSecondOfDay(start, "Invalid start time"), ParseSecondOfDay(end, "Invalid end time")};
  if (span.start > span.end) throw FilterCriteriaException("Start time cannot be later than End time");
  return span;
}

bool TimeCriteria::Match(const Event& event) const {
  ZLOG_DEBUG("Matching Time filters");
  if (!span_) return true;
  const std::time_t seconds = static_cast<std::time_t>(event.GetTimestamp() / 1'000'000'000);
  std::tm time{};
  if (gmtime_r(&seconds, &time) == nullptr) return false;
  const int second = SecondOfDay(time);
  return span_->start <= second && second <= span_->end;
}

}  // namespace zagent::edr

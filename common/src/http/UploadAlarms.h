#pragma once

#include <chrono>
#include <deque>
#include <mutex>
#include <optional>
#include <string>

#include "common/src/http/HttpResponse.h"
#include "common/src/http/UploadSource.h"
#include "common/src/util/Clock.h"

namespace zagent::common {

// Names what keeps uploads from being accepted and does not pass by itself: a clock that is off, and a file that the
// platform will never take. One Error line a day each, however often it happens. Thread-safe; all uploaders share one.
class UploadAlarms {
 public:
  static constexpr std::chrono::minutes kToleratedSkew{5};
  static constexpr unsigned kRefusalsBeforeAlarm = 3;
  static constexpr std::chrono::hours kInterval{24};
  // As many refused files are remembered; at the bound the one that was refused first is forgotten.
  static constexpr std::size_t kMaxFiles = 16;

  explicit UploadAlarms(const util::Clock& clock = util::Clock::Real()) : clock_(clock) {}

  // The final answer to an upload; `source` and its request id when a file was sent. A proxy's own refusal is none of
  // the platform's.
  void OnAnswer(const HttpResponse& response, const std::optional<UploadSource>& source, const std::string& request_id);

 private:
  using Told = std::optional<util::Clock::SteadyTime>;
  struct Refused {
    std::string request_id;
    unsigned times = 0;
    Told told;
  };

  void LookAtClock(const HttpResponse& response);
  void LookAtFile(long http_code, const UploadSource& source, const std::string& request_id);
  Refused& Remember(const std::string& request_id);
  void Forget(const std::string& request_id);
  // True, once in an interval.
  bool MayTell(Told& told) const;

  const util::Clock& clock_;
  std::mutex mutex_;
  Told skew_told_;
  std::deque<Refused> refused_;
};

}  // namespace zagent::common

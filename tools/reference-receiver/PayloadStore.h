#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "common/src/util/Clock.h"
#include "tools/reference-receiver/UploadSink.h"

namespace zagent::tools {

// Keeps uploads in files, or for tests in memory. Thread-safe.
class PayloadStore final : public UploadSink {
 public:
  // For so long an upload that is sent again is known by its Z-REQID, and at most so many are: at the bound the oldest
  // is forgotten.
  static constexpr std::chrono::hours kMemory{1};
  static constexpr std::size_t kMaxKnown = 65'536;

  // Every payload becomes a file "payload-<number>.json" (".bin" when it is no JSON) of mode 0600 in `folder`, which is
  // made with mode 0700 when it does not exist; an empty folder means no files. `keep`: Payloads() has them as well.
  // Throws std::filesystem::filesystem_error.
  PayloadStore(std::string folder, bool keep, const common::util::Clock& clock = common::util::Clock::Real());

  // Throws std::runtime_error when the file cannot be written.
  bool Add(const AcceptedPayload& payload, const std::function<void()>& on_accepted) override;
  bool Add(const AcceptedPayload& payload) { return Add(payload, {}); }
  [[nodiscard]] std::vector<AcceptedPayload> Payloads() const;

 private:
  struct Known {
    std::string request_id;
    common::util::Clock::SteadyTime since;
  };

  std::string WriteFile(const AcceptedPayload& payload);
  void Remember(const std::string& request_id);
  void ForgetOld();
  void ForgetOldest();

  const std::string folder_;
  const bool keep_;
  const common::util::Clock& clock_;
  mutable std::mutex mutex_;
  std::vector<AcceptedPayload> payloads_;
  std::deque<Known> known_;  // oldest first
  std::set<std::string> known_ids_;
  unsigned next_number_ = 1;
};

}  // namespace zagent::tools

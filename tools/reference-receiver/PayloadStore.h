#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "common/src/util/Clock.h"

namespace zagent::tools {

// An upload that was accepted, uncompressed.
struct AcceptedPayload {
  std::string text;
  std::string target;
  std::map<std::string, std::string> headers;  // names in lower case
  std::string file;                            // where it was stored; empty without a folder
};

// What has come to the receiver. Thread-safe.
class PayloadStore {
 public:
  // For so long an upload that is sent again is known by its Z-REQID, and at most so many are: at the bound the oldest
  // is forgotten.
  static constexpr std::chrono::hours kMemory{1};
  static constexpr std::size_t kMaxKnown = 65'536;

  // Every payload becomes a file "payload-<number>.json" (".bin" when it is no JSON) of mode 0600 in `folder`, which is
  // made with mode 0700 when it does not exist; an empty folder means no files. `keep`: Payloads() has them as well.
  // Throws std::filesystem::filesystem_error.
  PayloadStore(std::string folder, bool keep, const common::util::Clock& clock = common::util::Clock::Real());

  // False when an upload with its "z-reqid" was accepted already: the payload is dropped. Throws std::runtime_error
  // when the file cannot be written; the payload then counts as not accepted. `on_accepted` (may be empty) is called
  // before the next payload is looked at: what it follows comes in the order of the payloads.
  bool Add(AcceptedPayload payload, const std::function<void()>& on_accepted = {});
  [[nodiscard]] std::vector<AcceptedPayload> Payloads() const;

  void CountRequest();
  [[nodiscard]] unsigned RequestCount() const;
  // False when `count` requests have not come in this time.
  [[nodiscard]] bool WaitForRequests(unsigned count, std::chrono::milliseconds timeout) const;

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
  mutable std::condition_variable arrived_;
  std::vector<AcceptedPayload> payloads_;
  std::deque<Known> known_;  // oldest first
  std::set<std::string> known_ids_;
  unsigned requests_ = 0;
  unsigned next_number_ = 1;
};

}  // namespace zagent::tools

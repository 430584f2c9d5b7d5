#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <vector>

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
  // Every payload becomes a file "payload-<number>.json" (".bin" when it is no JSON) of `folder`, which is made when it
  // does not exist; with an empty folder they are kept in memory only. Throws std::filesystem::filesystem_error.
  explicit PayloadStore(std::string folder);

  // Throws std::runtime_error when the file cannot be written; the payload then counts as not accepted.
  void Add(AcceptedPayload payload);
  [[nodiscard]] std::vector<AcceptedPayload> Payloads() const;

  void CountRequest();
  [[nodiscard]] unsigned RequestCount() const;
  // False when `count` requests have not come in this time.
  [[nodiscard]] bool WaitForRequests(unsigned count, std::chrono::milliseconds timeout) const;

 private:
  std::string WriteFile(const AcceptedPayload& payload);

  const std::string folder_;
  mutable std::mutex mutex_;
  mutable std::condition_variable arrived_;
  std::vector<AcceptedPayload> payloads_;
  unsigned requests_ = 0;
  unsigned next_number_ = 1;
};

}  // namespace zagent::tools

#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "src/health/HealthReporter.h"

namespace zagent::fakes {

// Keeps all that it is told, the unchanged too. From any thread.
class FakeHealthReporter final : public health::HealthReporter {
 public:
  void Report(health::HealthStatus status) noexcept override {
    const std::lock_guard lock(mutex_);
    statuses_.push_back(std::move(status));
  }
  void CountRefused(std::uint64_t documents) noexcept override {
    const std::lock_guard lock(mutex_);
    refused_ += documents;
  }
  void CountRemovedFile(std::uint64_t bytes) noexcept override {
    const std::lock_guard lock(mutex_);
    removed_files_.push_back(bytes);
  }
  void CountDropped(std::uint64_t events) noexcept override {
    const std::lock_guard lock(mutex_);
    dropped_ += events;
  }

  [[nodiscard]] std::vector<health::HealthStatus> Statuses() const {
    const std::lock_guard lock(mutex_);
    return statuses_;
  }
  [[nodiscard]] std::uint64_t Refused() const {
    const std::lock_guard lock(mutex_);
    return refused_;
  }
  // The bytes of each.
  [[nodiscard]] std::vector<std::uint64_t> RemovedFiles() const {
    const std::lock_guard lock(mutex_);
    return removed_files_;
  }
  [[nodiscard]] std::uint64_t Dropped() const {
    const std::lock_guard lock(mutex_);
    return dropped_;
  }

  // One line each, in order: "4002 /etc/manifest.json 0 manifest=failed reason=..." with the details behind the fields.
  [[nodiscard]] std::vector<std::string> Lines() const {
    std::vector<std::string> lines;
    for (const health::HealthStatus& status : Statuses()) lines.push_back(LineOf(status));
    return lines;
  }

  static std::string LineOf(const health::HealthStatus& status) {
    std::string line = std::to_string(static_cast<std::int64_t>(status.code)) + " " + status.context_id + " " +
                       std::to_string(static_cast<std::int64_t>(status.state));
    for (const health::Fields* fields : {&status.fields, &status.details}) {
      for (const auto& [name, value] : *fields) {
        const auto* text = std::get_if<std::string>(&value);
        line.append(" ").append(name).append("=");
        line.append(text != nullptr ? *text : std::to_string(std::get<std::int64_t>(value)));
      }
    }
    return line;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<health::HealthStatus> statuses_;
  std::uint64_t refused_ = 0;
  std::vector<std::uint64_t> removed_files_;
  std::uint64_t dropped_ = 0;
};

}  // namespace zagent::fakes

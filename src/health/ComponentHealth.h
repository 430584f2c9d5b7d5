#pragma once

#include <string>

#include "src/health/HealthReporter.h"

namespace zagent::health {

// What one component tells of itself, in the words that all components share.
//
//   ComponentHealth health(reporter, ComponentHealth::Kind::Fim);
//   health.Started();
//   health.ManifestFailed(path, "invalid json");
//   health.Uploaded(false, "500", correlation_id);
//
// Threads as HealthReporter; `reporter` outlives it.
class ComponentHealth {
 public:
  enum class Kind { Fim, Ioc };

  ComponentHealth(HealthReporter& reporter, Kind kind) : reporter_(reporter), kind_(kind) {}

  // The component works; it was stopped; the configuration has nothing for it to do; it could not be built.
  void Started() const;
  void Stopped() const;
  void Disabled() const;
  void Failed(const std::string& reason) const;

  void ManifestApplied(const std::string& path) const;
  void ManifestFailed(const std::string& path, const std::string& reason) const;

  // After each upload. Another id of an upload alone is nothing new.
  void Uploaded(bool succeeded, const std::string& http_status, const std::string& correlation_id) const;

  void CountRefused(std::uint64_t documents = 1) const noexcept { reporter_.CountRefused(documents); }
  void CountRemovedFile(std::uint64_t bytes) const noexcept { reporter_.CountRemovedFile(bytes); }
  void CountDropped(std::uint64_t events = 1) const noexcept { reporter_.CountDropped(events); }

 private:
  [[nodiscard]] const char* Name() const;
  // `fim` or the same of the other component.
  [[nodiscard]] StatusCode CodeFor(StatusCode fim) const;
  void Tell(StatusCode fim, const std::string& context, State state, Fields fields, Fields details = {}) const;

  HealthReporter& reporter_;
  const Kind kind_;
};

}  // namespace zagent::health

#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <variant>

namespace zagent::health {

enum class State : std::int64_t { Bad = 0, Good = 1 };

// What a status tells of. Those of a component begin at 4001 for FIM and at 4101 for IOC; docs/OPERATIONS.md has a
// table.
enum class StatusCode : std::int64_t {
  FimComponent = 4001,
  FimManifest = 4002,
  FimUpload = 4003,
  Intake = 4004,
  IocComponent = 4101,
  IocManifest = 4102,
  IocUpload = 4103,
};

// Members of the JSON object that goes with a status.
using Fields = std::map<std::string, std::variant<std::int64_t, std::string>>;

// How one part of the program does at the moment.
struct HealthStatus {
  StatusCode code = StatusCode::FimComponent;
  std::string context_id;  // which one of several: a manifest's path, a component's name
  State state = State::Good;
  Fields fields;   // what makes it another status when it differs
  Fields details;  // told along with it; no status differs by these alone
};

}  // namespace zagent::health

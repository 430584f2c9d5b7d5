#pragma once

#include <cstdint>
#include <set>
#include <stdexcept>
#include <string>

#include "src/edr/Event.h"

namespace zagent::edr {

class EventRuleException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

enum class MatchResult : std::uint8_t {
  Matched = 0,
  RefusedByFilter = 1,
  OutOfScope = 2,  // action not in the notify set, or object outside path and depth
};

using EventTypes = std::set<EventType>;

// What a component wants to hear about one path, process or kind of traffic. The rule engine reads type, path and
// actions to install kernel rules; the owner asks Match for every event. Immutable once built; read by any thread.
class EventRule {
 public:
  EventRule() = default;
  EventRule(const EventRule&) = delete;
  EventRule& operator=(const EventRule&) = delete;
  virtual ~EventRule() = default;

  // A rule answers the actions of its own type and throws EventRuleException for the others.
  [[nodiscard]] virtual const EventTypes& GetDirectoryActions() const = 0;
  [[nodiscard]] virtual const EventTypes& GetFileActions() const = 0;
  [[nodiscard]] virtual const EventTypes& GetProcessActions() const = 0;
  [[nodiscard]] virtual const EventTypes& GetNetworkActions() const = 0;

  // Unique among the rules of its type within its tag; becomes the key of its kernel rules.
  [[nodiscard]] virtual const std::string& GetId() const = 0;
  // Of a process rule: unique among those of all tags.
  [[nodiscard]] virtual const std::string& GetName() const = 0;
  // Absolute path that a file or directory rule watches. A process or network rule may have none and then throws
  // EventRuleException.
  [[nodiscard]] virtual const std::string& GetPath() const = 0;
  [[nodiscard]] virtual ObjectType GetType() const = 0;
  // The place of a question that no kind of rule has an answer to: throws EventRuleException.
  [[nodiscard]] virtual EventType GetEventType() const;
  [[nodiscard]] virtual MatchResult Match(const Event& event) const = 0;
  // Whether the rule may keep quiet about the event because of what its actor's program is called.
  [[nodiscard]] virtual bool TrustsProgramOf(const Event& /*event*/) const { return false; }
};

// The event types that a rule wants to hear of: file actions; file and directory actions; process actions; or network
// actions, by the rule's type.
EventTypes EventTypesOf(const EventRule& rule);

}  // namespace zagent::edr

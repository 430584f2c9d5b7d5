#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "src/edr/Event.h"
#include "src/edr/EventRule.h"

namespace zagent::edr {

class RuleEngineException : public std::runtime_error {
 public:
  // By the id of a rule, why it was not taken.
  using Refusals = std::map<std::string, std::string>;

  using std::runtime_error::runtime_error;
  RuleEngineException(const std::string& text, Refusals refusals)
      : std::runtime_error(text), refusals_(std::move(refusals)) {}

  // Of AddRules that has taken the other rules; empty when none was taken.
  [[nodiscard]] const Refusals& GetRefusals() const { return refusals_; }

 private:
  Refusals refusals_;
};

// Stands between rule producers (FIM, IOC) and the event source. Producers register handlers and rules under a tag;
// events enter through ProcessEvent and leave through the handlers of the tags whose rules match.
//
// AddRules, Invalidate and the registration may be called from any thread. ProcessEvent, OnIdle and OnStop belong to
// the event-processing thread, and handlers run on it: they return quickly, and Clone what they keep unless they
// are keepers.
class EventRuleEngine {
 public:
  // Called once a tag for each event, the tags in the order of their names.
  using RuleMatchedEventHandler = std::function<void(const std::vector<std::string>& rule_ids, const Event& event)>;
  // Likewise, for who keeps the event: the event itself when nobody else needs it any more, else a Clone of it.
  using EventKeeper = std::function<void(const std::vector<std::string>& rule_ids, std::unique_ptr<Event> event)>;
  // The rule set was dropped: the owner adds its rules again. Called without any lock of the engine.
  using InvalidatedEventHandler = std::function<void()>;
  using Rules = std::vector<std::shared_ptr<const EventRule>>;

  EventRuleEngine() = default;
  EventRuleEngine(const EventRuleEngine&) = delete;
  EventRuleEngine& operator=(const EventRuleEngine&) = delete;
  virtual ~EventRuleEngine() = default;

  // Replaces the rules of a tag; an empty set removes them. Throws std::runtime_error for an empty tag or a null
  // rule, RuleEngineException when the kernel cannot be asked, and with the refusals of those rules that were not
  // taken.
  virtual void AddRules(const std::string& tag, Rules rules) = 0;
  // Drops and re-installs everything, after the kernel's rules were lost.
  virtual void Invalidate() = 0;
  // Takes the event over if it keeps it for later; what it is done with stays with the caller. A failure of one event
  // never leaves this call, apart from the null pointer's std::runtime_error.
  virtual void ProcessEvent(std::unique_ptr<Event>&& event) = 0;
  // Housekeeping, between two events and about once a second when none comes: one portion of what is due, no longer
  // than one event takes. True when more is due; the caller then sees to its own duties and calls again.
  virtual bool OnIdle() = 0;
  // No event will come for now: what still waits inside is delivered, for at most `time`; what then remains is dropped
  // and counted.
  virtual void OnStop(std::chrono::nanoseconds time) = 0;

  // Throw std::runtime_error "EventRuleEngine::RegisterEventHandlers: 'tag' is empty" and the like.
  void RegisterEventHandlers(const std::string& tag, RuleMatchedEventHandler rule_matched,
                             InvalidatedEventHandler invalidated);
  // The same with a handler that keeps events: 'eventKeeper' in the text.
  void RegisterEventKeeper(const std::string& tag, EventKeeper keeper, InvalidatedEventHandler invalidated);
  // Waits until no handler of the tag is running, unless it is called from that handler itself.
  void UnregisterEventHandlers(const std::string& tag);

 protected:
  // Calls the handler of the tag, if there is one, without the handlers' lock.
  void CallRuleMatched(const std::string& tag, const std::vector<std::string>& rule_ids, const Event& event);
  // The same for an event that nobody needs after the call.
  void CallRuleMatched(const std::string& tag, const std::vector<std::string>& rule_ids, std::unique_ptr<Event> event);
  void CallInvalidatedOfAllTags();

 private:
  struct Handlers;
  void Register(const std::string& tag, std::shared_ptr<Handlers> fresh);
  std::shared_ptr<Handlers> FindHandlers(const std::string& tag);

  std::mutex handlers_mutex_;
  std::map<std::string, std::shared_ptr<Handlers>> handlers_;
};

}  // namespace zagent::edr

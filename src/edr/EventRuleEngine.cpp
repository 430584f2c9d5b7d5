#include "src/edr/EventRuleEngine.h"

#include <algorithm>
#include <condition_variable>
#include <memory>
#include <thread>
#include <utility>

#include "common/src/util/Log.h"

namespace zagent::edr {

// The functions of one registration, and who is inside one of them. Whoever holds this object may try to enter;
// once it is retired nobody gets in any more.
struct EventRuleEngine::Handlers {
  Handlers(RuleMatchedEventHandler matched, EventKeeper keeper, InvalidatedEventHandler dropped)
      : rule_matched(std::move(matched)), keep(std::move(keeper)), invalidated(std::move(dropped)) {}

  bool Enter() {
    const std::lock_guard lock(mutex_);
    if (retired_) return false;
    inside_.push_back(std::this_thread::get_id());
    return true;
  }

  void Leave() {
    const std::lock_guard lock(mutex_);
    inside_.erase(std::find(inside_.begin(), inside_.end(), std::this_thread::get_id()));
    // Under the lock: whoever waits may destroy what this call belongs to as soon as it wakes.
    left_.notify_all();
  }

  // Waits for every other thread inside. A handler that retires itself does not wait for itself.
  void Retire() {
    std::unique_lock lock(mutex_);
    retired_ = true;
    const std::thread::id self = std::this_thread::get_id();
    left_.wait(lock, [&] { return std::all_of(inside_.begin(), inside_.end(), [&](auto id) { return id == self; }); });
  }

  // Runs `call` inside these handlers unless they are retired.
  template <typename Call>
  void Run(const Call& call) {
    if (!Enter()) return;
    const auto leave = [](Handlers* handlers) { handlers->Leave(); };
    const std::unique_ptr<Handlers, decltype(leave)> guard(this, leave);
    call();
  }

  // One of the two is empty.
  const RuleMatchedEventHandler rule_matched;
  const EventKeeper keep;
  const InvalidatedEventHandler invalidated;

 private:
  std::mutex mutex_;
  std::condition_variable left_;
  std::vector<std::thread::id> inside_;  // a thread stands here once for each call that it is in
  bool retired_ = false;
};

void EventRuleEngine::RegisterEventHandlers(const std::string& tag, RuleMatchedEventHandler rule_matched,
                                            InvalidatedEventHandler invalidated) {
  if (tag.empty()) throw std::runtime_error("EventRuleEngine::RegisterEventHandlers: 'tag' is empty");
  if (!rule_matched) {
    throw std::runtime_error("EventRuleEngine::RegisterEventHandlers: 'ruleMatchedEventHandler' is invalid");
  }
  if (!invalidated) {
    throw std::runtime_error("EventRuleEngine::RegisterEventHandlers: 'invalidatedEventHandler' is invalid");
  }
  Register(tag, std::make_shared<Handlers>(std::move(rule_matched), nullptr, std::move(invalidated)));
}

void EventRuleEngine::RegisterEventKeeper(const std::string& tag, EventKeeper keeper,
                                          InvalidatedEventHandler invalidated) {
  if (tag.empty()) throw std::runtime_error("EventRuleEngine::RegisterEventKeeper: 'tag' is empty");
  if (!keeper) throw std::runtime_error("EventRuleEngine::RegisterEventKeeper: 'eventKeeper' is invalid");
  if (!invalidated) {
    throw std::runtime_error("EventRuleEngine::RegisterEventKeeper: 'invalidatedEventHandler' is invalid");
  }
  Register(tag, std::make_shared<Handlers>(nullptr, std::move(keeper), std::move(invalidated)));
}

void EventRuleEngine::Register(const std::string& tag, std::shared_ptr<Handlers> fresh) {
  {
    const std::lock_guard lock(handlers_mutex_);
    std::shared_ptr<Handlers>& current = handlers_[tag];
    if (current) {
      ZLOG_INFO("EventRuleEngine::RegisterEventHandlers: Replacing event handlers for '" << tag << "'");
    } else {
      ZLOG_INFO("EventRuleEngine::RegisterEventHandlers: Adding event handlers for '" << tag << "'");
    }
    current.swap(fresh);
  }
  if (fresh) fresh->Retire();  // what was registered before
}

void EventRuleEngine::UnregisterEventHandlers(const std::string& tag) {
  if (tag.empty()) throw std::runtime_error("EventRuleEngine::UnregisterEventHandlers: 'tag' is empty");
  std::shared_ptr<Handlers> removed;
  {
    const std::lock_guard lock(handlers_mutex_);
    const auto found = handlers_.find(tag);
    if (found == handlers_.end()) {
      ZLOG_WARNING("EventRuleEngine::UnregisterEventHandlers: No event handlers found for '" << tag << "'");
      return;
    }
    ZLOG_INFO("EventRuleEngine::UnregisterEventHandlers: Removing event handlers for '" << tag << "'");
    removed = std::move(found->second);
    handlers_.erase(found);
  }
  removed->Retire();
}

void EventRuleEngine::CallRuleMatched(const std::string& tag, const std::vector<std::string>& rule_ids,
                                      const Event& event) {
  const std::shared_ptr<Handlers> handlers = FindHandlers(tag);
  if (handlers == nullptr) return;
  handlers->Run([&] {
    if (handlers->keep) {
      handlers->keep(rule_ids, event.Clone());
    } else {
      handlers->rule_matched(rule_ids, event);
    }
  });
}

void EventRuleEngine::CallRuleMatched(const std::string& tag, const std::vector<std::string>& rule_ids,
                                      std::unique_ptr<Event> event) {
  const std::shared_ptr<Handlers> handlers = FindHandlers(tag);
  if (handlers == nullptr) return;
  handlers->Run([&] {
    if (handlers->keep) {
      handlers->keep(rule_ids, std::move(event));
    } else {
      handlers->rule_matched(rule_ids, *event);
    }
  });
}

std::shared_ptr<EventRuleEngine::Handlers> EventRuleEngine::FindHandlers(const std::string& tag) {
  const std::lock_guard lock(handlers_mutex_);
  const auto found = handlers_.find(tag);
  return found == handlers_.end() ? nullptr : found->second;
}

void EventRuleEngine::CallInvalidatedOfAllTags() {
  std::map<std::string, std::shared_ptr<Handlers>> all;
  {
    const std::lock_guard lock(handlers_mutex_);
    all = handlers_;
  }
  for (const auto& [tag, handlers] : all) {
    try {
      handlers->Run([&target = *handlers] { target.invalidated(); });
    } catch (const std::exception& error) {
      // One owner that cannot add its rules again must not keep the next one from doing so.
      ZLOG_ERROR("EventRuleEngine: Failed to restore the rules of '" << tag << "': " << error.what());
    }
  }
}

}  // namespace zagent::edr

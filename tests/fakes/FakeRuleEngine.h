#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "src/edr/EventRuleEngine.h"

namespace zagent::fakes {

// A rule engine without a kernel: keeps the rules that it was given, lets a test deliver events to the handlers, and
// forgets its rules on demand.
class FakeRuleEngine final : public edr::EventRuleEngine {
 public:
  struct Call {
    std::string tag;
    Rules rules;
  };

  void AddRules(const std::string& tag, Rules rules) override {
    std::function<void()> hook;
    {
      const std::lock_guard lock(mutex_);
      hook.swap(before_next_add_);
    }
    if (hook) hook();
    const std::lock_guard lock(mutex_);
    calls_.push_back({tag, std::move(rules)});
    if (!add_error_.empty()) throw edr::RuleEngineException(add_error_);
    edr::RuleEngineException::Refusals refusals;
    for (const auto& rule : calls_.back().rules) {
      if (rule->GetId() == refused_id_) refusals.emplace(refused_id_, "the kernel refuses");
    }
    if (!refusals.empty()) throw edr::RuleEngineException("the kernel refuses", refusals);
  }
  void Invalidate() override {
    std::string error;
    {
      const std::lock_guard lock(mutex_);
      error = invalidate_error_;
    }
    if (!error.empty()) throw edr::RuleEngineException(error);
    CallInvalidatedOfAllTags();
  }
  // Every rule in force matches every event.
  void ProcessEvent(std::unique_ptr<edr::Event>&& event) override {
    std::map<std::string, std::vector<std::string>> ids;
    for (const Call& call : Calls()) {
      ids[call.tag].clear();
      for (const auto& rule : call.rules) ids[call.tag].push_back(rule->GetId());
    }
    for (const auto& [tag, rule_ids] : ids) {
      if (!rule_ids.empty()) Deliver(tag, rule_ids, *event);
    }
  }
  bool OnIdle() override { return false; }
  void OnStop(std::chrono::nanoseconds) override {}

  void Deliver(const std::string& tag, const std::vector<std::string>& rule_ids, const edr::Event& event) {
    CallRuleMatched(tag, rule_ids, event);
  }

  // Called at the start of the next AddRules, before its rules are taken: something else happens in between.
  void BeforeNextAdd(std::function<void()> hook) {
    const std::lock_guard lock(mutex_);
    before_next_add_ = std::move(hook);
  }
  // The following AddRules throw RuleEngineException with this text; an empty one ends that.
  void FailAdds(const std::string& error) {
    const std::lock_guard lock(mutex_);
    add_error_ = error;
  }
  // The following Invalidate throw RuleEngineException with this text, and drop no rule; an empty one ends that.
  void FailInvalidate(const std::string& error) {
    const std::lock_guard lock(mutex_);
    invalidate_error_ = error;
  }
  // The following AddRules refuse this rule, with the words "the kernel refuses", and take the others.
  void RefuseRule(const std::string& id) {
    const std::lock_guard lock(mutex_);
    refused_id_ = id;
  }
  [[nodiscard]] std::vector<Call> Calls() const {
    const std::lock_guard lock(mutex_);
    return calls_;
  }
  // Rule id -> path of the last AddRules of the tag; empty for what is no rule of files.
  [[nodiscard]] std::map<std::string, std::string> Installed(const std::string& tag) const {
    const std::lock_guard lock(mutex_);
    std::map<std::string, std::string> installed;
    for (const Call& call : calls_) {
      if (call.tag != tag) continue;
      installed.clear();
      for (const auto& rule : call.rules) {
        const edr::ObjectType type = rule->GetType();
        const bool has_path = type == edr::ObjectType::File || type == edr::ObjectType::Directory;
        installed[rule->GetId()] = has_path ? rule->GetPath() : "";
      }
    }
    return installed;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<Call> calls_;
  std::function<void()> before_next_add_;
  std::string add_error_;
  std::string invalidate_error_;
  std::string refused_id_;
};

}  // namespace zagent::fakes

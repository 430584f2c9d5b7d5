#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "src/ioc/engines/Engine.h"
#include "src/ioc/process/TtlProcessTree.h"
#include "src/ioc/rules/EventRuleManager.h"

namespace zagent::ioc::internal {

// The last judge of an event: does the manifest want just this one? Also keeps the tag "Excluded" of processes whose
// start it does not want.
class FilteringEngine final : public Engine {
 public:
  // `tree` and `manager` outlive the engine.
  FilteringEngine(TtlProcessTree& tree, const EventRuleManager& manager);

  // From the next event on the rules that the manager has by then are asked. Any thread.
  void OnRulesChanged();

  // Clean: not to be reported. Unknown: to be reported. Throws what the tree throws for a process that it does not
  // know.
  Verdict Process(const edr::Event& event) override;

 private:
  // A rule, and what decides whether it is asked.
  struct Candidate {
    std::shared_ptr<const edr::EventRule> rule;
    edr::ObjectType type;
    std::string path;  // without ".."; empty for rules that have none
  };

  void TakeChangedRules();
  void TakeRules();
  [[nodiscard]] Verdict Judge(const edr::Event& event, const ProcessInfo& process) const;
  [[nodiscard]] Verdict JudgeEnd(const edr::Event& event, const ProcessInfo& process) const;
  [[nodiscard]] bool IsWhitelisted(const edr::Event& event) const;
  [[nodiscard]] bool MatchesRule(const edr::Event& event) const;
  static void KeepExcludedTag(const edr::Event& event, ProcessInfo& process, Verdict verdict);

  TtlProcessTree& tree_;
  const EventRuleManager& manager_;
  std::mutex mutex_;
  bool rules_changed_ = false;
  // Of the processing thread:
  std::vector<Candidate> rules_;
  Manifest::WhitelistRules whitelist_rules_;
};

}  // namespace zagent::ioc::internal

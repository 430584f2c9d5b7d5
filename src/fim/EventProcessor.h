#pragma once

#include <memory>
#include <string>
#include <vector>

#include "common/src/storage/Storage.h"
#include "src/edr/Event.h"
#include "src/fim/ContentReader.h"
#include "src/fim/RuleTable.h"

namespace zagent::fim::internal {

// Decides which events are reported, and queues a JSON document for each to the spool.
//
// PostProcess is the handler that the rule engine calls, on its event thread. What it throws costs that one event.
class EventProcessor {
 public:
  // Both outlive the processor.
  EventProcessor(const RuleTable& rules, common::Storage& storage);
  EventProcessor(const EventProcessor&) = delete;
  EventProcessor& operator=(const EventProcessor&) = delete;
  ~EventProcessor();

  // Asks the rules of `rule_ids` in order: action and depth first, filters last. An event that no rule takes is
  // dropped.
  void PostProcess(const std::vector<std::string>& rule_ids, const edr::Event& event);

 private:
  using MatchedRules = std::vector<std::shared_ptr<const EventRule>>;

  [[nodiscard]] MatchedRules FindMatchingRules(const std::vector<std::string>& rule_ids, const edr::Event& event) const;
  void WriteJsonDoc(const MatchedRules& rules, const edr::Event& event);
  void QueueToStorage(const std::string& document);

  const RuleTable& rules_;
  common::Storage& storage_;
};

}  // namespace zagent::fim::internal

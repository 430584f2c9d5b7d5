#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "common/src/storage/Storage.h"
#include "common/src/util/Clock.h"
#include "common/src/util/LinePace.h"
#include "src/edr/DigestPace.h"
#include "src/edr/Event.h"
#include "src/fim/Baseline.h"
#include "src/fim/EventDocument.h"
#include "src/fim/RuleTable.h"
#include "src/health/ComponentHealth.h"

namespace zagent::fim::internal {

// Decides which events are reported, and queues a JSON document for each to the spool. The first event of a file on a
// rule with `trackContentChange` brings a second document before its own: the file's baseline.
//
// PostProcess is the handler that the rule engine calls, on its event thread. What it throws costs that one event.
class EventProcessor {
 public:
  // `digests` is the cache of the events. All outlive the processor; `baseline` and `health` also its storage's last
  // answer.
  EventProcessor(const RuleTable& rules, common::Storage& storage, Baseline& baseline,
                 common::util::DigestCache& digests, const health::ComponentHealth& health,
                 const common::util::Clock& clock = common::util::Clock::Real());
  EventProcessor(const EventProcessor&) = delete;
  EventProcessor& operator=(const EventProcessor&) = delete;
  ~EventProcessor();

  // Asks the rules of `rule_ids` in order: action and depth first, filters last. An event that no rule takes is
  // dropped. An event of the type Baseline only asks for the baseline of its file, by the rules of `rule_ids`.
  void PostProcess(const std::vector<std::string>& rule_ids, const edr::Event& event);

 private:
  using MatchedRules = std::vector<std::shared_ptr<const EventRule>>;
  // The storage's answer, on any thread, when the processor may have gone, with the content status that the document
  // has. May be empty.
  using OnSpooled = std::function<void(bool is_taken, const std::string& content_status)>;

  [[nodiscard]] MatchedRules FindRules(const std::vector<std::string>& rule_ids) const;
  [[nodiscard]] MatchedRules FindMatchingRules(const std::vector<std::string>& rule_ids, const edr::Event& event) const;
  void TakeBaselines(const MatchedRules& rules, const edr::Event& event);
  void TakeBaseline(const std::shared_ptr<const EventRule>& rule, std::uint32_t event_id, const std::string& path);
  // False when the storage has refused the document at once: `on_spooled` is not called then.
  bool WriteJsonDoc(const MatchedRules& rules, const edr::Event& event, const OnSpooled& on_spooled = {});
  void QueueToStorage(const edr::Event& event, const EventDocumentParts& parts, const OnSpooled& on_spooled);

  const RuleTable& rules_;
  common::Storage& storage_;
  Baseline& baseline_;
  const health::ComponentHealth& health_;
  const common::util::Clock& clock_;
  const std::shared_ptr<common::util::LinePace> refusals_;
  edr::DigestPace pace_;
};

}  // namespace zagent::fim::internal

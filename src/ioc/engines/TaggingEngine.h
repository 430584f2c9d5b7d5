#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "common/src/util/Json.h"
#include "src/ioc/engines/Engine.h"
#include "src/ioc/engines/Tag.h"
#include "src/ioc/process/TtlProcessTree.h"

namespace zagent::ioc::internal {

// Marks processes with the tactics that their behaviour shows. Each tag adds its score to that of the process, and a
// process that reaches the threshold is suspicious.
//
// A tag and its score go to the children that a process has when it earns the tag, to those that it starts later, and
// to its siblings; but neither from process 1 nor between its children, who have nothing to do with each other.
class TaggingEngine final : public Engine {
 public:
  // `settings` as for Configure. `tree` outlives the engine.
  TaggingEngine(TtlProcessTree& tree, const rapidjson::Value& settings);

  // Takes the tags and the threshold of a manifest's `tags`. Settings that cannot be used are told in one Error line,
  // and the old ones stay. Any thread.
  void Configure(const rapidjson::Value& settings);

  // 0: tagging is off. Any thread.
  [[nodiscard]] std::int64_t GetThresholdScore() const { return threshold_score_; }

  // Suspicious or Clean. Throws what the tree throws for a process that it does not know.
  Verdict Process(const edr::Event& event) override;

 private:
  using Tags = std::unordered_map<std::string, std::shared_ptr<const Tag>>;  // by name

  [[nodiscard]] Tags MakeTags(const rapidjson::Value& settings) const;
  template <typename Kind>
  void MakeTag(const rapidjson::Value& settings, Tags& tags) const;

  // With mutex_ held:
  void Inherit(const std::shared_ptr<ProcessInfo>& process);
  [[nodiscard]] std::vector<std::shared_ptr<ProcessInfo>> SiblingsToAsk(const ProcessInfo& process) const;
  void Judge(const edr::Event& event, ProcessInfo& process) const;
  void Spread(const Tag& tag, const ProcessInfo& source) const;
  static void GiveToAll(const Tag& tag, const std::vector<std::shared_ptr<ProcessInfo>>& processes,
                        const ProcessInfo& source);

  TtlProcessTree& tree_;
  std::mutex mutex_;
  std::atomic<std::int64_t> threshold_score_ = 0;
  Tags tags_;
  // By the parent, the child that has inherited last. It has every tag that one of its siblings has: it got those that
  // were there, and each that was earned since went to all of them. So thousands of children are not asked one by one.
  std::unordered_map<std::int32_t, std::weak_ptr<const ProcessInfo>> heirs_;
};

}  // namespace zagent::ioc::internal

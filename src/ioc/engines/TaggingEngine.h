#pragma once

#include <atomic>
#include <cstddef>
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

  using Pointer = std::shared_ptr<ProcessInfo>;
  // Of the children of one parent, two that have a tag, of which one may end or start another program. Without an entry
  // none has it.
  static constexpr std::size_t kBearers = 2;
  using Bearers = std::vector<std::weak_ptr<const ProcessInfo>>;
  using Family = std::unordered_map<const Tag*, Bearers>;

  // With mutex_ held:
  void Inherit(const Pointer& process);
  [[nodiscard]] const Family& FamilyOf(const ProcessInfo& child);
  [[nodiscard]] static bool CanTell(const Family& family, std::int32_t parent);
  [[nodiscard]] static bool HasBearer(const Bearers& bearers, const Tag& tag, std::int32_t parent);
  [[nodiscard]] static bool IsBearer(const ProcessInfo* process, const Tag& tag, std::int32_t parent);
  static void Note(Family& family, const Tag& tag, const Pointer& process);
  void Judge(const edr::Event& event, const Pointer& process);
  void Spread(const Tag& tag, const ProcessInfo& source);
  void GiveToAll(const Tag& tag, const std::vector<Pointer>& processes, const ProcessInfo& source);
  void Give(const Tag& tag, const Pointer& process);

  TtlProcessTree& tree_;
  std::mutex mutex_;
  std::atomic<std::int64_t> threshold_score_ = 0;
  Tags tags_;
  // By the parent of whom a child has inherited, so that thousands of children are not asked one by one each time one
  // starts a program.
  std::unordered_map<std::int32_t, Family> families_;
};

}  // namespace zagent::ioc::internal

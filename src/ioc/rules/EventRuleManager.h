#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "common/src/util/Json.h"
#include "src/edr/EventRuleEngine.h"
#include "src/health/ComponentHealth.h"
#include "src/ioc/config/Config.h"
#include "src/ioc/process/TtlProcessTree.h"
#include "src/ioc/rules/Manifest.h"

namespace zagent::ioc::internal {

// Turns the manifests of the configuration into live rules, and keeps what they say beside the rules.
//
// Each manifest is judged by itself: one that cannot be read or parsed is told in one Error line and skipped. Of two
// rules with one id the later one holds, and of settings that two manifests give the later manifest's.
//
// A rule whose path leads through a symbolic link holds for it as it is written and as it is meant (FollowLinks). One
// whose path nothing can have is told in one Error line and left out.
//
// A rule engine that cannot reach the kernel is logged; the rules stay here, and reach the engine with the next change
// or when the engine says that it has lost its rules.
//
// Update belongs to the control thread; everything else may be called from any thread.
class EventRuleManager {
 public:
  static constexpr const char* kTag = "IOC";

  // Loads the manifests and adds their rules to the engine; its handlers are the owner's. `config`, `engine`, `tree`
  // and `health` outlive the manager.
  EventRuleManager(const Config& config, edr::EventRuleEngine& engine, const TtlProcessTree& tree,
                   const health::ComponentHealth& health);
  EventRuleManager(const EventRuleManager&) = delete;
  EventRuleManager& operator=(const EventRuleManager&) = delete;
  ~EventRuleManager() = default;

  // Loads the manifests again if their list has changed (by path and type), calls `on_loaded` if there is one, and
  // replaces the rules of the engine, where what is in both sets stays in force. True if the list has changed.
  bool Update(const std::function<void()>& on_loaded = {});
  // For the engine: adds the rules again.
  void OnRulesInvalidated();

  // As they are now, by id.
  [[nodiscard]] Manifest::Rules GetRules() const;
  [[nodiscard]] Manifest::WhitelistRules GetWhitelistGlobalRules() const;

  [[nodiscard]] bool HasGatewayUrl() const;
  // Throws std::runtime_error "EventRuleManager: Gateway URL does not exist".
  [[nodiscard]] std::string GetGatewayUrl() const;
  [[nodiscard]] bool IsHeuristicsEnabled() const;
  [[nodiscard]] bool GetSendMetadata() const;
  [[nodiscard]] std::vector<std::string> GetKnownProcessPaths() const;
  // An object, never null; empty when tagging is off.
  [[nodiscard]] std::shared_ptr<const rapidjson::Document> GetTaggingSettings() const;

 private:
  using Manifests = std::vector<Config::ManifestEntry>;
  // By the path of a manifest, why it cannot be used; an empty text when it can.
  using Verdicts = std::map<std::string, std::string>;
  // A rule as its manifest gives it.
  struct Given {
    std::shared_ptr<const edr::EventRule> rule;
    std::string manifest;  // its path
  };
  using GivenRules = std::map<std::string, Given>;  // by id
  // What the manifests say.
  struct Loaded {
    std::map<std::string, std::shared_ptr<const edr::EventRule>> rules;  // by id, on this disk
    Manifest::WhitelistRules whitelist_rules;
    bool has_gateway_url = false;
    std::string gateway_url;
    bool is_heuristics_enabled = true;
    bool send_metadata = false;
    std::vector<std::string> known_process_paths;
    std::shared_ptr<const rapidjson::Document> tagging_settings;
    Verdicts verdicts;
    std::map<std::string, std::string> owners;  // by the id of a rule, the path of its manifest
  };
  // A failure of the engine; without text there is none, without refusals it concerns all rules.
  struct EngineFailure {
    std::string text;
    edr::RuleEngineException::Refusals refusals;
  };

  void Load(const Manifests& manifests);
  static void Take(const Manifest& manifest, const std::string& path, GivenRules& given, Loaded& loaded);
  // False, with an Error line, for a rule whose path nothing can have.
  static bool HasUsablePath(const edr::EventRule& rule, const std::string& manifest, Loaded& loaded);
  // Makes the rules of this disk of those that the manifests give, when all of them are known.
  static void Derive(const GivenRules& given, Loaded& loaded);
  void Apply();
  EngineFailure HandToEngine(edr::EventRuleEngine::Rules rules);
  // Tells what has become of each manifest.
  void Report(const EngineFailure& failure);

  template <typename T>
  T Locked(const T& field) const {
    const std::lock_guard lock(mutex_);
    return field;
  }

  const Config& config_;
  edr::EventRuleEngine& engine_;
  const TtlProcessTree& tree_;
  const health::ComponentHealth& health_;

  mutable std::mutex mutex_;
  Manifests manifests_;
  Loaded loaded_;
  std::uint64_t generation_ = 0;  // of what was loaded
};

}  // namespace zagent::ioc::internal

#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "common/src/util/Json.h"
#include "src/edr/EventRule.h"
#include "src/fim/Filter.h"
#include "src/fim/ManifestMistake.h"

namespace zagent::fim::internal {

// What is wrong in a rule object, and where in it.
class RuleFault : public edr::EventRuleException {
 public:
  explicit RuleFault(const std::string& reason, JsonPlace place = {})
      : edr::EventRuleException(reason), place_(std::move(place)) {}
  [[nodiscard]] const JsonPlace& Place() const { return place_; }

 private:
  JsonPlace place_;
};

// A rule of a FIM manifest: which changes of which objects below one path are reported. docs/MANIFESTS.md tells its
// JSON. Immutable once built.
//
// The kernel watches the whole subtree of a folder, and the rule engine finds the rule for every path below it:
// PostProcess and the filters narrow that down to what the manifest asked for.
class EventRule final : public edr::EventRule {
 public:
  // No rule looks more than this many levels below its path, "all" included.
  static constexpr int kMaxDepth = 10;

  // Throws RuleFault with the first thing that is wrong in the rule object.
  explicit EventRule(const rapidjson::Value& json);
  // `other` under another id and for another path: one end of a watched symbolic link. Its report id stays.
  // Throws RuleFault "Cannot create rule: Path is empty.".
  EventRule(const EventRule& other, std::string id, const std::string& path);

  [[nodiscard]] const edr::EventTypes& GetDirectoryActions() const override;
  [[nodiscard]] const edr::EventTypes& GetFileActions() const override { return file_actions_; }
  [[nodiscard]] const edr::EventTypes& GetProcessActions() const override;
  [[nodiscard]] const edr::EventTypes& GetNetworkActions() const override;
  [[nodiscard]] const std::string& GetId() const override { return id_; }
  [[nodiscard]] const std::string& GetName() const override { return id_; }
  [[nodiscard]] const std::string& GetPath() const override { return path_; }
  [[nodiscard]] edr::ObjectType GetType() const override { return type_; }
  // A failed PostProcess is OutOfScope, a failed filter RefusedByFilter. An event of an object that the kernel watched
  // for this rule and that has none of its names below the rule's path (another hard link, a bind mount, a folder that
  // was moved) has no depth: actions and filters decide alone.
  [[nodiscard]] edr::MatchResult Match(const edr::Event& event) const override;
  [[nodiscard]] bool TrustsProgramOf(const edr::Event& event) const override;

  // Is the event's action in the notify set, and its object no deeper than the rule looks? For a rename one of both
  // ends must lie below the rule's path.
  [[nodiscard]] bool PostProcess(const edr::Event& event) const;
  // Inclusion filters alone when there are any, else exclusion filters; a rule without filters takes everything.
  [[nodiscard]] bool MatchFilters(const edr::Event& event) const;

  // The `ruleId` of the manifest, as it is reported.
  [[nodiscard]] const std::string& GetReportId() const { return report_id_; }
  [[nodiscard]] bool IsTrackContentChange() const { return track_content_change_; }

 private:
  void ParseNotify(const rapidjson::Value& json);
  void ParseTrackContentChange(const rapidjson::Value& json);
  void SetPath(const std::string& path);
  [[nodiscard]] bool WantsAction(const edr::Event& event) const;
  [[nodiscard]] bool LiesElsewhere(const edr::Event& event) const;
  [[nodiscard]] bool IsWithinDepth(const std::string& path) const;
  [[nodiscard]] bool IsBelowPath(const std::string& path) const;

  std::string id_;
  std::string report_id_;
  edr::ObjectType type_ = edr::ObjectType::File;
  std::string path_;         // tidy, however the manifest has it: kernel, path index and records know it by one text
  std::string normal_path_;  // what events are held against
  int path_depth_ = 0;
  int recursive_depth_ = 0;
  edr::EventTypes file_actions_;
  edr::EventTypes directory_actions_;
  std::vector<Filter> inclusion_filters_;
  std::vector<Filter> exclusion_filters_;
  bool track_content_change_ = false;
};

}  // namespace zagent::fim::internal

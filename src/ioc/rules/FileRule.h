#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "common/src/util/Json.h"
#include "src/edr/EventRule.h"
#include "src/ioc/process/TtlProcessTree.h"
#include "src/ioc/rules/FilterGroups.h"

namespace zagent::ioc::internal {

// A rule of an IOC manifest for one file, or for a folder and what is below it. docs/MANIFESTS.md tells its JSON.
//
// Folders are watched for what happens to them, but never reported as created: the kernel tells of every new folder
// with the files that are made in it.
class FileRule final : public edr::EventRule {
 public:
  // No rule looks more than this many levels below its path.
  static constexpr unsigned kMaxDepth = 10;

  // `max_file_size` in bytes, 0 for no limit. Throws RuleFault with the first thing that is wrong in the rule object.
  // `tree` outlives the rule.
  FileRule(const rapidjson::Value& json, std::int64_t max_file_size, const TtlProcessTree& tree);
  // `other` under another id and for another path, absolute and tidy.
  FileRule(const FileRule& other, std::string id, const std::string& path);

  [[nodiscard]] const edr::EventTypes& GetDirectoryActions() const override;
  [[nodiscard]] const edr::EventTypes& GetFileActions() const override { return file_actions_; }
  [[nodiscard]] const edr::EventTypes& GetProcessActions() const override;
  [[nodiscard]] const edr::EventTypes& GetNetworkActions() const override;
  [[nodiscard]] const std::string& GetId() const override { return id_; }
  [[nodiscard]] const std::string& GetName() const override { return id_; }
  [[nodiscard]] const std::string& GetPath() const override { return path_; }
  [[nodiscard]] edr::ObjectType GetType() const override { return type_; }
  // Throws EventRuleException "Invalid Rule" for an event of anything but a file or folder.
  [[nodiscard]] edr::MatchResult Match(const edr::Event& event) const override;

 private:
  void SetPath(const std::string& path);
  void ParseDepth(const rapidjson::Value& json);
  void ParseFileTypes(const rapidjson::Value& json);
  void ParseNotify(const rapidjson::Value& json);
  [[nodiscard]] edr::MatchResult MatchDirectory(const edr::Event& event) const;
  [[nodiscard]] edr::MatchResult MatchFile(const edr::Event& event) const;
  [[nodiscard]] edr::MatchResult MatchFilters(const edr::Event& event) const;
  [[nodiscard]] bool IsInDepth(const edr::Event& event) const;
  [[nodiscard]] bool IsPathInDepth(std::string_view path) const;
  [[nodiscard]] bool HasSizeToProcess(const edr::Event& event, std::string_view path) const;

  std::string id_;
  edr::ObjectType type_ = edr::ObjectType::File;
  std::string path_;         // as the kernel is asked to watch it
  std::string normal_path_;  // what events are held against
  int path_depth_ = 0;
  std::int64_t max_file_size_;  // bytes; 0: none
  std::uint8_t recursive_depth_ = 0;
  RuleFilters filters_;
  std::optional<FilterGroup> file_types_;
  edr::EventTypes directory_actions_;
  edr::EventTypes file_actions_;
};

}  // namespace zagent::ioc::internal

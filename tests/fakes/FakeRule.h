#pragma once

#include <memory>
#include <string>
#include <utility>

#include "src/edr/EventRule.h"

namespace zagent::fakes {

// A rule written by hand. Matches everything.
class FakeRule final : public edr::EventRule {
 public:
  FakeRule(std::string rule_id, edr::ObjectType object_type, std::string rule_path, edr::EventTypes event_types)
      : id(std::move(rule_id)), path(std::move(rule_path)), type(object_type), types(std::move(event_types)) {}

  static std::shared_ptr<const FakeRule> File(std::string id, std::string path, edr::EventTypes types) {
    return std::make_shared<const FakeRule>(std::move(id), edr::ObjectType::File, std::move(path), std::move(types));
  }
  static std::shared_ptr<const FakeRule> Directory(std::string id, std::string path, edr::EventTypes types) {
    return std::make_shared<const FakeRule>(std::move(id), edr::ObjectType::Directory, std::move(path),
                                            std::move(types));
  }

  FakeRule(FakeRule&& other) noexcept
      : id(std::move(other.id)),
        path(std::move(other.path)),
        name(std::move(other.name)),
        path_error(std::move(other.path_error)),
        type(other.type),
        types(std::move(other.types)),
        directory_types(std::move(other.directory_types)),
        trusts_programs(other.trusts_programs) {}

  std::string id, path;
  std::string name;        // the id when empty
  std::string path_error;  // GetPath throws EventRuleException with this text when it is not empty
  edr::ObjectType type;
  edr::EventTypes types;
  edr::EventTypes directory_types;  // of a directory rule, beside its file actions
  bool trusts_programs = false;

  [[nodiscard]] const edr::EventTypes& GetDirectoryActions() const override {
    return Actions(edr::ObjectType::Directory, directory_types);
  }
  [[nodiscard]] const edr::EventTypes& GetFileActions() const override {
    return Actions(type == edr::ObjectType::Directory ? type : edr::ObjectType::File, types);
  }
  [[nodiscard]] const edr::EventTypes& GetProcessActions() const override {
    return Actions(edr::ObjectType::Process, types);
  }
  [[nodiscard]] const edr::EventTypes& GetNetworkActions() const override {
    return Actions(edr::ObjectType::Network, types);
  }
  [[nodiscard]] const std::string& GetId() const override { return id; }
  [[nodiscard]] const std::string& GetName() const override { return name.empty() ? id : name; }
  [[nodiscard]] const std::string& GetPath() const override {
    if (!path_error.empty()) throw edr::EventRuleException(path_error);
    return path;
  }
  [[nodiscard]] edr::ObjectType GetType() const override { return type; }
  [[nodiscard]] edr::MatchResult Match(const edr::Event&) const override { return edr::MatchResult::Matched; }
  [[nodiscard]] bool TrustsProgramOf(const edr::Event&) const override { return trusts_programs; }

 private:
  [[nodiscard]] const edr::EventTypes& Actions(edr::ObjectType wanted, const edr::EventTypes& answer) const {
    if (type != wanted) throw edr::EventRuleException("no actions of this type");
    return answer;
  }
};

}  // namespace zagent::fakes

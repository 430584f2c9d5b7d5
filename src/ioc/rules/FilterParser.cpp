#include "src/ioc/rules/FilterParser.h"

#include <set>
#include <string>
#include <utility>

#include "common/src/util/Log.h"
#include "src/ioc/config/LogPrefix.h"
#include "src/ioc/rules/DirectoryCriteria.h"
#include "src/ioc/rules/FileCriteria.h"
#include "src/ioc/rules/GlobalCriteria.h"
#include "src/ioc/rules/NetworkCriteria.h"
#include "src/ioc/rules/ProcessCriteria.h"
#include "src/ioc/rules/RuleFault.h"

namespace zagent::ioc::internal {
namespace {

using common::util::FindMember;
using common::util::JsonPlace;
using common::util::Within;
using edr::FilterCriteriaException;
using Group = edr::FilterCriteria::Group;

// Calls `parse` with the value and gives its mistakes the place of the value.
template <typename Parse>
auto ParseAt(const char* key, const rapidjson::Value& value, Parse parse) {
  try {
    return parse(value);
  } catch (const FilterCriteriaException& error) {
    throw FilterCriteriaException(error.what(), Within({key}, error.Place()));
  }
}

// One element of a filter section.
class GroupParser {
 public:
  GroupParser(const rapidjson::Value& json, RuleKind kind, Group group, const TtlProcessTree& tree)
      : json_(json), kind_(kind), group_(group), tree_(tree) {}

  FilterGroup Run() {
    for (const std::string& word : ParseWords()) {
      if (!Add(word)) ZLOG_DEBUG("Unsupported value: " << word << " provided in filterType");
    }
    if (has_network_filters_) {
      criteria_.push_back(std::make_shared<const NetworkCriteria>(group_, std::move(network_filters_)));
    }
    return std::move(criteria_);
  }

 private:
  // Each word once.
  [[nodiscard]] std::set<std::string> ParseWords() const {
    constexpr const char* kInvalid = "Missing or invalid filter type array";
    const rapidjson::Value* words = FindMember(json_, "filterType");
    if (words == nullptr) throw FilterCriteriaException(kInvalid);
    if (!words->IsArray()) throw FilterCriteriaException(kInvalid, {"filterType"});
    std::set<std::string> parsed;
    for (rapidjson::SizeType i = 0; i < words->Size(); ++i) {
      if (!(*words)[i].IsString()) throw FilterCriteriaException(kInvalid, {"filterType", std::to_string(i)});
      parsed.insert(common::util::ToString((*words)[i]));
    }
    return parsed;
  }

  // False for a word that this kind of rule does not know.
  bool Add(const std::string& word) {
    switch (kind_) {
      case RuleKind::Path:
        if (word == "objectType" || word == "patterns") return AddObject();
        return word == "actorProcess" && AddActor();
      case RuleKind::Process:
        if (word == "patterns") return AddProgram();
        return word == "actorProcess" && AddActor();
      case RuleKind::Network:
        return (word == "actorProcess" && AddActor()) || AddToNetwork(word);
      case RuleKind::Global:
        return word == "parentProcess" && AddAncestors();
    }
    return false;
  }

  // What the words "objectType" and "patterns" say together.
  bool AddObject() {
    if (std::exchange(has_object_, true)) return true;
    constexpr const char* kInvalid = "Missing or invalid object type in filterType";
    const rapidjson::Value* type = FindMember(json_, "objectType");
    if (type == nullptr) throw FilterCriteriaException(kInvalid);
    const std::string word = type->IsString() ? common::util::ToString(*type) : "";
    if (word == "File") {
      criteria_.push_back(std::make_shared<const FileCriteria>(group_, Patterns("patterns")));
    } else if (word == "Directory") {
      criteria_.push_back(std::make_shared<const DirectoryCriteria>(group_, Patterns("patterns")));
    } else {
      throw FilterCriteriaException(kInvalid, {"objectType"});
    }
    return true;
  }

  bool AddProgram() {
    criteria_.push_back(std::make_shared<const FileCriteria>(group_, Patterns("patterns")));
    return true;
  }

  bool AddActor() {
    criteria_.push_back(std::make_shared<const ProcessCriteria>(group_, Patterns("actorProcess"), tree_));
    return true;
  }

  bool AddAncestors() {
    criteria_.push_back(std::make_shared<const GlobalCriteria>(group_, Patterns("parentProcess"), tree_));
    return true;
  }

  bool AddToNetwork(const std::string& word) {
    if (word == "patterns") {
      network_filters_.programs = Patterns("patterns");
    } else if (word == "protocol") {
      network_filters_.protocols = Protocols();
    } else if (word == "localPort") {
      network_filters_.local.ports = Ports("localPort");
    } else if (word == "remotePort") {
      network_filters_.remote.ports = Ports("remotePort");
    } else if (word == "localIPAddress") {
      network_filters_.local.addresses = Addresses("localIPAddress");
    } else if (word == "remoteIPAddress") {
      network_filters_.remote.addresses = Addresses("remoteIPAddress");
    } else {
      return false;
    }
    if (!std::exchange(has_network_filters_, true)) ZLOG_DEBUG("Parsing Network Filter");
    return true;
  }

  [[nodiscard]] const rapidjson::Value& Array(const char* key) const {
    const rapidjson::Value* value = FindMember(json_, key);
    if (value == nullptr || !value->IsArray()) ThrowMissing(key, value);
    return *value;
  }
  [[nodiscard]] static JsonPlace PlaceOf(const char* key, const rapidjson::Value* value) {
    return value == nullptr ? JsonPlace{} : JsonPlace{key};
  }
  [[noreturn]] static void ThrowMissing(const char* key, const rapidjson::Value* value) {
    throw FilterCriteriaException(std::string("Missing or invalid ") + key + " in filterType", PlaceOf(key, value));
  }

  [[nodiscard]] std::vector<edr::PathGlob> Patterns(const char* key) const {
    return ParseAt(key, Array(key), edr::FilterCriteria::ParsePatterns);
  }
  [[nodiscard]] std::vector<AddressPattern> Addresses(const char* key) const {
    return ParseAt(key, Array(key), NetworkCriteria::ParseAddresses);
  }
  [[nodiscard]] NetworkCriteria::Ports Ports(const char* key) const {
    const rapidjson::Value* value = FindMember(json_, key);
    if (value == nullptr || !value->IsObject()) ThrowMissing(key, value);
    return ParseAt(key, *value, NetworkCriteria::ParsePorts);
  }
  [[nodiscard]] std::vector<std::string> Protocols() const {
    std::vector<std::string> protocols;
    const rapidjson::Value& array = Array("protocol");
    for (rapidjson::SizeType i = 0; i < array.Size(); ++i) {
      if (!array[i].IsString()) {
        throw FilterCriteriaException("Missing or invalid protocol in filterType", {"protocol", std::to_string(i)});
      }
      protocols.push_back(common::util::ToString(array[i]));
    }
    return protocols;
  }

  const rapidjson::Value& json_;
  const RuleKind kind_;
  const Group group_;
  const TtlProcessTree& tree_;
  FilterGroup criteria_;
  bool has_object_ = false;
  bool has_network_filters_ = false;
  NetworkCriteria::Filters network_filters_;
};

FilterGroups ParseGroups(const rapidjson::Value& section, RuleKind kind, Group group, const TtlProcessTree& tree) {
  if (!section.IsArray()) throw FilterCriteriaException("Not an array of filters");
  FilterGroups groups;
  for (rapidjson::SizeType i = 0; i < section.Size(); ++i) {
    try {
      groups.push_back(GroupParser(section[i], kind, group, tree).Run());
    } catch (const FilterCriteriaException& error) {
      throw FilterCriteriaException(error.what(), Within({std::to_string(i)}, error.Place()));
    }
  }
  return groups;
}

FilterGroups ParseSection(const rapidjson::Value& rule, const char* key, const char* failure, RuleKind kind,
                          Group group, const TtlProcessTree& tree) {
  const rapidjson::Value* section = FindMember(rule, key);
  if (section == nullptr) return {};
  try {
    return ParseGroups(*section, kind, group, tree);
  } catch (const FilterCriteriaException& error) {
    throw RuleFault(std::string(failure) + ": " + error.what(), Within({key}, error.Place()));
  }
}

}  // namespace

FilterGroups ParseInclusionFilters(const rapidjson::Value& rule, RuleKind kind, const TtlProcessTree& tree) {
  ZLOG_DEBUG("Reading Inclusion Filters");
  return ParseSection(rule, "inclusionFilters", "Failed to parse inclusion filters", kind, Group::Inclusion, tree);
}

FilterGroups ParseExclusionFilters(const rapidjson::Value& rule, RuleKind kind, const TtlProcessTree& tree) {
  ZLOG_DEBUG("Reading Exclusion Filters");
  return ParseSection(rule, "exclusionFilters", "Failed to parse exclusion filters", kind, Group::Exclusion, tree);
}

}  // namespace zagent::ioc::internal

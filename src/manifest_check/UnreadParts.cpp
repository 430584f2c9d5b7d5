#include "src/manifest_check/UnreadParts.h"

#include <algorithm>
#include <map>
#include <set>
#include <utility>

namespace zagent::manifest_check {
namespace {

using common::util::FindMember;
using common::util::JsonPlace;
using common::util::Within;

using Words = std::set<std::string>;

const Words kManifestKeys = {"policyVersion", "policyId",          "productId", "globalSettings",
                             "rules",         "knownProcessPaths", "tags",      "heuristicsEnabled"};
const Words kSettingKeys = {"maxFileSizeToProcess", "gateway_url", "sendMetadata"};

// What is read of each tag, beside its score and its exclusions.
const std::map<std::string, Words> kTags = {
    {"CredentialAccess", {"pathRegex", "processRegex"}},
    {"DefenseEvasion", {"permissions"}},
    {"Execution", {"pathRegex", "processRegex"}},
    {"Exfiltration", {"processRegex"}},
    {"Persistence", {"pathRegex"}},
    {"PrivilegeEscalation", {}},
};
const Words kExclusionKeys = {"actorProcess", "patterns"};

// What is read of a rule of one `ruleType`.
struct RuleKeys {
  Words keys;
  std::map<std::string, Words> notify;
  Words filter_types;
};

const Words kPathActions = {"create", "delete", "rename", "write", "attribute", "read"};
const Words kPathFilters = {"objectType", "patterns", "actorProcess"};

const std::map<std::string, RuleKeys> kRules = {
    {"File",
     {{"ruleId", "ruleType", "ruleClass", "imagePath", "recursiveDepth", "notify", "inclusionFilters",
       "exclusionFilters", "fileTypeToInclude"},
      {{"File", kPathActions}},
      kPathFilters}},
    {"Directory",
     {{"ruleId", "ruleType", "ruleClass", "imagePath", "recursiveDepth", "notify", "inclusionFilters",
       "exclusionFilters", "fileTypeToInclude"},
      {{"File", kPathActions}, {"Directory", kPathActions}},
      kPathFilters}},
    {"Process",
     {{"ruleId", "ruleType", "ruleClass", "notify", "inclusionFilters", "exclusionFilters"},
      {{"process", {"create", "delete"}}},
      {"patterns", "actorProcess"}}},
    {"Network",
     {{"ruleId", "ruleType", "ruleClass", "notify", "inclusionFilters", "exclusionFilters"},
      {{"network", {"establish", "listen", "close"}}},
      {"patterns", "actorProcess", "protocol", "localPort", "remotePort", "localIPAddress", "remoteIPAddress"}}},
    {"EDR", {{"ruleId", "ruleType", "ruleClass", "imagePath", "applyTo", "exclusionFilters"}, {}, {"parentProcess"}}},
};

class Search {
 public:
  std::vector<UnreadPart> Run(const rapidjson::Value& document) {
    LookAtKeys(document, kManifestKeys, {});
    const rapidjson::Value& settings = *FindMember(document, "globalSettings");
    LookAtKeys(settings, kSettingKeys, {"globalSettings"});
    const rapidjson::Value* metadata = FindMember(settings, "sendMetadata");
    if (metadata != nullptr && metadata->GetBool()) {
      Add("sendMetadata changes nothing: no event has a place for metadata", {"globalSettings", "sendMetadata"});
    }
    LookAtTags(document);
    const rapidjson::Value& rules = *FindMember(document, "rules");
    for (rapidjson::SizeType i = 0; i < rules.Size(); ++i) LookAtRule(rules[i], {"rules", std::to_string(i)});
    return std::move(found_);
  }

 private:
  void LookAtTags(const rapidjson::Value& document) {
    const rapidjson::Value* tags = FindMember(document, "tags");
    if (tags == nullptr || !tags->IsObject()) return;
    Words names = {"thresholdScore"};
    for (const auto& [name, own_keys] : kTags) {
      names.insert(name);
      const rapidjson::Value* tag = FindMember(*tags, name.c_str());
      if (tag != nullptr && tag->IsObject()) LookAtTag(*tag, own_keys, {"tags", name});
    }
    LookAtKeys(*tags, names, {"tags"});
  }

  void LookAtTag(const rapidjson::Value& tag, Words keys, const JsonPlace& place) {
    keys.insert({"score", "exclusions"});
    LookAtKeys(tag, keys, place);
    const rapidjson::Value* exclusions = FindMember(tag, "exclusions");
    if (exclusions == nullptr || !exclusions->IsArray()) return;
    for (rapidjson::SizeType i = 0; i < exclusions->Size(); ++i) {
      if (!(*exclusions)[i].IsObject()) continue;
      LookAtKeys((*exclusions)[i], kExclusionKeys, Within(place, {"exclusions", std::to_string(i)}));
    }
  }

  void LookAtRule(const rapidjson::Value& rule, const JsonPlace& place) {
    const std::string type = common::util::ToString(*FindMember(rule, "ruleType"));
    const auto known = kRules.find(type);
    if (known == kRules.end()) {
      Add("Unknown ruleType " + type + ": the rule is passed over", Within(place, {"ruleType"}));
      return;
    }
    const RuleKeys& keys = known->second;
    LookAtKeys(rule, keys.keys, place);
    if (const rapidjson::Value* notify = FindMember(rule, "notify"); notify != nullptr && !keys.notify.empty()) {
      LookAtNotify(*notify, keys.notify, Within(place, {"notify"}));
    }
    for (const char* section : {"inclusionFilters", "exclusionFilters"}) {
      const rapidjson::Value* groups = keys.keys.count(section) != 0 ? FindMember(rule, section) : nullptr;
      for (rapidjson::SizeType i = 0; groups != nullptr && i < groups->Size(); ++i) {
        LookAtGroup((*groups)[i], keys.filter_types, Within(place, {section, std::to_string(i)}));
      }
    }
  }

  void LookAtNotify(const rapidjson::Value& notify, const std::map<std::string, Words>& sections,
                    const JsonPlace& place) {
    Words keys;
    for (const auto& [section, words] : sections) keys.insert(section);
    LookAtKeys(notify, keys, place);
    for (const auto& [section, words] : sections) LookAtWords(notify, section.c_str(), words, place);
  }

  void LookAtGroup(const rapidjson::Value& group, const Words& types, const JsonPlace& place) {
    LookAtWords(group, "filterType", types, place);
    Words read = {"filterType"};
    for (const auto& word : FindMember(group, "filterType")->GetArray()) read.insert(common::util::ToString(word));
    if (types.count("objectType") != 0 && (read.count("objectType") != 0 || read.count("patterns") != 0)) {
      read.insert({"objectType", "patterns"});
    }
    for (const auto& member : group.GetObject()) {
      const std::string key = common::util::ToString(member.name);
      if (read.count(key) != 0) continue;
      Add("Not named in filterType, and passed over: " + key, Within(place, {key}));
    }
  }

  // Of an array of texts, if it is there.
  void LookAtWords(const rapidjson::Value& object, const char* key, const Words& known, const JsonPlace& place) {
    const rapidjson::Value* words = FindMember(object, key);
    for (rapidjson::SizeType i = 0; words != nullptr && i < words->Size(); ++i) {
      const std::string word = common::util::ToString((*words)[i]);
      if (known.count(word) == 0) {
        Add("Unknown word, which is passed over: " + word, Within(place, {key, std::to_string(i)}));
      }
    }
  }

  void LookAtKeys(const rapidjson::Value& object, const Words& known, const JsonPlace& place) {
    for (const auto& member : object.GetObject()) {
      const std::string key = common::util::ToString(member.name);
      if (known.count(key) == 0) Add("Unknown key, which is passed over: " + key, Within(place, {key}));
    }
  }

  void Add(std::string text, JsonPlace place) { found_.push_back({std::move(text), std::move(place)}); }

  std::vector<UnreadPart> found_;
};

}  // namespace

std::vector<UnreadPart> FindUnreadParts(const rapidjson::Value& document) {
  return Search().Run(document);
}

bool IsForKernel(const rapidjson::Value& rule) {
  return kRules.count(common::util::ToString(*FindMember(rule, "ruleType"))) != 0 && !IsOfTrustedProgram(rule);
}

bool IsOfTrustedProgram(const rapidjson::Value& rule) {
  return common::util::ToString(*FindMember(rule, "ruleType")) == "EDR";
}

}  // namespace zagent::manifest_check

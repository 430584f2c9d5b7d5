#include "src/manifest_check/ManifestCheck.h"

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <set>
#include <utility>
#include <vector>

#include "common/src/storage/FileStorage.h"
#include "common/src/util/Json.h"
#include "src/audit/rules/CreateRules.h"
#include "src/audit/rules/KernelRules.h"
#include "src/edr/EventRuleEngine.h"
#include "src/ioc/engines/TaggingEngine.h"
#include "src/ioc/rules/LinkedRules.h"
#include "src/ioc/rules/RulePath.h"
#include "src/manifest_check/DoubtfulFilters.h"
#include "src/manifest_check/KernelRuleText.h"
#include "src/manifest_check/UnknownKeys.h"
#include "src/manifest_check/UnreadParts.h"

namespace zagent::manifest_check {
namespace {

using common::util::JsonPlace;
using common::util::TextPosition;
using common::util::ToString;
using fim::ManifestFile;

constexpr const char* kKnownVersion = "1.0";
constexpr const char* kThreshold = "thresholdScore";

// What the parser would tell the daemon's log, of warnings and worse.
class LogLines {
 public:
  LogLines() : logger_(Poco::Logger::get("edr")), old_channel_(logger_.getChannel()), old_level_(logger_.getLevel()) {
    logger_.setChannel(channel_);
    logger_.setLevel(Poco::Message::PRIO_WARNING);
  }
  LogLines(const LogLines&) = delete;
  LogLines& operator=(const LogLines&) = delete;
  ~LogLines() {
    logger_.setLevel(old_level_);
    logger_.setChannel(old_channel_);
  }
  [[nodiscard]] std::vector<std::string> Take() { return std::exchange(channel_->lines, {}); }

 private:
  class Memory : public Poco::Channel {
   public:
    void log(const Poco::Message& message) override {
      // Lines of the daemon begin with their component.
      const std::string& text = message.getText();
      const std::size_t prefix = text.find("]: ");
      lines.push_back(prefix == std::string::npos ? text : text.substr(prefix + 3));
    }
    std::vector<std::string> lines;
  };

  Poco::Logger& logger_;
  Poco::AutoPtr<Memory> channel_{new Memory};
  Poco::Channel::Ptr old_channel_;
  int old_level_;
};

JsonPlace IdWithin(const JsonPlace& rule) {
  return common::util::Within(rule, {"ruleId"});
}

TextPosition PositionOf(const std::string& text, const JsonPlace& place) {
  return common::util::PositionOf(text, common::util::OffsetOf(text, place));
}

bool IsOfPath(const edr::EventRule& rule) {
  return rule.GetType() == edr::ObjectType::File || rule.GetType() == edr::ObjectType::Directory;
}

// What is neither is judged as a manifest of file integrity monitoring.
bool IsOfIoc(const std::string& path) {
  constexpr std::array<const char*, 5> kKeys = {"policyVersion", "policyId", "productId", "globalSettings", "rules"};
  struct stat info {};
  if (stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode) || info.st_size > ioc::internal::kMaxManifestBytes) {
    return false;
  }
  const std::unique_ptr<common::StorageResult> content = common::FileStorage(path).Read();
  if (content == nullptr || content->code != common::StorageCode::Success) return false;
  rapidjson::Document document;
  common::util::ParseJson(document, {reinterpret_cast<const char*>(content->data.data()), content->data.size()});
  return !document.HasParseError() && common::util::FindMember(document, "data") == nullptr &&
         std::any_of(kKeys.begin(), kKeys.end(),
                     [&](const char* key) { return common::util::FindMember(document, key) != nullptr; });
}

// Of the rules of which `is_meant` holds, in their order.
std::vector<JsonPlace> PlacesOfIocRules(const std::string& text, bool (*is_meant)(const rapidjson::Value&)) {
  rapidjson::Document document;
  common::util::ParseJson(document, text);
  std::vector<JsonPlace> places;
  const rapidjson::Value& rules = *common::util::FindMember(document, "rules");
  for (rapidjson::SizeType i = 0; i < rules.Size(); ++i) {
    if (is_meant(rules[i])) places.push_back({"rules", std::to_string(i)});
  }
  return places;
}

// Which rule has got the id beside its own; empty for the own one.
std::string OfLink(const std::string& id, const std::string& rule_id) {
  return id == rule_id ? "" : " (of rule " + rule_id + ", which is on a link)";
}

// The kernel watches a file's name in its folder, which must be there.
std::string WatchedByKernel(const edr::EventRule& rule) {
  const std::string& path = rule.GetPath();
  return rule.GetType() == edr::ObjectType::File ? path.substr(0, path.rfind('/') + 1) : path;
}

}  // namespace

bool ManifestCheck::Check(const std::string& path) {
  return IsOfIoc(path) ? CheckIoc(path) : CheckFim(path);
}

bool ManifestCheck::CheckFim(const std::string& path) {
  LogLines log;
  try {
    const ManifestFile file = fim::ReadManifestFile(path);
    const bool is_known = file.manifest.GetPolicyVersion() == kKnownVersion;
    if (!is_known) {
      PrintFault(path, PositionOf(file.text, {"data", "fim", "policyVersion"}),
                 "Unknown version [" + file.manifest.GetPolicyVersion() + "] of FIM manifest. Skipping.");
      return false;
    }
    for (const std::string& line : log.Take()) PrintWarning(path, line);
    WarnOfDoubts(path, file);
    if (!CheckFimRules(path, file)) return false;
  } catch (const fim::ManifestFileException& error) {
    if (error.Faults().empty()) out_ << error.what() << "\n";
    for (const auto& fault : error.Faults()) PrintFault(path, fault.position, fault.text);
    return false;
  }
  for (const std::string& line : log.Take()) PrintWarning(path, line);
  return true;
}

bool ManifestCheck::CheckIoc(const std::string& path) {
  LogLines log;
  try {
    const ioc::internal::ManifestFile file = ioc::internal::ReadManifestFile(path, tree_);
    for (const std::string& line : log.Take()) PrintWarning(path, line);
    WarnOfUnreadParts(path, file.text);
    const bool has_good_tags = CheckTags(path, file.text);
    if (!CheckIocRules(path, file) || !has_good_tags) return false;
  } catch (const ioc::internal::ManifestFileException& error) {
    const auto& fault = error.GetFault();
    if (fault.text.empty()) {
      out_ << error.what() << "\n";
    } else {
      PrintFault(path, fault.position, fault.text);
    }
    return false;
  }
  for (const std::string& line : log.Take()) PrintWarning(path, line);
  return true;
}

bool ManifestCheck::CheckFimRules(const std::string& path, const ManifestFile& file) {
  const fim::Manifest::Rules& rules = file.manifest.GetRules();
  kernel_rules_.clear();
  bool is_good = true;
  for (std::size_t i = 0; i < rules.size(); ++i) {
    const JsonPlace place = {"data", "fim", "rules", std::to_string(i)};
    fim::internal::RuleTableBuilder builder;
    builder.Add(rules[i]);
    const fim::internal::RuleTable::Rules table = builder.Take();
    Derived derived{rules[i]->GetId(), {}, PositionOf(file.text, place), PositionOf(file.text, IdWithin(place))};
    for (const auto& [id, rule] : std::map(table.begin(), table.end())) derived.rules.push_back(rule);
    is_good = CheckRule(path, derived) && is_good;
  }
  if (is_good) PrintRules(path, rules.size(), file.manifest.CollectsHashes() ? ", with digests" : "");
  return is_good;
}

bool ManifestCheck::CheckIocRules(const std::string& path, const ioc::internal::ManifestFile& file) {
  const ioc::internal::Manifest::Rules& rules = file.manifest.GetRules();
  kernel_rules_.clear();
  bool is_good = true;
  std::set<std::string> ids;
  for (const auto& rule : rules) ids.insert(rule->GetId());
  std::size_t next = 0;
  for (const JsonPlace& place : PlacesOfIocRules(file.text, IsForKernel)) {
    const auto& rule = rules[next++];
    Derived derived{rule->GetId(), {}, PositionOf(file.text, place), PositionOf(file.text, IdWithin(place))};
    derived.rules = ioc::internal::FollowLinks(rule, [&ids](const std::string& id) { return ids.count(id) != 0; });
    for (const auto& one : derived.rules) ids.insert(one->GetId());
    std::sort(derived.rules.begin(), derived.rules.end(),
              [](const auto& left, const auto& right) { return left->GetId() < right->GetId(); });
    is_good = CheckRule(path, derived) && is_good;
  }
  const ioc::internal::Manifest::WhitelistRules& trusted = file.manifest.GetWhitelistGlobalRules();
  next = 0;
  for (const JsonPlace& place : PlacesOfIocRules(file.text, IsOfTrustedProgram)) {
    is_good = CheckPath(path, *trusted[next], PositionOf(file.text, place)) && is_good;
    (void)ioc::internal::FollowLinks(trusted[next++]);  // for its warning of a link that leads nowhere
  }
  if (!is_good) return false;
  NoteActors(path, rules);
  const std::string more = trusted.empty() ? "" : ", " + std::to_string(trusted.size()) + " of trusted programs";
  PrintRules(path, rules.size(), more);
  return true;
}

void ManifestCheck::PrintRules(const std::string& path, std::size_t count, const std::string& more) {
  out_ << path << ": " << count << (count == 1 ? " rule" : " rules") << more << "\n" << kernel_rules_;
}

bool ManifestCheck::CheckRule(const std::string& path, const Derived& derived) {
  ++rules_;
  if (!CheckId(path, derived.place_of_id, {derived.rule_id, derived.rule_id, rules_})) return false;
  for (const auto& rule : derived.rules) {
    const std::string& id = rule->GetId();
    if (id != derived.rule_id && !CheckId(path, derived.place_of_id, {id, derived.rule_id, rules_})) return false;
    if (edr::EventTypesOf(*rule).empty()) {
      PrintFault(path, derived.place, "warning: Rule " + id + " has no action that anything tells of");
      continue;
    }
    if (IsOfPath(*rule) && !CheckPath(path, *rule, derived.place)) return false;
    try {
      for (audit::internal::AuditRule& kernel_rule : audit::internal::CreateRules(*rule, coverage_)) {
        kernel_rules_ += "  " + id + ": " + KernelRuleText(kernel_rule) + "\n";
      }
    } catch (const edr::RuleEngineException& error) {
      PrintFault(path, derived.place, error.what());
      return false;
    }
    if (IsOfPath(*rule)) WarnIfMissing(path, *rule);
  }
  return true;
}

bool ManifestCheck::CheckPath(const std::string& path, const edr::EventRule& rule, const TextPosition& place) {
  const char* why = ioc::internal::WhyNobodysPath(rule.GetPath());
  if (why != nullptr) PrintFault(path, place, "Rule " + rule.GetId() + " is never in force: its path is " + why);
  return why == nullptr;
}

bool ManifestCheck::CheckId(const std::string& path, const TextPosition& place, const KnownId& own) {
  if (const char* objection = audit::internal::AuditRule::WhyRefused(own.id)) {
    PrintFault(path, place,
               "Rule id " + own.id + OfLink(own.id, own.rule_id) + " is no key for the kernel: " + objection);
    return false;
  }
  const auto [known, is_new] = ids_.emplace(audit::internal::ComparedPart(own.id), own);
  const KnownId& other = known->second;
  // The two rules of a link are one to whoever hears of them.
  if (is_new || other.rule == own.rule) return true;
  const std::string id = "Rule id " + own.id + OfLink(own.id, own.rule_id);
  if (other.id == own.id) {
    PrintFault(path, place, id + " is used more than once" + OfLink(other.id, other.rule_id) + ": the last rule holds");
  } else {
    PrintFault(path, place,
               id + " does not differ from " + other.id + OfLink(other.id, other.rule_id) + " in its first characters");
  }
  return false;
}

void ManifestCheck::WarnOfDoubts(const std::string& path, const ManifestFile& file) {
  rapidjson::Document document;
  common::util::ParseJson(document, file.text);
  for (const auto& doubts : {FindUnknownKeys(document), FindDoubtfulFilters(document)}) {
    for (const fim::ManifestMistake& doubt : doubts) {
      PrintFault(path, PositionOf(file.text, doubt.place), "warning: " + doubt.Text());
    }
  }
}

void ManifestCheck::WarnOfUnreadParts(const std::string& path, const std::string& text) {
  rapidjson::Document document;
  common::util::ParseJson(document, text);
  for (const UnreadPart& part : FindUnreadParts(document)) {
    PrintFault(path, PositionOf(text, part.place), "warning: " + part.text);
  }
}

// Each tag by itself, so that a line has its place: the engine would tell the first mistake alone.
bool ManifestCheck::CheckTags(const std::string& path, const std::string& text) {
  rapidjson::Document document;
  common::util::ParseJson(document, text);
  const rapidjson::Value* tags = common::util::FindMember(document, "tags");
  if (tags == nullptr) return true;
  if (!tags->IsObject()) {
    PrintFault(path, PositionOf(text, {"tags"}), "warning: Tagging is disabled.");
    return true;
  }
  const rapidjson::Value* threshold = common::util::FindMember(*tags, kThreshold);
  rapidjson::Document common_part(rapidjson::kObjectType);
  auto& allocator = common_part.GetAllocator();
  if (threshold != nullptr) {
    common_part.AddMember(rapidjson::StringRef(kThreshold), rapidjson::Value(*threshold, allocator), allocator);
  }
  if (!CheckTagSettings(path, PositionOf(text, {"tags"}), common_part)) return false;
  if (threshold->GetInt64() == 0) return true;
  bool is_good = true;
  for (const auto& tag : tags->GetObject()) {
    if (ToString(tag.name) == kThreshold) continue;
    rapidjson::Document settings;
    settings.CopyFrom(common_part, settings.GetAllocator());
    settings.AddMember(rapidjson::Value(tag.name, settings.GetAllocator()),
                       rapidjson::Value(tag.value, settings.GetAllocator()), settings.GetAllocator());
    is_good = CheckTagSettings(path, PositionOf(text, {"tags", ToString(tag.name)}), settings) && is_good;
  }
  return is_good;
}

// Settings that are refused leave an engine as it was, which a new one shows by having no threshold.
bool ManifestCheck::CheckTagSettings(const std::string& path, const TextPosition& place,
                                     const rapidjson::Value& settings) {
  LogLines log;
  const ioc::internal::TaggingEngine engine(tree_, settings);
  const rapidjson::Value* threshold = common::util::FindMember(settings, kThreshold);
  const bool is_off = threshold != nullptr && threshold->IsInt64() && threshold->GetInt64() == 0;
  const bool is_good = is_off || engine.GetThresholdScore() != 0;
  for (const std::string& line : log.Take()) PrintFault(path, place, (is_good ? "warning: " : "") + line);
  return is_good;
}

// Who acted is known from the starts of processes alone, which the kernel tells of for process rules.
void ManifestCheck::NoteActors(const std::string& path, const Rules& rules) {
  const bool knows_starts = std::any_of(rules.begin(), rules.end(), [](const auto& rule) {
    return rule->GetType() == edr::ObjectType::Process &&
           rule->GetProcessActions().count(edr::EventType::ProcessStart) != 0;
  });
  knows_starts_ = knows_starts_ || knows_starts;
  if (!rules.empty() && !knows_starts) without_starts_.push_back(path);
}

void ManifestCheck::Finish() {
  if (knows_starts_) return;
  for (const std::string& path : without_starts_) {
    PrintWarning(path, "Without a Process rule for \"create\" nobody knows who acts: nothing will be reported");
  }
}

void ManifestCheck::WarnIfMissing(const std::string& path, const edr::EventRule& rule) {
  const std::string watched = WatchedByKernel(rule);
  if (access(watched.c_str(), F_OK) == 0) return;
  PrintWarning(path, "Rule " + rule.GetId() + " is not in force here: there is no " + watched);
}

void ManifestCheck::PrintFault(const std::string& path, const TextPosition& place, const std::string& text) {
  out_ << path << ":" << place.line << ":" << place.column << ": " << text << "\n";
}

void ManifestCheck::PrintWarning(const std::string& path, const std::string& text) {
  out_ << path << ": warning: " << text << "\n";
}

}  // namespace zagent::manifest_check

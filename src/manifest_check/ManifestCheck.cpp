#include "src/manifest_check/ManifestCheck.h"

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>
#include <unistd.h>

#include <utility>
#include <vector>

#include "common/src/util/Json.h"
#include "src/audit/rules/CreateRules.h"
#include "src/audit/rules/KernelRules.h"
#include "src/edr/EventRuleEngine.h"
#include "src/manifest_check/KernelRuleText.h"
#include "src/manifest_check/UnknownKeys.h"

namespace zagent::manifest_check {
namespace {

using common::util::TextPosition;
using fim::JsonPlace;
using fim::ManifestFile;

constexpr const char* kKnownVersion = "1.0";

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

JsonPlace PlaceOfRule(std::size_t position) {
  return {"data", "fim", "rules", std::to_string(position)};
}

TextPosition PositionOf(const ManifestFile& file, const JsonPlace& place) {
  return common::util::PositionOf(file.text, common::util::OffsetOf(file.text, place));
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
  LogLines log;
  try {
    const ManifestFile file = fim::ReadManifestFile(path);
    const bool is_known = file.manifest.GetPolicyVersion() == kKnownVersion;
    if (!is_known) {
      PrintFault(path, PositionOf(file, {"data", "fim", "policyVersion"}),
                 "Unknown version [" + file.manifest.GetPolicyVersion() + "] of FIM manifest. Skipping.");
      return false;
    }
    for (const std::string& line : log.Take()) PrintWarning(path, line);
    WarnOfUnknownKeys(path, file);
    if (!CheckRules(path, file)) return false;
  } catch (const fim::ManifestFileException& error) {
    if (error.Faults().empty()) out_ << error.what() << "\n";
    for (const auto& fault : error.Faults()) PrintFault(path, fault.position, fault.text);
    return false;
  }
  for (const std::string& line : log.Take()) PrintWarning(path, line);
  return true;
}

bool ManifestCheck::CheckRules(const std::string& path, const ManifestFile& file) {
  const fim::Manifest::Rules& rules = file.manifest.GetRules();
  kernel_rules_.clear();
  bool is_good = true;
  for (std::size_t i = 0; i < rules.size(); ++i) is_good = CheckRule(path, file, i) && is_good;
  if (!is_good) return false;
  out_ << path << ": " << rules.size() << (rules.size() == 1 ? " rule" : " rules")
       << (file.manifest.CollectsHashes() ? ", with digests" : "") << "\n"
       << kernel_rules_;
  return true;
}

bool ManifestCheck::CheckRule(const std::string& path, const ManifestFile& file, std::size_t position) {
  const auto& rule = file.manifest.GetRules()[position];
  const TextPosition place = PositionOf(file, PlaceOfRule(position));
  const TextPosition place_of_id = PositionOf(file, fim::Within(PlaceOfRule(position), {"ruleId"}));
  ++rules_;
  if (!CheckId(path, place_of_id, {rule->GetId(), rule->GetId(), rules_})) return false;
  fim::internal::RuleTableBuilder builder;
  builder.Add(rule);
  const fim::internal::RuleTable::Rules derived = builder.Take();
  const std::map<std::string, std::shared_ptr<const fim::internal::EventRule>> in_order(derived.begin(), derived.end());
  for (const auto& [id, part] : in_order) {
    if (id != rule->GetId() && !CheckId(path, place_of_id, {id, rule->GetId(), rules_})) return false;
    try {
      for (audit::internal::AuditRule& kernel_rule : audit::internal::CreateRules(*part, coverage_)) {
        kernel_rules_ += "  " + id + ": " + KernelRuleText(kernel_rule) + "\n";
      }
    } catch (const edr::RuleEngineException& error) {
      PrintFault(path, place, error.what());
      return false;
    }
    WarnIfMissing(path, *part);
  }
  return true;
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

void ManifestCheck::WarnOfUnknownKeys(const std::string& path, const ManifestFile& file) {
  rapidjson::Document document;
  common::util::ParseJson(document, file.text);
  for (const fim::ManifestMistake& key : FindUnknownKeys(document)) {
    PrintFault(path, PositionOf(file, key.place), "warning: " + key.Text());
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

#include "src/fim/EventRuleManager.h"

#include <Poco/Exception.h>
#include <Poco/File.h>

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <string_view>
#include <utility>

#include "common/src/storage/FileStorage.h"
#include "common/src/util/Json.h"
#include "common/src/util/Log.h"
#include "src/fim/LogPrefix.h"
#include "src/fim/Manifest.h"

namespace zagent::fim::internal {
namespace {

using Manifests = std::vector<Config::ManifestEntry>;

std::optional<Manifest> LoadManifest(const std::string& path) {
  common::FileStorage file(path);
  const std::unique_ptr<common::StorageResult> content = file.Read();
  if (content == nullptr || content->code != common::StorageCode::Success) {
    ZLOG_ERROR("Failed to read manifest: " << path);
    return std::nullopt;
  }
  rapidjson::Document document;
  common::util::ParseJson(document, {reinterpret_cast<const char*>(content->data.data()), content->data.size()});
  if (document.HasParseError()) {
    ZLOG_ERROR("Invalid manifest json format for: " << path);
    return std::nullopt;
  }
  try {
    Manifest manifest(document);
    ZLOG_INFO("Successfully parsed manifest file " << path);
    return manifest;
  } catch (const ManifestException& error) {
    ZLOG_ERROR("Failed to parse manifest " << path << ": " << error.what());
    return std::nullopt;
  }
}

bool IsSymlink(const std::string& path) {
  try {
    return Poco::File(path).isLink();
  } catch (const Poco::Exception&) {
    // A name that is too long is no Poco::FileException, and nothing to fall over either.
    return false;
  }
}

std::optional<std::string> Canonical(const std::string& path) {
  const std::unique_ptr<char, decltype(&std::free)> resolved(canonicalize_file_name(path.c_str()), &std::free);
  if (resolved == nullptr) return std::nullopt;
  return std::string(resolved.get());
}

std::string Join(const std::string& folder, const std::string& name) {
  return folder.ends_with('/') ? folder + name : folder + "/" + name;
}

// The path without doubled slashes, dots and a slash at its end; the way through ".." depends on links.
std::string Tidy(const std::string& path) {
  std::string tidy;
  for (std::size_t begin = 0; begin < path.size();) {
    const std::size_t end = std::min(path.find('/', begin), path.size());
    const std::string name = path.substr(begin, end - begin);
    if (!name.empty() && name != ".") tidy += "/" + name;
    begin = end + 1;
  }
  return tidy.empty() ? "/" : tidy;
}

// The path with the links among its folders followed, as far as these exist, and the last part as it is.
std::string WithRealFolders(const std::string& path) {
  std::string folder = Tidy(path);
  std::string rest;
  while (folder != "/") {
    const std::size_t slash = folder.rfind('/');
    rest = rest.empty() ? folder.substr(slash + 1) : Join(folder.substr(slash + 1), rest);
    folder = slash == 0 ? "/" : folder.substr(0, slash);
    if (const std::optional<std::string> real = Canonical(folder)) return Join(*real, rest);
  }
  return Tidy(path);
}

bool HasLinkedFolder(const std::string& path) {
  return WithRealFolders(path) != Tidy(path);
}

// What the path means in the end; nothing for a link that leads nowhere. An object that is to come has no links.
std::optional<std::string> ResolveLink(const std::string& path) {
  if (std::optional<std::string> real = Canonical(path)) return real;
  if (IsSymlink(path)) return std::nullopt;
  return WithRealFolders(path);
}

class TableBuilder {
 public:
  void Add(const std::shared_ptr<const EventRule>& rule) {
    if (!IsSymlink(rule->GetPath()) && !HasLinkedFolder(rule->GetPath())) {
      ZLOG_INFO("Adding rule " << rule->GetId());
      Insert(rule);
      return;
    }
    if (!AddSymlink(*rule)) {
      ZLOG_ERROR("Could not create any rules from symlink monitoring path " << rule->GetPath());
    }
  }

  RuleTable::Rules Take() { return std::move(rules_); }

 private:
  // Audit reports only real objects: a link is watched as itself and as what it points to, and what lies behind links
  // as it is written and as it is meant.
  bool AddSymlink(const EventRule& rule) {
    ZLOG_INFO("Adding symlink rule " << rule.GetId());
    bool added = Derive(rule, rule.GetId() + "-1", rule.GetPath());
    if (const std::optional<std::string> target = ResolveLink(rule.GetPath())) {
      ZLOG_INFO("Adding resolved rule " << rule.GetId() << " with path " << *target);
      added = Derive(rule, rule.GetId(), *target) || added;
    } else {
      ZLOG_WARNING("Cannot resolve symlink " << rule.GetPath());
    }
    return added;
  }

  bool Derive(const EventRule& rule, const std::string& id, const std::string& path) {
    try {
      Insert(std::make_shared<const EventRule>(rule, id, path));
      return true;
    } catch (const edr::EventRuleException& error) {
      ZLOG_ERROR("Rule " << id << ": " << error.what());
      return false;
    }
  }

  void Insert(const std::shared_ptr<const EventRule>& rule) {
    if (!rules_.insert_or_assign(rule->GetId(), rule).second) {
      ZLOG_WARNING("Rule id " << rule->GetId() << " is used more than once: the last rule holds");
    }
  }

  RuleTable::Rules rules_;
};

bool SameManifests(const Manifests& left, const Manifests& right) {
  return left.size() == right.size() && std::all_of(left.begin(), left.end(), [&](const Config::ManifestEntry& entry) {
           return std::find(right.begin(), right.end(), entry) != right.end();
         });
}

}  // namespace

EventRuleManager::EventRuleManager(const Config& config, edr::EventRuleEngine& engine, RuleTable& table,
                                   edr::EventRuleEngine::RuleMatchedEventHandler handler)
    : engine_(engine), table_(table), manifests_(config.GetManifests()) {
  Load(manifests_);
  // Before the rules, so that the first event finds its way.
  engine_.RegisterEventHandlers(kTag, std::move(handler), [this] { Apply(); });
  handlers_registered_ = true;
  Apply();
}

EventRuleManager::~EventRuleManager() {
  UnregisterHandlers();
  Disable();
}

void EventRuleManager::UnregisterHandlers() {
  if (!std::exchange(handlers_registered_, false)) return;
  try {
    engine_.UnregisterEventHandlers(kTag);
  } catch (const std::exception& error) {
    ZLOG_ERROR("EventRuleManager: " << error.what());
  }
}

void EventRuleManager::Load(const Manifests& manifests) {
  TableBuilder table;
  bool collect_hashes = false;
  for (const Config::ManifestEntry& entry : manifests) {
    const std::optional<Manifest> manifest = LoadManifest(entry.path);
    if (!manifest) continue;
    collect_hashes = collect_hashes || manifest->CollectsHashes();
    for (const auto& rule : manifest->GetRules()) table.Add(rule);
  }
  ReplaceTable(table.Take(), collect_hashes);
}

void EventRuleManager::ReplaceTable(RuleTable::Rules rules, bool collect_hashes) {
  const std::lock_guard lock(mutex_);
  table_.Replace(std::move(rules), collect_hashes);
  ++generation_;
}

void EventRuleManager::Update(const Config& config) {
  Manifests manifests = config.GetManifests();
  {
    const std::lock_guard lock(mutex_);
    if (SameManifests(manifests, manifests_)) return;
    manifests_ = manifests;
  }
  Load(manifests);
  Apply();
}

void EventRuleManager::Disable() {
  {
    const std::lock_guard lock(mutex_);
    manifests_.clear();
  }
  ReplaceTable({}, false);
  Apply();
}

// The engine is called without the mutex. An update may pass an older set on its way to the engine: whoever sees that
// the table has moved on meanwhile applies once more, so that the newest set is always the last.
void EventRuleManager::Apply() {
  std::uint64_t applied = 0;
  bool current = false;
  while (!current) {
    edr::EventRuleEngine::Rules rules;
    {
      const std::lock_guard lock(mutex_);
      applied = generation_;
      rules = table_.GetRules();
      if (rules.empty()) ZLOG_INFO("EventRuleManager: No rules to be added.");
      if (rules.empty() && !installed_) return;
      installed_ = true;
    }
    const bool removed = rules.empty();
    const bool succeeded = HandToEngine(std::move(rules));
    const std::lock_guard lock(mutex_);
    current = applied == generation_;
    if (current && removed && succeeded) installed_ = false;
  }
}

bool EventRuleManager::HandToEngine(edr::EventRuleEngine::Rules rules) {
  try {
    engine_.AddRules(kTag, std::move(rules));
    return true;
  } catch (const std::exception& error) {
    ZLOG_ERROR("EventRuleManager: Failed to apply rules: " << error.what());
    return false;
  }
}

}  // namespace zagent::fim::internal

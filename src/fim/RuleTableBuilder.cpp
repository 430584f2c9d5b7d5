#include "src/fim/RuleTableBuilder.h"

#include <Poco/Exception.h>
#include <Poco/File.h>

#include <cstdlib>
#include <optional>
#include <utility>

#include "common/src/util/Log.h"
#include "src/fim/LogPrefix.h"

namespace zagent::fim::internal {
namespace {

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

// A tidy path with the links among its folders followed, as far as these exist, and the last part as it is.
std::string WithRealFolders(const std::string& path) {
  std::string folder = path;
  std::string rest;
  while (folder != "/") {
    const std::size_t slash = folder.rfind('/');
    rest = rest.empty() ? folder.substr(slash + 1) : Join(folder.substr(slash + 1), rest);
    folder = slash == 0 ? "/" : folder.substr(0, slash);
    if (const std::optional<std::string> real = Canonical(folder)) return Join(*real, rest);
  }
  return path;
}

bool HasLinkedFolder(const std::string& path) {
  return WithRealFolders(path) != path;
}

// What the path means in the end; nothing for a link that leads nowhere. An object that is to come has no links.
std::optional<std::string> ResolveLink(const std::string& path) {
  if (std::optional<std::string> real = Canonical(path)) return real;
  if (IsSymlink(path)) return std::nullopt;
  return WithRealFolders(path);
}

}  // namespace

RuleTableBuilder::Ids RuleTableBuilder::Add(const std::shared_ptr<const EventRule>& rule) {
  if (!IsSymlink(rule->GetPath()) && !HasLinkedFolder(rule->GetPath())) {
    ZLOG_INFO("Adding rule " << rule->GetId());
    Insert(rule);
    return {rule->GetId()};
  }
  Ids derived = AddSymlink(*rule);
  if (derived.empty()) {
    ZLOG_ERROR("Could not create any rules from symlink monitoring path " << rule->GetPath());
  }
  return derived;
}

// Audit reports only real objects: a link is watched as itself and as what it points to, and what lies behind links
// as it is written and as it is meant.
RuleTableBuilder::Ids RuleTableBuilder::AddSymlink(const EventRule& rule) {
  ZLOG_INFO("Adding symlink rule " << rule.GetId());
  Ids derived;
  Derive(rule, rule.GetId() + "-1", rule.GetPath(), derived);
  if (const std::optional<std::string> target = ResolveLink(rule.GetPath())) {
    ZLOG_INFO("Adding resolved rule " << rule.GetId() << " with path " << *target);
    Derive(rule, rule.GetId(), *target, derived);
  } else {
    ZLOG_WARNING("Cannot resolve symlink " << rule.GetPath());
  }
  return derived;
}

void RuleTableBuilder::Derive(const EventRule& rule, const std::string& id, const std::string& path, Ids& derived) {
  try {
    Insert(std::make_shared<const EventRule>(rule, id, path));
    derived.push_back(id);
  } catch (const edr::EventRuleException& error) {
    ZLOG_ERROR("Rule " << id << ": " << error.what());
  }
}

void RuleTableBuilder::Insert(const std::shared_ptr<const EventRule>& rule) {
  if (!rules_.insert_or_assign(rule->GetId(), rule).second) {
    ZLOG_WARNING("Rule id " << rule->GetId() << " is used more than once: the last rule holds");
  }
}

}  // namespace zagent::fim::internal

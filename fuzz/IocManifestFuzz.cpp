// Feeds one text to the parser of manifests of indicators of compromise, asks every rule and the engine of tags about
// events whose texts come from the same text, and has the checker look for what nobody reads.
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "common/src/util/Clock.h"
#include "common/src/util/Json.h"
#include "fuzz/SilentLog.h"
#include "src/ioc/engines/TaggingEngine.h"
#include "src/ioc/process/TtlProcessTree.h"
#include "src/ioc/rules/LinkedRules.h"
#include "src/ioc/rules/Manifest.h"
#include "src/manifest_check/UnreadParts.h"
#include "tests/fakes/FakeEvent.h"

namespace {

using zagent::edr::EventType;
using zagent::edr::MatchResult;
using zagent::edr::ObjectType;
using zagent::fakes::FakeEvent;
using zagent::ioc::TtlProcessTree;
using zagent::ioc::internal::Manifest;
using zagent::ioc::internal::TaggingEngine;
namespace common = zagent::common;

constexpr std::int32_t kActor = 100;
constexpr std::size_t kLongestText = 200;

void Enter(TtlProcessTree& tree, std::int32_t pid, std::int32_t ppid, const std::string& image) {
  auto start = std::make_unique<FakeEvent>();
  start->type = EventType::ProcessStart;
  start->object_type = ObjectType::Process;
  start->pid = pid;
  start->ppid = ppid;
  start->image = common::ImageInfo(image);
  start->secondary_image = common::ImageInfo("/opt/job.sh");
  tree.AddEvent(std::move(start));
}

FakeEvent EventOf(ObjectType object, EventType type, const std::string& text) {
  FakeEvent event(type, "Write", "/" + text.substr(0, kLongestText));
  event.object_type = object;
  event.new_file = common::ImageInfo("/srv/watched/" + text.substr(text.size() / 2, kLongestText));
  event.image = common::ImageInfo("/" + text.substr(text.size() / 3, kLongestText));
  event.file_type_desc = text.substr(text.size() / 4, kLongestText);
  event.network_address = text.substr(text.size() / 2, 39);
  event.network_port = static_cast<std::uint32_t>(text.size());
  event.pid = kActor;
  event.size = 1;
  return event;
}

void Ask(const zagent::edr::EventRule& rule, const std::vector<FakeEvent>& events) {
  for (const FakeEvent& event : events) {
    const bool is_of_path = rule.GetType() == ObjectType::File || rule.GetType() == ObjectType::Directory;
    const bool is_of_file = event.GetObjectType() == ObjectType::File || event.GetObjectType() == ObjectType::Directory;
    if (is_of_path && !is_of_file) continue;  // "Invalid Rule"
    const MatchResult result = rule.Match(event);
    // An event of no action that the rule wants is never reported.
    if (result == MatchResult::Matched && zagent::edr::EventTypesOf(rule).count(event.GetType()) == 0) std::abort();
  }
}

std::vector<FakeEvent> EventsOf(const std::string& text) {
  std::vector<FakeEvent> events;
  events.push_back(EventOf(ObjectType::File, EventType::Write, text));
  events.push_back(EventOf(ObjectType::File, EventType::Rename, text));
  events.push_back(EventOf(ObjectType::Directory, EventType::Delete, text));
  events.push_back(EventOf(ObjectType::Process, EventType::ProcessStart, text));
  events.push_back(EventOf(ObjectType::Network, EventType::Connect, text));
  events.push_back(EventOf(ObjectType::Network, EventType::Bind, text));
  return events;
}

void AskRules(const Manifest& manifest, const std::vector<FakeEvent>& events) {
  for (const auto& rule : manifest.GetRules()) {
    Ask(*rule, events);
    const auto is_taken = [&](const std::string& id) { return id == rule->GetId() + "-1"; };
    for (const auto& derived : zagent::ioc::internal::FollowLinks(rule, is_taken)) Ask(*derived, events);
  }
  for (const auto& rule : manifest.GetWhitelistGlobalRules()) {
    for (const FakeEvent& event : events) (void)rule->Match(event);
  }
}

// Only a threshold makes somebody suspicious.
void AskTags(TtlProcessTree& tree, const Manifest& manifest, const std::vector<FakeEvent>& events) {
  if (!manifest.GetTaggingSettings().IsObject()) std::abort();
  TaggingEngine engine(tree, manifest.GetTaggingSettings());
  for (const FakeEvent& event : events) {
    const bool is_clean = engine.Process(event) == zagent::ioc::Verdict::Clean;
    const std::int64_t threshold = engine.GetThresholdScore();
    if (is_clean != (threshold == 0 || tree.Get(kActor)->GetScore() < threshold)) std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zagent::fuzz::SilenceLog();
  TtlProcessTree tree(nullptr, std::chrono::hours(1), common::util::Clock::Real(), "/nonexistent");
  Enter(tree, 1, 0, "/sbin/init");
  Enter(tree, 50, 1, "/usr/sbin/cron");
  Enter(tree, kActor, 50, "/bin/dash");
  const std::string text(reinterpret_cast<const char*>(data), size);
  rapidjson::Document document;
  common::util::ParseJson(document, text);
  if (document.HasParseError()) return 0;
  try {
    const Manifest manifest(document, tree);
    const std::vector<FakeEvent> events = EventsOf(text);
    AskRules(manifest, events);
    AskTags(tree, manifest, events);
    (void)zagent::manifest_check::FindUnreadParts(document);
  } catch (const zagent::ioc::internal::ManifestException&) {
    // A malformed manifest says so.
  }
  return 0;
}

#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "src/audit/engine/RuleEngine.h"
#include "src/audit/routing/OwnActivity.h"
#include "tests/fakes/FakeAuditNetlink.h"
#include "tests/fakes/FakeClock.h"
#include "tests/fakes/FakeEvent.h"
#include "tests/fakes/FakeProcFs.h"
#include "tests/fakes/FakeRule.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::audit {

// A rule engine on a kernel double, with a watched folder and a clock that stands still.
class RuleEngineFixture : public ::testing::Test {
 protected:
  using Ids = std::vector<std::string>;
  using Rule = std::shared_ptr<const fakes::FakeRule>;

  RuleEngineFixture() {
    processes_.Start(getpid(), 10);
    processes_.Start(400, 20);
    processes_.Start(401, 21);
    Start();
  }

  void Start() {
    RuleEngine::Settings settings{
        400,        "/opt/ostrel/bin/host-warden", 8192, install_.Path(), internal::OwnActivity::DefaultSiblingNames(),
        kMaxResting};
    settings.agent_effective_uid = 777;
    settings.extended_coverage = extended_coverage_;
    settings.proc_root = processes_.Root();
    settings.look_at_paths = [this] { ++told_to_look_; };
    settings.look_at = [this](const internal::WatchedPlace& place) { return look_at_(place); };
    settings.watch_folders = [this](auto folders) { watched_ = std::move(folders); };
    settings.listener = [this](const edr::Event& event) { came_in_.push_back(event.GetId()); };
    engine_ = std::make_unique<RuleEngine>(kernel_, std::move(settings), counters_, clock_);
  }

  // Collects what a tag hears as "<rule ids joined by ,>:<event id>".
  void Listen(const std::string& tag) {
    engine_->RegisterEventHandlers(
        tag,
        [this, tag](const Ids& ids, const edr::Event& event) {
          std::string line = tag + " ";
          for (const std::string& id : ids) line += id + ",";
          heard_.push_back(line + ":" + std::to_string(event.GetId()));
        },
        [this, tag] { invalidated_.push_back(tag); });
  }
  Rule Watch(const std::string& id) { return fakes::FakeRule::Directory(id, folder_.Path(), {edr::EventType::Write}); }

  std::unique_ptr<fakes::FakeEvent> FolderEvent(std::uint32_t id, const std::string& path) {
    auto event = std::make_unique<fakes::FakeEvent>(edr::EventType::Create, "Create", path);
    event->id = id;
    event->object_type = edr::ObjectType::Directory;
    return event;
  }

  template <typename Call>
  static std::string ErrorOf(const Call& call) {
    try {
      call();
    } catch (const edr::RuleEngineException& error) {
      return std::string("engine: ") + error.what();
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return "no error";
  }
  // Keys of the kernel's rules apart from the exclusions, in order.
  [[nodiscard]] Ids InstalledIds() const {
    Ids ids;
    for (const fakes::SeenRule& rule : kernel_.Rules()) {
      if (!rule.Key().empty() && !rule.Key().starts_with("ostrel_")) ids.push_back(rule.Key());
    }
    return ids;
  }
  [[nodiscard]] std::size_t Exclusions() const { return kernel_.Rules().size() - InstalledIds().size(); }

  static constexpr std::size_t kMaxResting = 100'000;
  static constexpr std::size_t kAllExclusions = 6;  // two pairs, the message type, the threads

  fakes::LogCapture log_;
  fakes::TempFolder folder_;
  fakes::TempFolder install_;  // of the product family
  const std::string updated_ = install_.Write("updated", "one of the family");
  fakes::FakeClock clock_;
  IntakeCounters counters_;
  fakes::FakeAuditNetlink kernel_;
  fakes::FakeProcFs processes_;  // the program itself, its agent as 400 and the next one as 401
  bool extended_coverage_ = false;
  std::vector<std::string> heard_, invalidated_;
  std::vector<std::uint32_t> came_in_;  // ids of events, as the listener was told
  int told_to_look_ = 0;
  std::function<internal::Sight(const internal::WatchedPlace&)> look_at_ = internal::LookAt;
  std::vector<internal::WatchedFolder> watched_;  // as the engine told last
  std::unique_ptr<RuleEngine> engine_;
};

}  // namespace zagent::audit

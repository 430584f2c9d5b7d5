#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "src/audit/routing/ProcessModel.h"
#include "tests/fakes/FakeClock.h"
#include "tests/fakes/FakeEvent.h"
#include "tests/fakes/FakeProcFs.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::audit::internal {

// A process model on a procfs of the test's own, and the road on which its events go on.
class ProcessModelFixture : public testing::Test, protected ProcessModel::Road {
 protected:
  using Lines = std::vector<std::string>;
  using Process = fakes::FakeProcFs::Process;

  // When the events of a test happen, in seconds after the boot.
  static constexpr std::int64_t kNow = 1'000;

  static std::int64_t TimeOf(std::int64_t seconds_after_boot) {
    return (fakes::FakeProcFs::kBootTime + seconds_after_boot) * 1'000'000'000;
  }
  std::unique_ptr<fakes::FakeEvent> Write(std::int32_t pid, std::int32_t ppid = 1) {
    auto event = std::make_unique<fakes::FakeEvent>(edr::EventType::Write, "Write", "/watched/file");
    event->pid = pid;
    event->ppid = ppid;
    event->image = common::ImageInfo(program_);
    event->timestamp = TimeOf(kNow);
    return event;
  }
  std::unique_ptr<fakes::FakeEvent> ProcessEvent(edr::EventType type, const std::string& action, std::int32_t pid,
                                                 std::int32_t ppid) {
    auto event = Write(pid, ppid);
    event->type = type;
    event->action = action;
    event->object_type = edr::ObjectType::Process;
    return event;
  }
  std::unique_ptr<fakes::FakeEvent> Exec(std::int32_t pid, std::int32_t ppid) {
    return ProcessEvent(edr::EventType::ProcessStart, "Execve", pid, ppid);
  }
  std::unique_ptr<fakes::FakeEvent> CloneOf(std::int32_t child, std::int32_t parent) {
    return ProcessEvent(edr::EventType::ProcessClone, "Clone", child, parent);
  }
  std::unique_ptr<fakes::FakeEvent> Exit(std::int32_t pid) {
    return ProcessEvent(edr::EventType::ProcessExit, "Exit", pid, 1);
  }
  // In procfs, with a program that exists.
  void Run(std::int32_t pid, std::int32_t ppid) { proc_.Start(pid, {.ppid = ppid, .image = program_}); }

  void Handle(std::unique_ptr<edr::Event> event) { model_.Handle(std::move(event), EventSource::Pipeline, *this); }

  [[nodiscard]] std::vector<std::int32_t> Ancestors(std::int32_t pid) const {
    std::vector<std::int32_t> pids;
    for (const common::ProcessInfo* process : model_.Tree().GetAncestors(pid)) pids.push_back(process->GetPid());
    return pids;
  }

  // The road: what goes on as "<action> <actor>", after "flush <pid>" for what rested.
  void PassOn(std::unique_ptr<edr::Event>&& event, EventSource /*source*/) override {
    const std::int32_t pid = event->GetActorProcessId();
    lines_.push_back(event->GetAction() + " " + std::to_string(pid));
    passed_.push_back(std::move(event));
    if (refused_.count(pid) != 0) throw std::logic_error("a component fails");
  }
  void PassOver(const edr::Event& event) override { passed_over_.push_back(event.GetActorProcessId()); }
  void FlushFileEvents(std::int32_t pid) override {
    lines_.push_back("flush " + std::to_string(pid));
    was_known_at_flush_ = model_.Tree().Contains(pid);
  }

  fakes::LogCapture log_;
  fakes::FakeClock clock_;
  fakes::FakeProcFs proc_;
  fakes::TempFolder folder_;
  const std::string program_ = folder_.Write("program", "x");
  IntakeCounters counters_;
  std::set<std::int32_t> containers_;
  std::map<std::int32_t, std::vector<std::int32_t>> ancestors_when_asked_;  // whether a process is a container's
  ProcessModel model_{clock_, counters_,
                      [this](const edr::Event& event) {
                        const std::int32_t pid = event.GetActorProcessId();
                        ancestors_when_asked_[pid] = Ancestors(pid);
                        return containers_.count(pid) != 0;
                      },
                      proc_.Root()};
  Lines lines_;
  std::vector<std::unique_ptr<edr::Event>> passed_;
  std::vector<std::int32_t> passed_over_;
  std::set<std::int32_t> refused_;  // actors at whose events a component fails
  bool was_known_at_flush_ = false;
};

}  // namespace zagent::audit::internal

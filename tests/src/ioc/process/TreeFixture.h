#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "src/edr/process/PseudoRunningEvent.h"
#include "src/edr/process/PseudoTerminateEvent.h"
#include "src/ioc/process/ProcessTags.h"
#include "src/ioc/process/TtlProcessTree.h"
#include "tests/fakes/FakeClock.h"
#include "tests/fakes/FakeEvent.h"
#include "tests/fakes/FakeProcFs.h"
#include "tests/fakes/FakeProcessInfo.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/WhatOf.h"

namespace zagent::ioc {

// A tree that nobody saves, on a machine where only process 1 runs.
class TreeFixture : public testing::Test {
 protected:
  static constexpr std::chrono::seconds kTtl{120};
  static constexpr std::chrono::seconds kLastWordsTime{45};  // until a process that is gone has ended
  static constexpr std::int64_t kSecond = 1'000'000'000;
  static constexpr std::int64_t kBoot = fakes::FakeProcFs::kBootTime * kSecond;
  static constexpr std::int64_t kLater = kBoot + 1'000 * kSecond;  // after the start of all processes of procfs

  TreeFixture() { proc_.Start(1, {.ppid = 0, .image = "/sbin/init", .start = 1}); }

  std::unique_ptr<TtlProcessTree> MakeTree(TtlProcessTree::Bounds bounds = {}) {
    return std::make_unique<TtlProcessTree>(nullptr, kTtl, clock_, proc_.Root(), bounds);
  }

  std::unique_ptr<fakes::FakeEvent> Event(edr::EventType type, std::int32_t pid, std::int32_t ppid) {
    auto event = std::make_unique<fakes::FakeEvent>();
    event->type = type;
    event->id = ++last_id_;
    event->pid = pid;
    event->ppid = ppid;
    event->timestamp = kLater;
    return event;
  }
  std::unique_ptr<fakes::FakeEvent> Start(std::int32_t pid, std::int32_t ppid, const std::string& image = "/bin/sh") {
    auto event = Event(edr::EventType::ProcessStart, pid, ppid);
    event->object_type = edr::ObjectType::Process;
    event->action = "Execve";
    event->image = common::ImageInfo(image);
    return event;
  }
  std::unique_ptr<fakes::FakeEvent> Exit(std::int32_t pid, std::int32_t ppid) {
    auto event = Event(edr::EventType::ProcessExit, pid, ppid);
    event->object_type = edr::ObjectType::Process;
    event->action = "Exit";
    return event;
  }
  std::unique_ptr<fakes::FakeEvent> Write(std::int32_t pid, std::int32_t ppid) {
    auto event = Event(edr::EventType::Write, pid, ppid);
    event->file = common::ImageInfo("/etc/passwd");
    return event;
  }
  // A start that was made up for who is in procfs.
  std::unique_ptr<edr::Event> MadeUpStart(std::int32_t pid, std::int32_t ppid, std::int64_t start,
                                          const std::string& image = "/bin/sh") {
    fakes::FakeProcessInfo process(pid, ppid, image);
    process.creation_time = start;
    return std::make_unique<edr::PseudoRunningEvent>(process);
  }

  static std::vector<std::uint32_t> Ids(internal::EventHeap heap) {
    std::vector<std::uint32_t> ids;
    while (!heap.IsEmpty()) ids.push_back(heap.Pop()->GetId());
    return ids;
  }
  template <typename Processes>
  static std::set<std::int32_t> Pids(const Processes& processes) {
    std::set<std::int32_t> pids;
    for (const auto& process : processes) pids.insert(process->GetPid());
    return pids;
  }
  void Exec(std::int32_t pid, std::int32_t ppid, const std::string& image = "/bin/sh") {
    tree_->AddEvent(Start(pid, ppid, image));
  }
  // The ids of what is due now.
  std::vector<std::uint32_t> Expired() { return Ids(tree_->GetExpiredEvents()); }
  // Lets all times to live pass, judges what is due and deletes who is gone.
  void LetAllExpire() {
    clock_.Advance(kTtl);
    while (!tree_->GetExpiredEvents().IsEmpty()) continue;
    KeepHouse();
  }
  // What is done once a second.
  void KeepHouse() {
    tree_->DeleteStaleProcesses();
    tree_->EndUntold();
  }
  std::int32_t ParentOf(std::int32_t pid) { return tree_->Get(pid)->GetParent(); }
  std::set<std::int32_t> ChildrenOf(std::int32_t pid) { return Pids(tree_->GetChildren(pid)); }

  fakes::FakeProcFs proc_;
  fakes::FakeClock clock_;
  std::uint32_t last_id_ = 0;
  std::unique_ptr<TtlProcessTree> tree_ = MakeTree();
};

}  // namespace zagent::ioc

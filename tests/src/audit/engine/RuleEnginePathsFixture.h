#pragma once

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "src/audit/events/RuleRemovedEvent.h"
#include "src/audit/rules/AuditSocket.h"
#include "tests/fakes/AuditRecords.h"
#include "tests/src/audit/engine/RuleEngineFixture.h"

namespace zagent::audit {

// A watched folder that is removed, renamed, or made again.
class RuleEnginePathsFixture : public RuleEngineFixture {
 protected:
  RuleEnginePathsFixture() {
    std::filesystem::create_directory(watched_);
    Listen();
    engine_->AddRules("FIM", {rule_});
  }

  void Listen() {
    engine_->RegisterEventHandlers(
        "FIM",
        [this](const Ids&, const edr::Event& event) {
          heard_.push_back(event.GetAction() + " " + event.GetFile()->GetPath());
        },
        [] {});
  }
  // As the kernel does when the folder goes.
  void DropKernelRules() {
    internal::AuditSocket socket(kernel_, "Test");
    for (internal::AuditRule& rule : socket.GetRulesFromAudit()) {
      if (!rule.GetKey().empty() && !rule.GetKey().starts_with("ostrel_")) socket.Delete(rule);
    }
  }
  void TellOfDroppedRule(bool by_call) {
    fakes::AuditRecords records;
    records.Add(internal::record_type::kConfigChange,
                {{"op", "remove_rule"}, {"dir", watched_}, {"key", "\"rule\""}, {"list", "4"}, {"res", "1"}});
    if (by_call) records.Syscall(84);
    engine_->ProcessEvent(std::make_unique<internal::RuleRemovedEvent>(records));
  }
  void Process(edr::EventType type, const std::string& action, const std::string& path,
               const std::string& new_path = "") {
    auto event = std::make_unique<fakes::FakeEvent>(type, action, path);
    event->object_type = edr::ObjectType::Directory;
    if (!new_path.empty()) event->new_file = common::ImageInfo(new_path);
    engine_->ProcessEvent(std::move(event));
  }
  // The folder and the kernel's rule go, and the records tell of both.
  void RemoveFolder() {
    std::filesystem::remove_all(watched_);
    DropKernelRules();
    TellOfDroppedRule(true);
    Process(edr::EventType::Delete, "Delete", watched_);
  }
  // Whether a rule waits for its path, as the log says.
  [[nodiscard]] bool IsWaiting() const {
    std::string in_force = "Rules in force: 0 of 0";
    for (const Poco::Message& line : log_.Lines()) {
      if (line.getText().find("Rules in force: ") != std::string::npos) in_force = line.getText();
    }
    const std::size_t of = in_force.find(" of ");
    const std::string all = in_force.substr(of + 4);
    return !in_force.substr(0, of).ends_with(" " + all);
  }
  // As long as it takes until every place was looked at.
  void LookForAMinute() {
    for (int i = 0; i < 60; ++i) engine_->LookAtPaths();
  }
  // Errors in the log, the kernel's reason and the rule's.
  [[nodiscard]] long RenewalErrors() const {
    const std::vector<Poco::Message> lines = log_.Lines();
    return std::count_if(lines.begin(), lines.end(), [](const Poco::Message& line) {
      return line.getPriority() == Poco::Message::PRIO_ERROR &&
             line.getText().find("Failed to add rule to audit subsystem") != std::string::npos;
    });
  }
  // What rests in the cache of file events leaves it.
  void Settle() {
    clock_.Advance(std::chrono::seconds(31));
    while (engine_->OnIdle()) {
    }
    std::sort(heard_.begin(), heard_.end());
  }

  const std::string base_ = std::filesystem::canonical(folder_.Path());
  const std::string watched_ = base_ + "/watched";
  const Rule rule_ = fakes::FakeRule::Directory("rule", watched_, {edr::EventType::Write});
};

}  // namespace zagent::audit

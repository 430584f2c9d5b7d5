// process-watcher: the intake and the rule engine as the daemon builds them, with a component that wants to know of
// processes. It knows of them only what it is told, and prints what it hears until SIGTERM:
//
//   process-watcher AGENT FOLDER LOG
//
//   watching                                        the kernel's rules are in force
//   Start file-actor(210)<busybox(200)<busybox(1)   a process started, and its ancestors as they started
//   Start busybox[/root/s](211)<...                 of a script, its interpreter
//   Before busybox(200)<busybox(1)                  the same, made up for one that was there before
//   End 210
//   Create /srv/watched/a file-actor(210)<...       somebody did something below FOLDER
//   lost ...                                        at the end: what went missing on the way
//
// The process AGENT is the parent agent. LOG is a log property file.
#include <csignal>
#include <filesystem>
#include <iostream>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>

#include "common/src/util/Log.h"
#include "src/audit/channels/KernelIOChannel.h"
#include "src/audit/engine/RuleEngine.h"
#include "src/audit/parser/ParserThread.h"
#include "src/audit/routing/OwnActivity.h"
#include "src/edr/process/ImageInfo.h"
#include "tests/fakes/FakeRule.h"

namespace zagent {
namespace {

using edr::EventType;
using edr::ObjectType;

// The processes as somebody knows them who hears of starts and ends only. Called by one thread.
class Listener {
 public:
  void Hear(const edr::Event& event) {
    if (event.GetObjectType() != ObjectType::Process) {
      Print(event.GetAction() + " " + event.GetFile()->GetPath() + " " + FamilyOf(event.GetActorProcessId()));
    } else if (event.GetType() == EventType::ProcessStart) {
      Start(event);
      Print((event.GetId() == 0 ? "Before " : "Start ") + FamilyOf(event.GetActorProcessId()));
    } else {
      End(event.GetActorProcessId());
      Print("End " + std::to_string(event.GetActorProcessId()));
    }
  }

 private:
  struct Process {
    std::int32_t ppid;
    std::string program;
  };

  static void Print(const std::string& line) { std::cout << line << std::endl; }

  void Start(const edr::Event& event) {
    std::string program = std::filesystem::path(event.GetImage()->GetPath()).filename();
    if (event.HasSecondaryImage()) program += "[" + event.GetSecondaryImage()->GetPath() + "]";
    processes_[event.GetActorProcessId()] = {event.GetActorParentProcessId(), program};
  }
  // Orphans are init's.
  void End(std::int32_t pid) {
    processes_.erase(pid);
    for (auto& [child, process] : processes_) {
      if (process.ppid == pid) process.ppid = 1;
    }
  }
  [[nodiscard]] std::string FamilyOf(std::int32_t pid) const {
    std::string family;
    std::set<std::int32_t> seen;
    for (auto process = processes_.find(pid); process != processes_.end() && seen.insert(process->first).second;
         process = processes_.find(process->second.ppid)) {
      family += (family.empty() ? "" : "<") + process->second.program + "(" + std::to_string(process->first) + ")";
    }
    return family.empty() ? "nobody(" + std::to_string(pid) + ")" : family;
  }

  std::map<std::int32_t, Process> processes_;
};

edr::EventRuleEngine::Rules ProcessRules() {
  return {std::make_shared<const fakes::FakeRule>(
      "processes", ObjectType::Process, "",
      edr::EventTypes{EventType::ProcessStart, EventType::ProcessClone, EventType::ProcessExit})};
}

edr::EventRuleEngine::Rules FileRules(const std::string& folder) {
  return {fakes::FakeRule::Directory("files", folder, {EventType::Create, EventType::Write})};
}

void Run(std::int32_t agent, const std::string& folder) {
  constexpr std::uint32_t kBacklog = 65'536;
  constexpr std::size_t kMaxResting = 10'000;
  constexpr std::uint64_t kNoLimit = 100;  // percent
  audit::IntakeCounters counters;
  Listener listener;
  audit::RuleEngine engine(audit::AuditNetlink::Kernel(),
                           {.agent_pid = agent,
                            .agent_path = "/usr/local/bin/the-agent",
                            .audit_backlog_limit = kBacklog,
                            .agent_install_path = "/opt/ostrel",
                            .sibling_names = audit::internal::OwnActivity::DefaultSiblingNames(),
                            .max_resting_events = kMaxResting},
                           counters);
  const auto hear = [&](const std::vector<std::string>&, const edr::Event& event) { listener.Hear(event); };
  engine.RegisterEventHandlers("files", hear, [] {});
  engine.RegisterEventHandlers("processes", hear, [] {});
  audit::KernelIOChannel channel(audit::AuditNetlink::Kernel());
  audit::ParserThread parser(channel, {.lib_magic = nullptr}, engine, kNoLimit, kNoLimit,
                             {counters, [](const std::string& cause) { std::cout << "died: " << cause << std::endl; }});
  parser.Start();
  channel.Start();
  engine.AddRules("processes", ProcessRules());
  engine.AddRules("files", FileRules(folder));
  std::cout << "watching" << std::endl;

  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGTERM);
  int signal = 0;
  sigwait(&stop, &signal);

  channel.Stop();
  parser.Stop();
  std::cout << "lost " << audit::IntakeCounters::Describe(counters.Take()) << std::endl;
}

}  // namespace
}  // namespace zagent

int main(int argc, char** argv) {
  if (argc != 4) {
    std::cerr << "usage: process-watcher AGENT FOLDER LOG\n";
    return 2;
  }
  // Every thread inherits the block.
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop, nullptr);
  try {
    zagent::common::util::Log::Init("edr", argv[3]);
    zagent::Run(std::stoi(argv[1]), argv[2]);
  } catch (const std::exception& failure) {
    std::cerr << "process-watcher: " << failure.what() << '\n';
    return 1;
  }
  return 0;
}

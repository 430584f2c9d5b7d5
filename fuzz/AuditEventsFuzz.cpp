// Hands records, read from text in audit's own form but without auparse, to every class of events, asks what was built
// every question and copies it. The first byte chooses what is known of folders and mounts, and how far coverage goes.
#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "fuzz/RecordedTree.h"
#include "fuzz/SilentLog.h"
#include "src/audit/parser/EventFactory.h"
#include "src/edr/RecordFields.h"
#include "tests/fakes/AuditRecords.h"

namespace {

using zagent::audit::internal::BuildResult;
using zagent::audit::internal::EventFactory;
using zagent::audit::internal::Events;
using zagent::audit::internal::EventSubject;
using zagent::edr::Event;
using zagent::fakes::AuditRecords;
using zagent::fuzz::RecordedTree;
namespace record_type = zagent::audit::internal::record_type;

using Records = std::vector<std::pair<int, AuditRecords::Fields>>;

struct TypeName {
  std::string_view name;
  int type;
};
constexpr std::array kTypes = {
    TypeName{"SYSCALL", record_type::kSyscall},      TypeName{"PATH", record_type::kPath},
    TypeName{"SOCKADDR", record_type::kSockaddr},    TypeName{"CWD", record_type::kCwd},
    TypeName{"EXECVE", record_type::kExecve},        TypeName{"PROCTITLE", record_type::kProctitle},
    TypeName{"ANOM_ABEND", record_type::kAnomAbend}, TypeName{"URINGOP", record_type::kUringOp},
    TypeName{"OPENAT2", record_type::kOpenAt2}};

// At least one call of each class, with the ones that its descriptors and names depend on and those that only extended
// coverage knows or sees otherwise.
constexpr std::array kCalls = {2,   257, 304, 76, 77, 437, 42, 49, 56,  57, 59, 322, 82,  264,
                               316, 83,  258, 85, 86, 265, 88, 84, 263, 90, 91, 268, 452, 231};

std::string_view CutUntil(std::string_view& text, char end) {
  const std::string_view part = text.substr(0, text.find(end));
  text.remove_prefix(std::min(part.size() + 1, text.size()));
  return part;
}

std::string Here(const std::string& name, std::string_view value) {
  const RecordedTree& tree = RecordedTree::Get();
  if (name == "name" || name == "cwd" || name == "exe") return tree.NameOf(value);
  if (name == "inode") return tree.InodeOf(value);
  return name == "dev" ? tree.DeviceOf(value) : std::string(value);
}

AuditRecords::Fields ReadFields(std::string_view line) {
  AuditRecords::Fields fields;
  while (!line.empty()) {
    if (line.find('=') == std::string_view::npos) break;
    const std::string name(CutUntil(line, '='));
    std::string_view value;
    if (line.starts_with('"')) {
      line.remove_prefix(1);
      value = CutUntil(line, '"');
      CutUntil(line, ' ');
    } else {
      value = CutUntil(line, ' ');
    }
    fields[name] = Here(name, value);
  }
  return fields;
}

Records ReadRecords(std::string_view text) {
  Records records;
  while (!text.empty()) {
    std::string_view line = CutUntil(text, '\n');
    if (!line.starts_with("type=")) continue;
    line.remove_prefix(5);
    const std::string_view name = CutUntil(line, ' ');
    if (line.starts_with("msg=")) CutUntil(line, ' ');
    for (const TypeName& known : kTypes) {
      if (known.name == name) records.emplace_back(known.type, ReadFields(line));
    }
  }
  return records;
}

// A question that an event refuses is answered, too.
template <typename Question>
void Ask(Question question) {
  try {
    static_cast<void>(question());
  } catch (const std::exception&) {
    // In the known words.
  }
}

void AskEverything(const Event& event) {
  Ask([&] { return event.GetType(); });
  Ask([&] { return event.GetAction(); });
  Ask([&] { return event.GetObjectType(); });
  Ask([&] { return event.GetActorEuid(); });
  Ask([&] { return event.GetActorProcessArguments(); });
  Ask([&] { return event.GetActorProcessId(); });
  Ask([&] { return event.GetActorParentProcessId(); });
  Ask([&] { return event.GetActorUserName(); });
  Ask([&] { return event.GetActorUserId(); });
  Ask([&] { return event.GetActorLoginName(); });
  Ask([&] { return event.GetActorAuid(); });
  Ask([&] { return event.GetCommandLine(); });
  Ask([&] { return event.GetFile(); });
  Ask([&] { return event.GetFileAccessTime(); });
  Ask([&] { return event.GetFileSize(); });
  Ask([&] { return event.GetFileType(); });
  Ask([&] { return event.GetImage(); });
  Ask([&] { return event.GetNewFile(); });
  Ask([&] { return event.GetParentInode(); });
  Ask([&] { return event.GetParentDeviceID(); });
  Ask([&] { return event.GetCwd(); });
  Ask([&] { return event.GetSecondaryImage(); });
  Ask([&] { return event.GetNetworkAddress(); });
  Ask([&] { return event.GetNetworkPort(); });
  Ask([&] { return event.HasSecondaryImage(); });
  Ask([&] { return event.IsSymlink(); });
  Ask([&] { return event.IsElevated(); });
}

void Check(const Event& event) {
  AskEverything(event);
  const std::unique_ptr<Event> copy = event.Clone();
  AskEverything(*copy);
  const bool equal = copy->GetId() == event.GetId() && copy->GetTimestamp() == event.GetTimestamp() &&
                     copy->GetAction() == event.GetAction() && copy->GetAuditKey() == event.GetAuditKey() &&
                     copy->IsSuccessful() == event.IsSuccessful() &&
                     copy->HasSecondaryImage() == event.HasSecondaryImage();
  if (!equal) std::abort();
}

void Build(const EventFactory& factory, const EventSubject& subject, const Records& records) {
  AuditRecords source;
  for (const auto& [type, fields] : records) source.Add(type, fields);
  Events events;
  auto result = BuildResult::Dropped;
  try {
    result = factory(subject, source, events);
  } catch (const std::exception&) {
    // As good as dropped.
  }
  if ((result == BuildResult::Built) == events.empty()) std::abort();  // nothing half-built is left behind
  for (const auto& event : events) Check(*event);
}

// How many PATH records the call announces: what decides whether a rename is an exchange.
std::uint64_t ItemsOf(const Records& records) {
  std::uint64_t items = 0;
  for (const auto& [type, fields] : records) {
    const auto found = fields.find("items");
    if (type != record_type::kSyscall || found == fields.end()) continue;
    std::from_chars(found->second.data(), found->second.data() + found->second.size(), items);
  }
  return items;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zagent::fuzz::SilenceLog();
  if (size == 0) return 0;
  const EventFactory factory = zagent::audit::internal::MakeEventFactory(RecordedTree::Get().ContextOf(data[0]));
  Records records = ReadRecords({reinterpret_cast<const char*>(data + 1), size - 1});
  Build(factory, {record_type::kAnomAbend}, records);
  Build(factory, {record_type::kUringOp}, records);
  const std::uint64_t items = ItemsOf(records);
  for (const int call : kCalls) {
    for (auto& [type, fields] : records) {
      if (type == record_type::kSyscall) fields["syscall"] = std::to_string(call);
    }
    Build(factory, {record_type::kSyscall, call, items}, records);
  }
  return 0;
}

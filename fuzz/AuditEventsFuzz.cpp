// Hands records, read from text in audit's own form but without auparse, to every class of events, asks what was built
// every question and copies it.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "fuzz/SilentLog.h"
#include "src/audit/parser/EventFactory.h"
#include "src/edr/RecordFields.h"
#include "tests/fakes/AuditRecords.h"

namespace {

using zagent::audit::internal::EventFactory;
using zagent::audit::internal::Events;
using zagent::audit::internal::EventSubject;
using zagent::edr::Event;
using zagent::fakes::AuditRecords;
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

// At least one call of each class, with the ones that its descriptors and names depend on.
constexpr std::array kCalls = {2,   257, 42,  49, 56, 57,  59, 82, 264, 316, 83,
                               258, 86,  265, 88, 84, 263, 90, 91, 268, 231};

std::string_view CutUntil(std::string_view& text, char end) {
  const std::string_view part = text.substr(0, text.find(end));
  text.remove_prefix(std::min(part.size() + 1, text.size()));
  return part;
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
    fields[name] = value;
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
  try {
    factory(subject, source, events);
  } catch (const std::exception&) {
    if (!events.empty()) std::abort();  // nothing half-built is left behind
  }
  for (const auto& event : events) Check(*event);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zagent::fuzz::SilenceLog();
  static const EventFactory factory = zagent::audit::internal::MakeEventFactory({});
  Records records = ReadRecords({reinterpret_cast<const char*>(data), size});
  Build(factory, {record_type::kAnomAbend}, records);
  for (const int call : kCalls) {
    for (auto& [type, fields] : records) {
      if (type == record_type::kSyscall) fields["syscall"] = std::to_string(call);
    }
    Build(factory, {record_type::kSyscall, call}, records);
  }
  return 0;
}

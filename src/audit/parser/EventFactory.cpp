#include "src/audit/parser/EventFactory.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <iterator>
#include <string>
#include <utility>

#include "common/src/util/Log.h"
#include "src/audit/events/AbendEvent.h"
#include "src/audit/events/AttributeEvent.h"
#include "src/audit/events/CloneEvent.h"
#include "src/audit/events/CreateEvent.h"
#include "src/audit/events/DeleteEvent.h"
#include "src/audit/events/ExitEvent.h"
#include "src/audit/events/NetworkEvent.h"
#include "src/audit/events/ReadWriteEvent.h"
#include "src/audit/events/RenameEvent.h"
#include "src/audit/events/RuleRemovedEvent.h"
#include "src/audit/events/RunningEvent.h"
#include "src/audit/parser/ExtendedCalls.h"

namespace zagent::audit::internal {
namespace {

using Context = FileEvent::Context;
using Builder = BuildResult (*)(RecordSource& source, const Context& context, Events& events);

BuildResult Accept(std::unique_ptr<Event> event, Events& events) {
  if (const std::string* refusal = event->Refusal()) {
    ZLOG_DEBUG("Dropping event: " << *refusal);
    return event->GetLoss() == Event::Loss::Unplaced ? BuildResult::Unplaced : BuildResult::Dropped;
  }
  events.push_back(std::move(event));
  return BuildResult::Built;
}

template <class EventClass>
BuildResult Build(RecordSource& source, const Context& context, Events& events) {
  return Accept(std::make_unique<EventClass>(source, context), events);
}

template <class EventClass>
BuildResult BuildAlone(RecordSource& source, const Context& /*context*/, Events& events) {
  return Accept(std::make_unique<EventClass>(source), events);
}

// A rename over an existing file is its delete first, then the rename.
BuildResult BuildRename(RecordSource& source, const Context& context, Events& events) {
  std::unique_ptr<DeleteEvent> replaced;
  auto rename = std::make_unique<RenameEvent>(source, context, &replaced);
  if (replaced) events.push_back(std::move(replaced));
  return Accept(std::move(rename), events);
}

// read, write, open, pread64, pwrite64, readv, writev, truncate, ftruncate, openat, preadv, pwritev, open_by_handle_at
constexpr std::array kReadWriteCalls = {0, 1, 2, 17, 18, 19, 20, 76, 77, 257, 295, 296, 304};
// rename, renameat, renameat2
constexpr std::array kRenameCalls = {82, 264, 316};
// mkdir, creat, link, symlink, mknod, mkdirat, mknodat, linkat, symlinkat
constexpr std::array kCreateCalls = {83, 85, 86, 88, 133, 258, 259, 265, 266};
// rmdir, unlink, unlinkat
constexpr std::array kDeleteCalls = {84, 87, 263};
// chmod, fchmod, chown, fchown, lchown, utime, setxattr, lsetxattr, fsetxattr, removexattr, lremovexattr,
// fremovexattr, utimes, fchownat, futimesat, fchmodat, utimensat
constexpr std::array kAttributeCalls = {90, 91, 92, 93, 94, 132, 188, 189, 190, 197, 198, 199, 235, 260, 261, 268, 280};

constexpr std::array kNetworkCalls = {42, 49};    // connect, bind
constexpr std::array kCloneCalls = {56, 57, 58};  // clone, fork, vfork
constexpr std::array kRunningCalls = {59};        // execve
constexpr std::array kExitCalls = {231};          // exit_group

using BuilderTable = std::array<Builder, kLastSyscall + 1>;

// Most changes of audit's configuration are nobody's loss.
BuildResult BuildRuleRemoved(RecordSource& source, const Context& /*context*/, Events& events) {
  try {
    return Accept(std::make_unique<RuleRemovedEvent>(source), events);
  } catch (const edr::EventException& error) {
    ZLOG_TRACE(error.what());
    return BuildResult::Unsupported;
  }
}

template <std::size_t Size>
constexpr void Enter(BuilderTable& table, const std::array<int, Size>& calls, Builder builder) {
  for (const int call : calls) table[static_cast<std::size_t>(call)] = builder;
}

constexpr BuilderTable MakeTable() {
  BuilderTable table{};
  Enter(table, kReadWriteCalls, &Build<ReadWriteEvent>);
  Enter(table, kRenameCalls, &BuildRename);
  Enter(table, kCreateCalls, &Build<CreateEvent>);
  Enter(table, kDeleteCalls, &Build<DeleteEvent>);
  Enter(table, kAttributeCalls, &Build<AttributeEvent>);
  Enter(table, kNetworkCalls, &BuildAlone<NetworkEvent>);
  Enter(table, kCloneCalls, &BuildAlone<CloneEvent>);
  Enter(table, kRunningCalls, &Build<RunningEvent>);
  Enter(table, kExitCalls, &BuildAlone<ExitEvent>);
  return table;
}

constexpr BuilderTable kBuilders = MakeTable();

constexpr int kExecveat = 322;

Builder BuilderOf(const EventSubject& subject) {
  if (subject.record_type == record_type::kAnomAbend) return &BuildAlone<AbendEvent>;
  if (subject.record_type == record_type::kConfigChange) return &BuildRuleRemoved;
  if (subject.record_type != record_type::kSyscall) return nullptr;
  if (subject.syscall < 0 || subject.syscall > kLastSyscall) return nullptr;
  return kBuilders.at(static_cast<std::size_t>(subject.syscall));
}

BuildResult BuildTold(const ExtendedCalls& calls, const EventSubject& subject, RecordSource& source,
                      const Context& context, Events& events) {
  BuildResult result = BuildResult::Unsupported;
  Events told_events;
  for (const ExtendedCalls::Told& told : calls.Translate(subject, source)) {
    const Builder build = kBuilders.at(static_cast<std::size_t>(told.syscall));
    const BuildResult built = build(*told.records, context, told_events);
    if (result != BuildResult::Built) result = built;
  }
  std::move(told_events.begin(), told_events.end(), std::back_inserter(events));
  return result;
}

}  // namespace

EventFactory MakeEventFactory(FileContext context) {
  ExtendedCalls calls(context.proc_root);
  return [context = std::make_shared<const FileContext>(std::move(context)), calls = std::move(calls)](
             const EventSubject& subject, RecordSource& source, Events& events) {
    if (context->extended_coverage) {
      if (ExtendedCalls::Concerns(subject)) return BuildTold(calls, subject, source, context, events);
      if (subject.record_type == record_type::kSyscall && subject.syscall == kExecveat) {
        return Build<RunningEvent>(source, context, events);
      }
    }
    const Builder build = BuilderOf(subject);
    return build != nullptr ? build(source, context, events) : BuildResult::Unsupported;
  };
}

}  // namespace zagent::audit::internal

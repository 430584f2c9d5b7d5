#include "src/audit/events/RecordRendering.h"

#include <algorithm>
#include <array>

#include "src/audit/events/RecordSource.h"

namespace zagent::audit::internal {
namespace {

using edr::RecordField;
using edr::RecordFieldSet;
using edr::SetOf;

// The kernel writes a name in hexadecimal when it holds a blank or a quote: these two are always decoded.
constexpr RecordFieldSet kNames = SetOf(RecordField::Name, RecordField::Exe);
// One of them is the last field of a PATH record that anybody reads: old kernels wrote the first, no kernel writes
// both.
constexpr RecordFieldSet kTypeWords = SetOf(RecordField::NameType, RecordField::ObjType);

constexpr RecordFieldSet kPathFields = SetOf(RecordField::Item, RecordField::Name, RecordField::Inode, RecordField::Dev,
                                             RecordField::Mode, RecordField::OUid, RecordField::OGid);

constexpr std::array kRenderings = {
    // A call that several rules watch has a key for each, and the last one counts.
    RecordRendering{record_type::kSyscall,
                    SetOf(RecordField::Arch, RecordField::Syscall, RecordField::Success, RecordField::Exit,
                          RecordField::Items, RecordField::PPid, RecordField::Pid, RecordField::Auid, RecordField::Uid,
                          RecordField::Euid, RecordField::Exe, RecordField::Key),
                    true, kNames, 0},
    RecordRendering{record_type::kPath, kPathFields | kTypeWords, false, kNames, kPathFields},
    RecordRendering{record_type::kAnomAbend,
                    SetOf(RecordField::Auid, RecordField::Uid, RecordField::Pid, RecordField::Exe), false, kNames, 0},
    RecordRendering{record_type::kSockaddr, SetOf(RecordField::Saddr), false, SetOf(RecordField::Saddr),
                    SetOf(RecordField::Saddr)},
    RecordRendering{record_type::kCwd, SetOf(RecordField::Cwd), false, SetOf(RecordField::Cwd),
                    SetOf(RecordField::Cwd)},
    RecordRendering{record_type::kExecve, SetOf(RecordField::Argc), true, 0, 0},
    RecordRendering{record_type::kProctitle, SetOf(RecordField::Proctitle), false, SetOf(RecordField::Proctitle),
                    SetOf(RecordField::Proctitle)},
    RecordRendering{record_type::kOpenAt2, SetOf(RecordField::OFlag, RecordField::Mode), false, 0, 0},
    RecordRendering{record_type::kConfigChange,
                    SetOf(RecordField::Op, RecordField::Dir, RecordField::Path, RecordField::Key), false,
                    SetOf(RecordField::Dir, RecordField::Path), 0},
    RecordRendering{record_type::kUringOp,
                    SetOf(RecordField::UringOp, RecordField::Success, RecordField::Exit, RecordField::Items,
                          RecordField::PPid, RecordField::Pid, RecordField::Uid, RecordField::Euid, RecordField::Key),
                    false, 0, 0},
};

}  // namespace

const RecordRendering* FindRendering(int type) {
  const auto* found = std::find_if(kRenderings.begin(), kRenderings.end(),
                                   [type](const RecordRendering& rendering) { return rendering.type == type; });
  return found != kRenderings.end() ? found : nullptr;
}

bool DecodesArguments(const RecordRendering& rendering) {
  return rendering.type == record_type::kExecve;
}

bool IsComplete(const RecordRendering& rendering, RecordFieldSet present) {
  if (rendering.complete == 0 || (present & rendering.complete) != rendering.complete) return false;
  return rendering.type != record_type::kPath || (present & kTypeWords) != 0;
}

}  // namespace zagent::audit::internal

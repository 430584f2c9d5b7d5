#include "src/audit/events/DeleteEvent.h"

#include <utility>

#include "common/src/util/Log.h"
#include "src/audit/events/RenameEvent.h"
#include "src/audit/events/SyscallSet.h"

namespace zagent::audit::internal {
namespace {

// rmdir, unlink, unlinkat; and the renames, for the file that they replaced.
constexpr SyscallSet<6> kDeleting = {84, 87, 263, 82, 264, 316};

}  // namespace

DeleteEvent::DeleteEvent(RecordSource& source, Context context) : FileEvent(std::move(context)) {
  Feed(source, kRecords);
}

DeleteEvent::DeleteEvent(PathRecord object, PathRecord parent, const RenameEvent& rename)
    : FileEvent(std::move(object), std::move(parent), rename) {
  Validate();
}

std::unique_ptr<edr::Event> DeleteEvent::Clone() const {
  return std::unique_ptr<edr::Event>(new DeleteEvent(*this));
}

void DeleteEvent::Refresh() {
  ZLOG_DEBUG("Ignoring stat for delete event");
}

void DeleteEvent::Validate() {
  FileEvent::Validate();
  if (Refusal() != nullptr) return;
  if (!Contains(kDeleting, Syscall())) throw edr::EventException("Invalid syscall for delete event");
  if (ObjectWord() != TypeWord::None && ObjectWord() != TypeWord::Delete) {
    throw edr::EventException("Missing delete PATH record for Delete event");
  }
  if (object_type_ == edr::ObjectType::Directory) ForgetFolder(Identity());
}

}  // namespace zagent::audit::internal

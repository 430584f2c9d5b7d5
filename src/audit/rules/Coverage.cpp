#include "src/audit/rules/Coverage.h"

#include <cerrno>

#include "common/src/util/ErrnoText.h"
#include "common/src/util/Log.h"
#include "src/audit/rules/AuditRule.h"

namespace zagent::audit::internal {
namespace {

using common::util::ErrnoText;

// The operation that does nothing.
constexpr unsigned kNoOperation = 0;
// Of the kind that the next start clears away, should this run end in between.
constexpr const char* kTrialKey = "ostrel_ignore_rule_io_uring";

// 0, or why the kernel refuses.
int TryIoUring(AuditSocket& socket) {
  AuditRule trial(AuditRule::List::IoUring, AuditRule::Action::Never);
  if (!trial.AddNumber(kNoOperation) || !trial.AddKey(kTrialKey)) return EINVAL;
  const int error = socket.Add(trial);
  if (error != 0 && error != EEXIST) return error;
  const int clean_up = socket.Delete(trial);
  if (clean_up != 0) ZLOG_ERROR("Failed to delete exclusion rule " << kTrialKey << ": " << ErrnoText(clean_up));
  return 0;
}

}  // namespace

Coverage FindCoverage(AuditSocket& socket, bool wants_extended) {
  if (!wants_extended) {
    ZLOG_INFO("Extended coverage is off");
    return {};
  }
  const int error = TryIoUring(socket);
  if (error != 0) {
    ZLOG_INFO("The kernel takes no rules for io_uring: " << ErrnoText(error));
  }
  ZLOG_INFO("Extended coverage is on: times of files, opening by handle, opening with O_CREAT or O_TRUNC"
            << (error == 0 ? ", io_uring" : ""));
  return {.extended = true, .io_uring = error == 0};
}

}  // namespace zagent::audit::internal

#include "src/audit/rules/BacklogLimit.h"

#include <libaudit.h>

#include <cerrno>
#include <memory>
#include <optional>

#include "common/src/util/ErrnoText.h"
#include "common/src/util/Log.h"

namespace zagent::audit::internal {
namespace {

using common::util::ErrnoText;

// To the kernel a limit of 0 is none at all: nothing is higher.
constexpr std::uint32_t kNoLimit = 0;

std::optional<std::uint32_t> GetAuditBacklogLimit(AuditSocket& socket) {
  const auto reply = std::make_unique<audit_reply>();
  int error = socket.RequestStatus();
  if (error == 0) error = socket.GetReply(*reply);
  if (error == EAGAIN) {
    ZLOG_ERROR("GetAuditBacklogLimit: Audit channel is busy");
    return std::nullopt;
  }
  if (error != 0) {
    ZLOG_ERROR("GetAuditBacklogLimit: Failed to get audit reply (" << ErrnoText(error) << ")");
    return std::nullopt;
  }
  if (reply->type != AUDIT_GET || reply->status == nullptr) {
    ZLOG_ERROR("GetAuditBacklogLimit: Invalid audit reply");
    return std::nullopt;
  }
  ZLOG_INFO("Audit backlog limit is set to " << reply->status->backlog_limit);
  return reply->status->backlog_limit;
}

}  // namespace

void RaiseAuditBacklogLimit(AuditSocket& socket, std::uint32_t wanted) {
  const std::optional<std::uint32_t> current = GetAuditBacklogLimit(socket);
  if (!current || *current == kNoLimit || *current >= wanted) return;
  const int error = socket.SetBacklogLimit(wanted);
  if (error != 0) {
    ZLOG_ERROR("Failed to set audit backlog limit to " << wanted << ". Continuing with " << *current << ": "
                                                       << ErrnoText(error));
    return;
  }
  ZLOG_INFO("Audit backlog limit is set to " << wanted);
}

}  // namespace zagent::audit::internal

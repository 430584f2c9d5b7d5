#include "src/audit/channels/AuditStatusProbe.h"

#include <libaudit.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <memory>

#include "common/src/util/ErrnoText.h"
#include "common/src/util/Log.h"

namespace zagent::audit {
namespace {

using common::util::ErrnoText;

// A socket with more foreign messages than this is looked at again later.
constexpr int kMaxMessages = 16;
// As far as is read: kernels add members at the end.
constexpr std::size_t kStatusSize = offsetof(audit_status, lost) + sizeof(audit_status::lost);

// The status that a reply carries; nothing for any other message, and for one that is cut short.
std::optional<AuditStatus> ReadStatus(const audit_reply& reply, int length) {
  if (reply.type != AUDIT_GET || reply.status == nullptr) return std::nullopt;
  if (length < 0 || static_cast<std::size_t>(length) < NLMSG_HDRLEN + kStatusSize) return std::nullopt;
  audit_status status{};
  std::memcpy(&status, reply.status, kStatusSize);
  return AuditStatus{.enabled = status.enabled, .consumer_pid = status.pid, .lost = status.lost};
}

bool IsRefusal(const audit_reply& reply) {
  return reply.type == NLMSG_ERROR && reply.error != nullptr && reply.error->error != 0;
}

}  // namespace

void AuditStatusProbe::Ask() {
  Close();
  errno = 0;
  fd_ = netlink_.Open();
  if (fd_ >= 0 && netlink_.RequestStatus(fd_) > 0) return;
  ZLOG_DEBUG("AuditStatusProbe: Failed to ask for the audit status: " << ErrnoText(errno));
  Close();
}

std::optional<AuditStatus> AuditStatusProbe::Poll() {
  if (fd_ < 0) return std::nullopt;
  const auto reply = std::make_unique<audit_reply>();
  for (int i = 0; i < kMaxMessages; ++i) {
    errno = 0;
    const int length = netlink_.GetReply(fd_, *reply);
    if (length <= 0 && (errno == EAGAIN || errno == EINTR)) return std::nullopt;
    if (length <= 0 || IsRefusal(*reply)) {
      ZLOG_DEBUG("AuditStatusProbe: The audit status was not told: " << ErrnoText(errno));
      break;
    }
    if (const auto status = ReadStatus(*reply, length)) {
      Close();
      return status;
    }
  }
  Close();
  return std::nullopt;
}

void AuditStatusProbe::Close() {
  if (fd_ >= 0) netlink_.Close(fd_);
  fd_ = -1;
}

}  // namespace zagent::audit

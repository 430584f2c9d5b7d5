#include "src/audit/rules/AuditSocket.h"

#include <libaudit.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <stdexcept>

#include "common/src/util/ErrnoText.h"
#include "common/src/util/Log.h"
#include "src/edr/EventRuleEngine.h"

namespace zagent::audit::internal {
namespace {

using common::util::ErrnoText;

constexpr std::chrono::milliseconds kReplyWait{100};
constexpr int kReplyTries = 10;
// A listing with more foreign messages than this is given up.
constexpr int kMaxInvalidReplies = 100;

// libaudit's results are a sequence number above 0 on success.
int ToError(int result) {
  if (result > 0) return 0;
  return errno != 0 ? errno : EIO;
}

std::size_t PayloadSize(const audit_reply& reply) {
  const auto length = static_cast<std::size_t>(std::max(reply.len, 0));
  return std::min(length - std::min<std::size_t>(length, NLMSG_HDRLEN), sizeof(reply.msg.data));
}

// Adds one row; false when it is none.
bool AddRow(const audit_reply& reply, std::vector<AuditRule>& rules) {
  if (reply.type != AUDIT_LIST_RULES) return false;
  try {
    rules.emplace_back(reply.ruledata, PayloadSize(reply));
  } catch (const std::runtime_error& error) {
    ZLOG_DEBUG("GetRuleFromAudit: " << error.what());
    return false;
  }
  ZLOG_TRACE("GetRuleFromAudit: Found rule '" << rules.back().GetKey() << "' in audit subsystem");
  return true;
}

// True when there is no reply to look at any more.
bool IsEnd(int error, const audit_reply& reply) {
  if (error == 0) return reply.type == NLMSG_DONE;
  if (error == EAGAIN) {
    ZLOG_ERROR("GetRuleFromAudit: Audit channel is busy");
  } else if (error != ENODATA) {
    ZLOG_ERROR("GetRuleFromAudit: Failed to get audit reply (" << ErrnoText(error) << ")");
  }
  return true;
}

AuditSocket::Listing ReadRows(AuditSocket& socket) {
  AuditSocket::Listing listing;
  const auto reply = std::make_unique<audit_reply>();
  for (int invalid = 0; invalid < kMaxInvalidReplies;) {
    const int error = socket.GetReply(*reply);
    if (IsEnd(error, *reply)) {
      listing.is_complete = error == 0 && invalid == 0;
      break;
    }
    if (AddRow(*reply, listing.rules)) continue;
    ZLOG_ERROR("GetRuleFromAudit: Invalid audit reply");
    ++invalid;
  }
  return listing;
}

}  // namespace

AuditSocket::AuditSocket(AuditNetlink& netlink, const char* failure) : netlink_(netlink) {
  errno = 0;
  fd_ = netlink_.Open();
  if (fd_ >= 0) return;
  ZLOG_ERROR(failure << ": " << ErrnoText(errno));
  throw edr::RuleEngineException("Failed to open audit socket");
}

AuditSocket::~AuditSocket() {
  netlink_.Close(fd_);
}

int AuditSocket::Add(AuditRule& rule, Position position) {
  const auto list = static_cast<int>(rule.GetList());
  const auto action = static_cast<int>(rule.GetAction());
  errno = 0;
  return ToError(
      netlink_.AddRule(fd_, rule.Get(), position == Position::Front ? list | AUDIT_FILTER_PREPEND : list, action));
}

int AuditSocket::Delete(AuditRule& rule) {
  errno = 0;
  return ToError(
      netlink_.DeleteRule(fd_, rule.Get(), static_cast<int>(rule.GetList()), static_cast<int>(rule.GetAction())));
}

int AuditSocket::SetBacklogLimit(std::uint32_t limit) {
  errno = 0;
  return ToError(netlink_.SetBacklogLimit(fd_, limit));
}

int AuditSocket::RequestStatus() {
  errno = 0;
  return ToError(netlink_.RequestStatus(fd_));
}

int AuditSocket::RequestRulesList() {
  errno = 0;
  return ToError(netlink_.RequestRulesList(fd_));
}

int AuditSocket::GetReply(audit_reply& reply) {
  for (int tries = 0; tries < kReplyTries;) {
    errno = 0;
    const int result = netlink_.GetReply(fd_, reply);
    if (result <= 0) {
      if (errno == 0) return ENODATA;
      if (errno != EAGAIN) return errno;
      netlink_.WaitReadable(fd_, kReplyWait);
      ++tries;
      continue;
    }
    if (reply.type != NLMSG_ERROR) return 0;
    if (reply.error != nullptr && reply.error->error != 0) return std::abs(reply.error->error);
    ++tries;  // the acknowledgement of the request, which may come before, between or after the rows
  }
  return EAGAIN;
}

AuditSocket::Listing AuditSocket::ListRules() const {
  ZLOG_TRACE("GetRulesFromAudit: Getting rules list from audit subsystem");
  Listing listing;
  try {
    AuditSocket socket(netlink_, "GetRulesFromAudit: Failed to open audit socket");
    const int error = socket.RequestRulesList();
    if (error == 0) {
      listing = ReadRows(socket);
    } else {
      ZLOG_ERROR("GetRulesFromAudit: Failed to request rules list from audit subsystem: " << ErrnoText(error));
    }
  } catch (const edr::RuleEngineException&) {
    ZLOG_ERROR("GetRulesFromAudit: Failed to request rules list from audit subsystem");
  }
  ZLOG_TRACE("GetRulesFromAudit: Found " << listing.rules.size() << " rules in audit subsystem");
  return listing;
}

}  // namespace zagent::audit::internal

#include "src/audit/channels/KernelIOChannel.h"

#include <libaudit.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <string>

#include "common/src/util/ErrnoText.h"
#include "common/src/util/Log.h"
#include "src/audit/channels/AuditRuleBytes.h"

namespace zagent::audit {
namespace {

using common::util::ErrnoText;
using common::util::Log;

// The text of a record up to a NUL. A privileged sender of user messages can put a line break into its text: it must
// not begin a record of its own making.
std::string TextOf(const audit_reply& reply) {
  if (reply.message == nullptr || reply.len <= 0) return "";
  const std::size_t length = std::min<std::size_t>(static_cast<std::size_t>(reply.len), MAX_AUDIT_MESSAGE_LENGTH);
  std::string text(reply.message, strnlen(reply.message, length));
  std::replace(text.begin(), text.end(), '\n', ' ');
  return text;
}

}  // namespace

KernelIOChannel::KernelIOChannel(AuditNetlink& netlink) : IOChannel(MAX_AUDIT_MESSAGE_LENGTH, 0), netlink_(netlink) {}

KernelIOChannel::~KernelIOChannel() {
  try {
    KernelIOChannel::Stop();
  } catch (const std::exception&) {  // NOLINT(bugprone-empty-catch)
  }
}

void KernelIOChannel::Start() {
  ZLOG_INFO("KernelIOChannel: Starting...");
  const Error error = CreateSocket();
  if (error != Error::Success) throw IOChannelException(error);
  try {
    IOChannel::Start();
  } catch (...) {
    CloseSocket();
    throw;
  }
  ZLOG_INFO("KernelIOChannel: Started.");
}

void KernelIOChannel::Stop() {
  std::exception_ptr died_of;
  try {
    IOChannel::Stop();
  } catch (...) {
    died_of = std::current_exception();
  }
  CloseSocket();
  if (died_of) std::rethrow_exception(died_of);
}

IOChannel::Error KernelIOChannel::CreateSocket() {
  if (audit_fd_ != -1) return Error::InvalidState;
  const int fd = netlink_.Open();
  if (fd < 0 || netlink_.SetEnabled(fd, 1) <= 0 || netlink_.SetPid(fd, static_cast<std::uint32_t>(getpid())) < 0) {
    ZLOG_ERROR("KernelIOChannel::CreateSocket: " << ErrnoText(errno));
    if (fd >= 0) netlink_.Close(fd);
    return Error::AccessDenied;
  }
  const Error configured = ConfigureFD(fd);
  if (configured != Error::Success) {
    netlink_.Close(fd);
    return configured;
  }
  audit_fd_ = fd;
  read_fd_ = fd;
  write_fd_ = fd;
  return Error::Success;
}

void KernelIOChannel::CloseSocket() {
  read_fd_ = -1;
  write_fd_ = -1;
  const int fd = audit_fd_.exchange(-1);
  if (fd != -1 && netlink_.Close(fd) != 0) {
    ZLOG_ERROR("KernelIOChannel::CloseSocket: " << ErrnoText(errno));
  }
}

bool KernelIOChannel::Read(Bytes& data) {
  audit_reply reply;  // NOLINT(cppcoreguidelines-pro-type-member-init): nine thousand bytes that the kernel fills
  reply.message = nullptr;
  int length = 0;
  do {
    length = netlink_.GetReply(audit_fd_, reply);
  } while (length < 1 && errno == EINTR);
  if (length < 1) {
    ZLOG_ERROR("KernelIOChannel::Read: Failed to read audit reply.");
    return false;
  }
  ZLOG_TRACE("KernelIOChannel: received " << reply.len << " bytes.");
  const char* type = audit_msg_type_to_name(reply.type);
  if (type == nullptr) return false;
  std::string line("type=");
  line.append(type).append(" msg=").append(TextOf(reply)).append("\n");
  data.assign(line.begin(), line.end());
  if (Log::IsEventTraceEnabled()) Log::WriteEventTrace("Audit event: " + line);
  return false;
}

void KernelIOChannel::Send(const Bytes& data) {
  if (audit_fd_ == -1) throw IOChannelException(Error::InvalidState);
  ZLOG_DEBUG("KernelIOChannel: Sending audit rule data. [" << data.size() << " bytes ]");
  if (internal::AddRuleFromBytes(netlink_, audit_fd_, data) <= 0) {
    ZLOG_ERROR("KernelIOChannel::Send: " << ErrnoText(errno));
    throw IOChannelException(Error::Unknown);
  }
  ZLOG_DEBUG("KernelIOChannel: Audit rule sent.");
}

}  // namespace zagent::audit

#include "src/audit/channels/DispatcherIOChannel.h"

#include <cerrno>
#include <exception>
#include <utility>

#include "common/src/util/ErrnoText.h"
#include "common/src/util/Log.h"
#include "src/audit/channels/AuditRuleBytes.h"

namespace zagent::audit {
namespace {

using common::util::ErrnoText;
using common::util::Log;

constexpr std::int32_t kReconnectWithoutEnd = 0;

}  // namespace

DispatcherIOChannel::DispatcherIOChannel(AuditNetlink& netlink, std::string path, common::util::Clock& clock)
    : UnixClientStreamSockIOChannel(std::move(path), kReconnectWithoutEnd, clock), netlink_(netlink) {}

DispatcherIOChannel::~DispatcherIOChannel() {
  try {
    DispatcherIOChannel::Stop();
  } catch (const std::exception&) {  // NOLINT(bugprone-empty-catch)
  }
}

void DispatcherIOChannel::Start() {
  ZLOG_DEBUG("DispatcherIOChannel: Starting...");
  const Error error = CreateSocket();
  if (error != Error::Success) throw IOChannelException(error);
  try {
    UnixClientStreamSockIOChannel::Start();
  } catch (...) {
    CloseSocket();
    throw;
  }
  ZLOG_DEBUG("DispatcherIOChannel: Started.");
}

void DispatcherIOChannel::Stop() {
  ZLOG_DEBUG("DispatcherIOChannel: Stopping...");
  std::exception_ptr died_of;
  try {
    UnixClientStreamSockIOChannel::Stop();
  } catch (...) {
    died_of = std::current_exception();
  }
  CloseSocket();
  ZLOG_DEBUG("DispatcherIOChannel: Stopped.");
  if (died_of) std::rethrow_exception(died_of);
}

IOChannel::Error DispatcherIOChannel::CreateSocket() {
  if (audit_fd_ != -1) return Error::InvalidState;
  const int fd = netlink_.Open();
  if (fd < 0) {
    ZLOG_ERROR("DispatcherIOChannel::CreateSocket: " << ErrnoText(errno));
    return Error::AccessDenied;
  }
  const Error configured = ConfigureFD(fd);
  if (configured != Error::Success) {
    netlink_.Close(fd);
    return configured;
  }
  audit_fd_ = fd;
  return Error::Success;
}

void DispatcherIOChannel::CloseSocket() {
  const int fd = audit_fd_.exchange(-1);
  if (fd != -1 && netlink_.Close(fd) != 0) {
    ZLOG_ERROR("DispatcherIOChannel::CloseSocket: " << ErrnoText(errno));
  }
}

void DispatcherIOChannel::OnRead(Bytes&& data) {
  ZLOG_TRACE("DispatcherIOChannel: Received " << data.size() << " bytes.");
  if (Log::IsEventTraceEnabled()) Log::WriteEventTrace("Audit Event: " + std::string(data.begin(), data.end()));
  UnixClientStreamSockIOChannel::OnRead(std::move(data));
}

void DispatcherIOChannel::Send(const Bytes& data) {
  if (audit_fd_ == -1) throw IOChannelException(Error::InvalidState);
  if (internal::AddRuleFromBytes(netlink_, audit_fd_, data) <= 0) {
    ZLOG_ERROR("DispatcherIOChannel::Send: " << ErrnoText(errno));
    throw IOChannelException(Error::Unknown);
  }
}

}  // namespace zagent::audit

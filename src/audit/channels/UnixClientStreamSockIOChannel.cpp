#include "src/audit/channels/UnixClientStreamSockIOChannel.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <exception>
#include <utility>

#include "common/src/util/ErrnoText.h"
#include "common/src/util/Log.h"
#include "src/audit/channels/UnixSocket.h"

namespace zagent::audit {
namespace {

using common::util::ErrnoText;

constexpr std::chrono::seconds kReconnectPause{1};

IOChannel::Error ConnectError(int error) {
  switch (error) {
    case EAGAIN:
    case ECONNREFUSED:
      return IOChannel::Error::RemoteFailure;
    case EACCES:
    case EPERM:
      return IOChannel::Error::AccessDenied;
    case ENOENT:
      return IOChannel::Error::InvalidData;
    default:
      return IOChannel::Error::Unknown;
  }
}

}  // namespace

UnixClientStreamSockIOChannel::UnixClientStreamSockIOChannel(std::string path, std::int32_t reconnect_limit,
                                                             common::util::Clock& clock)
    : IOChannel(kBufferSize, 0), path_(std::move(path)), reconnect_limit_(reconnect_limit), clock_(clock) {
  if (path_.empty() || path_.size() > kMaxPathLength) throw IOChannelException(Error::InvalidData);
}

UnixClientStreamSockIOChannel::~UnixClientStreamSockIOChannel() {
  try {
    UnixClientStreamSockIOChannel::Stop();
  } catch (const std::exception&) {  // NOLINT(bugprone-empty-catch)
  }
}

void UnixClientStreamSockIOChannel::SetReconnectCallback(ReconnectCallback callback) {
  const std::lock_guard lock(mutex_);
  RequireStopped();
  reconnect_callback_ = std::move(callback);
}

void UnixClientStreamSockIOChannel::SetDisconnectCallback(ReconnectCallback callback) {
  const std::lock_guard lock(mutex_);
  RequireStopped();
  disconnect_callback_ = std::move(callback);
}

void UnixClientStreamSockIOChannel::Start() {
  ZLOG_INFO("UnixClientStreamSockIOChannel: Starting...");
  Error error = CreateSocket();
  if (error != Error::Success) throw IOChannelException(error);
  error = Connect();
  if (error != Error::Success) {
    CloseSocket();
    throw IOChannelException(error);
  }
  try {
    IOChannel::Start();
  } catch (...) {
    CloseSocket();
    throw;
  }
  ZLOG_INFO("UnixClientStreamSockIOChannel: Started.");
}

void UnixClientStreamSockIOChannel::Stop() {
  ZLOG_INFO("UnixClientStreamSockIOChannel: Stopping...");
  {
    const std::lock_guard lock(pause_mutex_);
    AnnounceStop();
  }
  pause_condition_.notify_all();
  std::exception_ptr died_of;
  try {
    IOChannel::Stop();
  } catch (...) {
    died_of = std::current_exception();
  }
  CloseSocket();
  ZLOG_INFO("UnixClientStreamSockIOChannel: Stopped.");
  if (died_of) std::rethrow_exception(died_of);
}

IOChannel::Error UnixClientStreamSockIOChannel::CreateSocket() {
  if (socket_ != -1) return Error::InvalidState;
  const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  if (fd < 0) {
    ZLOG_ERROR("UnixClientStreamSockIOChannel::CreateSocket: " << ErrnoText(errno));
    return Error::Unknown;
  }
  const Error configured = ConfigureFD(fd);
  if (configured != Error::Success) {
    close(fd);
    return configured;
  }
  if (!internal::SetReceiveBuffer(fd, GetReadBufSize())) {
    ZLOG_ERROR("UnixClientStreamSockIOChannel: Failed to set SO_RCVBUF: " << ErrnoText(errno));
  }
  socket_ = fd;
  return Error::Success;
}

IOChannel::Error UnixClientStreamSockIOChannel::Connect() {
  const internal::UnixAddress address(path_);
  int result = -1;
  do {
    result = connect(socket_, address.Get(), internal::UnixAddress::Size());
  } while (result != 0 && errno == EINTR);
  if (result != 0) {
    const int error = errno;
    ZLOG_ERROR("UnixClientStreamSockIOChannel::Connect: " << ErrnoText(error));
    return ConnectError(error);
  }
  read_fd_ = socket_.load();
  write_fd_ = socket_.load();
  ZLOG_INFO("UnixClientStreamSockIOChannel: Connected.");
  return Error::Success;
}

void UnixClientStreamSockIOChannel::CloseSocket() {
  read_fd_ = -1;
  write_fd_ = -1;
  const int fd = socket_.exchange(-1);
  if (fd != -1 && close(fd) != 0) {
    ZLOG_ERROR("UnixClientStreamSockIOChannel::CloseSocket: " << ErrnoText(errno));
  }
}

IOChannel::Error UnixClientStreamSockIOChannel::OnEOF() {
  ZLOG_WARNING("UnixClientStreamSockIOChannel: EOF Received. Trying to reconnect...");
  if (disconnect_callback_) disconnect_callback_();
  return Reconnect();
}

IOChannel::Error UnixClientStreamSockIOChannel::Reconnect() {
  CloseSocket();
  const Error created = CreateSocket();
  if (created != Error::Success) return created;
  for (std::int64_t attempt = 1; reconnect_limit_ >= 0; ++attempt) {
    ZLOG_INFO("UnixClientStreamSockIOChannel: Trying to reconnect... ");
    const Error connected = Connect();
    if (IsExiting()) {
      ZLOG_INFO("UnixClientStreamSockIOChannel: Aborting reconnection because socket is closing.");
      CloseSocket();
      return Error::Timeout;
    }
    if (connected == Error::Success) {
      if (reconnect_callback_) reconnect_callback_();
      return Error::Success;
    }
    PauseBeforeNextAttempt();
    if (reconnect_limit_ > 0 && attempt >= reconnect_limit_) break;
  }
  ZLOG_WARNING("UnixClientStreamSockIOChannel: Aborting reconnection due to timeout.");
  CloseSocket();
  return Error::Timeout;
}

void UnixClientStreamSockIOChannel::PauseBeforeNextAttempt() {
  std::unique_lock lock(pause_mutex_);
  clock_.WaitFor(pause_condition_, lock, kReconnectPause, [this] { return IsExiting(); });
}

}  // namespace zagent::audit

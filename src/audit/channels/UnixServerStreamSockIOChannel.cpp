#include "src/audit/channels/UnixServerStreamSockIOChannel.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <exception>
#include <thread>
#include <utility>

#include "common/src/util/ErrnoText.h"
#include "common/src/util/Log.h"
#include "src/audit/channels/UnixSocket.h"

namespace zagent::audit {
namespace {

using common::util::ErrnoText;

constexpr int kBacklog = 1;
constexpr mode_t kReadWriteBits = 0666;
// Out of descriptors the listener stays readable: the loop must not spin on it.
constexpr std::chrono::milliseconds kAcceptFailurePause{100};

}  // namespace

UnixServerStreamSockIOChannel::UnixServerStreamSockIOChannel(std::string path, mode_t mode)
    : IOChannel(kBufferSize, 0), path_(std::move(path)), mode_(mode) {
  if (path_.empty() || path_.size() > kMaxPathLength) throw IOChannelException(Error::InvalidData);
  CreateFolder();
}

UnixServerStreamSockIOChannel::~UnixServerStreamSockIOChannel() {
  try {
    UnixServerStreamSockIOChannel::Stop();
  } catch (const std::exception&) {  // NOLINT(bugprone-empty-catch)
  }
}

void UnixServerStreamSockIOChannel::CreateFolder() const {
  const std::size_t last = path_.rfind('/');
  for (std::size_t slash = path_.find('/', 1); slash != std::string::npos && slash <= last;
       slash = path_.find('/', slash + 1)) {
    const std::string folder = path_.substr(0, slash);
    if (mkdir(folder.c_str(), mode_) == 0) {
      if (slash == last) ZLOG_INFO("UnixServerStreamSockIOChannel: Created dir " << folder);
      continue;
    }
    if (errno == EEXIST) continue;
    const int error = errno;
    ZLOG_ERROR("UnixServerStreamSockIOChannel: Failed to create dir " << folder << ": " << ErrnoText(error));
    throw IOChannelException(error == EACCES ? Error::AccessDenied : Error::InvalidData);
  }
}

void UnixServerStreamSockIOChannel::SetClientCallback(ClientCallback callback) {
  const std::lock_guard lock(mutex_);
  RequireStopped();
  client_callback_ = std::move(callback);
}

void UnixServerStreamSockIOChannel::Start() {
  ZLOG_INFO("UnixServerStreamSockIOChannel: Starting...");
  Error error = CreateSocket();
  if (error != Error::Success) throw IOChannelException(error);
  error = Bind();
  if (error != Error::Success) {
    CloseAll();
    throw IOChannelException(error);
  }
  read_fd_ = listener_.load();
  try {
    IOChannel::Start();
  } catch (...) {
    CloseAll();
    throw;
  }
  ZLOG_INFO("UnixServerStreamSockIOChannel: Started.");
}

void UnixServerStreamSockIOChannel::Stop() {
  std::exception_ptr died_of;
  try {
    IOChannel::Stop();
  } catch (...) {
    died_of = std::current_exception();
  }
  CloseAll();
  if (died_of) std::rethrow_exception(died_of);
}

IOChannel::Error UnixServerStreamSockIOChannel::CreateSocket() {
  if (listener_ != -1) return Error::InvalidState;
  const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  if (fd < 0) {
    ZLOG_ERROR("UnixServerStreamSockIOChannel::CreateSocket: " << ErrnoText(errno));
    return Error::Unknown;
  }
  const Error configured = ConfigureFD(fd);
  if (configured != Error::Success) {
    close(fd);
    return configured;
  }
  listener_ = fd;
  return Error::Success;
}

IOChannel::Error UnixServerStreamSockIOChannel::Bind() {
  if (listener_ == -1) throw std::runtime_error("Bind: Invalid socket");
  unlink(path_.c_str());
  const internal::UnixAddress address(path_);
  // The mode that the socket has before bind is what its file is made with: there is no moment in which others may
  // connect.
  if (fchmod(listener_, mode_ & kReadWriteBits) != 0 ||
      ::bind(listener_, address.Get(), internal::UnixAddress::Size()) != 0) {
    const int error = errno;
    ZLOG_ERROR("UnixServerStreamSockIOChannel::Bind: " << ErrnoText(error));
    return error == EACCES ? Error::AccessDenied : Error::InvalidData;
  }
  bound_ = true;
  if (listen(listener_, kBacklog) != 0) {
    const int error = errno;
    ZLOG_ERROR("UnixServerStreamSockIOChannel::Bind: " << ErrnoText(error));
    return error == EACCES ? Error::AccessDenied : Error::InvalidData;
  }
  ZLOG_INFO("UnixServerStreamSockIOChannel: Bound to " << path_);
  return Error::Success;
}

bool UnixServerStreamSockIOChannel::Read(Bytes& data) {
  if (read_fd_ == listener_ && !Accept()) return false;
  return IOChannel::Read(data);
}

bool UnixServerStreamSockIOChannel::Accept() {
  const int fd = accept(listener_, nullptr, nullptr);
  if (fd < 0) {
    // A client that gave up before it was accepted is nobody's failure.
    if (errno == EAGAIN || errno == ECONNABORTED || errno == EINTR) return false;
    ZLOG_ERROR("UnixServerStreamSockIOChannel::Read: " << ErrnoText(errno));
    std::this_thread::sleep_for(kAcceptFailurePause);
    return false;
  }
  if (ConfigureFD(fd) != Error::Success) {
    close(fd);
    return false;
  }
  if (!internal::SetReceiveBuffer(fd, GetReadBufSize())) {
    ZLOG_ERROR("UnixServerStreamSockIOChannel: Failed to set SO_RCVBUF: " << ErrnoText(errno));
  }
  client_ = fd;
  read_fd_ = fd;
  write_fd_ = fd;
  ZLOG_INFO("UnixServerStreamSockIOChannel: New incoming connection accepted.");
  if (client_callback_) client_callback_(true);
  return true;
}

IOChannel::Error UnixServerStreamSockIOChannel::OnEOF() {
  ZLOG_INFO("UnixServerStreamSockIOChannel: EOF received. Waiting for incoming connections...");
  write_fd_ = -1;
  read_fd_ = listener_.load();
  close(client_.exchange(-1));
  if (client_callback_) client_callback_(false);
  return Error::Success;
}

// The client goes last: the moment it sees the end it may come back, and nobody must answer by then.
void UnixServerStreamSockIOChannel::CloseAll() {
  read_fd_ = -1;
  write_fd_ = -1;
  if (bound_ && unlink(path_.c_str()) != 0) {
    ZLOG_ERROR("UnixServerStreamSockIOChannel::Stop: " << ErrnoText(errno));
  }
  bound_ = false;
  for (std::atomic<int>* descriptor : {&listener_, &client_}) {
    const int fd = descriptor->exchange(-1);
    if (fd != -1 && close(fd) != 0) {
      ZLOG_ERROR("UnixServerStreamSockIOChannel::Stop: " << ErrnoText(errno));
    }
  }
}

}  // namespace zagent::audit

#include "src/audit/channels/IOChannel.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <exception>
#include <utility>

#include "common/src/util/ErrnoText.h"
#include "common/src/util/Log.h"
#include "common/src/util/ThreadName.h"

namespace zagent::audit {
namespace {

using common::util::ErrnoText;

constexpr std::size_t kSelfPipeStep = 32;

// Keeps SIGPIPE away from the calling thread. A write to a closed peer leaves the signal pending, so it is taken
// before the mask is restored: otherwise it would end the process at that moment.
class SigpipeBlock {
 public:
  SigpipeBlock() {
    sigemptyset(&sigpipe_);
    sigaddset(&sigpipe_, SIGPIPE);
    sigset_t pending;
    sigpending(&pending);
    was_pending_ = sigismember(&pending, SIGPIPE) == 1;
    sigset_t old;
    pthread_sigmask(SIG_BLOCK, &sigpipe_, &old);
    was_blocked_ = sigismember(&old, SIGPIPE) == 1;
  }
  SigpipeBlock(const SigpipeBlock&) = delete;
  SigpipeBlock& operator=(const SigpipeBlock&) = delete;
  ~SigpipeBlock() {
    if (was_blocked_) return;
    constexpr timespec kAtOnce{0, 0};
    if (!was_pending_) {
      while (sigtimedwait(&sigpipe_, nullptr, &kAtOnce) < 0 && errno == EINTR) {
      }
    }
    pthread_sigmask(SIG_UNBLOCK, &sigpipe_, nullptr);
  }

 private:
  sigset_t sigpipe_{};
  bool was_blocked_ = false;
  bool was_pending_ = false;
};

void SleepThroughSignals(std::chrono::nanoseconds duration) {
  timespec rest{0, static_cast<long>(duration.count())};
  while (nanosleep(&rest, &rest) != 0 && errno == EINTR) {
  }
}

const char* Words(IOChannel::Error error) {
  switch (error) {
    case IOChannel::Error::Success:
      return "IOChannel: Success";
    case IOChannel::Error::Timeout:
      return "IOChannel: Timeout";
    case IOChannel::Error::RemoteFailure:
      return "IOChannel: Remote failure";
    case IOChannel::Error::AccessDenied:
      return "IOChannel: Access denied";
    case IOChannel::Error::InvalidData:
      return "IOChannel: Invalid data";
    case IOChannel::Error::InvalidState:
      return "IOChannel: Invalid state";
    case IOChannel::Error::Unknown:
      break;
  }
  return "IOChannel: Unknown error";
}

}  // namespace

IOChannelException::IOChannelException(IOChannel::Error error) : std::runtime_error(Words(error)), error_(error) {}

const char* IOChannelException::what() const noexcept {
  return Words(error_);
}

IOChannel::IOChannel(std::size_t read_buf_size, std::uint64_t timeout_seconds)
    : timeout_seconds_(timeout_seconds), read_buf_size_(read_buf_size) {
  if (read_buf_size == 0) throw std::runtime_error("IOChannel: readBufSize cannot be 0");
  std::array<int, 2> ends{};
  if (pipe(ends.data()) != 0) throw IOChannelException(Error::Unknown);
  wake_read_.Reset(ends[0]);
  wake_write_.Reset(ends[1]);
  ConfigureFD(wake_read_.Get());
  ConfigureFD(wake_write_.Get());
}

IOChannel::~IOChannel() {
  try {
    IOChannel::Stop();
  } catch (const std::exception&) {  // NOLINT(bugprone-empty-catch)
    // What the loop died of is told by Stop; a destructor has nobody to tell.
  }
}

IOChannel::Error IOChannel::ConfigureFD(int fd) {
  const int descriptor_flags = fcntl(fd, F_GETFD);
  if (descriptor_flags < 0 || fcntl(fd, F_SETFD, descriptor_flags | FD_CLOEXEC) < 0) {
    ZLOG_ERROR("IOChannel::ConfigureFD: " << ErrnoText(errno));
    return Error::Unknown;
  }
  const int status_flags = fcntl(fd, F_GETFL);
  if (status_flags < 0 || fcntl(fd, F_SETFL, status_flags | O_NONBLOCK) < 0) {
    ZLOG_ERROR("IOChannel::ConfigureFD: " << ErrnoText(errno));
    return Error::Unknown;
  }
  return Error::Success;
}

void IOChannel::RequireStopped() const {
  if (future_.valid()) throw IOChannelException(Error::InvalidState);
}

void IOChannel::SetReadCallback(ReadCallback callback) {
  const std::lock_guard lock(mutex_);
  RequireStopped();
  read_callback_ = std::move(callback);
}

void IOChannel::SetErrorCallback(ErrorCallback callback) {
  const std::lock_guard lock(mutex_);
  RequireStopped();
  error_callback_ = std::move(callback);
}

void IOChannel::SetEndedCallback(EndedCallback callback) {
  const std::lock_guard lock(mutex_);
  RequireStopped();
  ended_callback_ = std::move(callback);
}

void IOChannel::SetThreadName(std::string name) {
  const std::lock_guard lock(mutex_);
  RequireStopped();
  thread_name_ = std::move(name);
}

void IOChannel::Start() {
  const std::lock_guard lock(mutex_);
  if (read_fd_ == -1) throw IOChannelException(Error::InvalidState);
  RequireStopped();
  exiting_ = false;
  future_ = std::async(std::launch::async, [this] { Run(); });
}

void IOChannel::Run() {
  common::util::NameThisThread(thread_name_.c_str());
  std::exception_ptr died_of;
  std::string cause;
  try {
    const Error error = EventLoop();
    if (error != Error::Success) cause = Words(error);
  } catch (const std::exception& error) {
    died_of = std::current_exception();
    cause = error.what();
  } catch (...) {
    died_of = std::current_exception();
    cause = "unknown failure";
  }
  if (died_of) {
    // Stop throws it on; until then nobody would know that the channel is deaf.
    ZLOG_ERROR("IOChannel: The event loop has ended: " << cause);
    ReportError(Error::Unknown);
  }
  if (!cause.empty() && !exiting_ && ended_callback_) ended_callback_(cause);
  if (died_of) std::rethrow_exception(died_of);
}

void IOChannel::Stop() {
  const std::lock_guard lock(mutex_);
  exiting_ = true;
  if (!future_.valid()) return;
  ssize_t written = 0;
  do {
    written = write(wake_write_.Get(), "1", 1);
  } while (written < 0 && errno == EINTR);
  if (written < 0) {
    ZLOG_ERROR("IOChannel::Stop: Cannot write the exit status on channel: " << ErrnoText(errno));
  }
  future_.get();
}

IOChannel::Error IOChannel::EventLoop() {
  Error error = Error::Success;
  while (!exiting_ && error == Error::Success) {
    bool self_pipe_ready = false;
    bool input_ready = false;
    const Wake wake = WaitForInput(self_pipe_ready, input_ready);
    if (wake == Wake::Again) continue;
    if (wake == Wake::Failed) error = Error::Unknown;
    if (wake == Wake::TimedOut) error = HandleTimeout();
    if (input_ready && !exiting_) error = HandleReadable();
    if (self_pipe_ready && error == Error::Success) DrainSelfPipe();
  }
  ZLOG_WARNING("IOChannel: Exiting the event loop.");
  return error;
}

// poll instead of select: it has no highest descriptor. A descriptor that is not open is an error of the wait, as it
// is for select.
IOChannel::Wake IOChannel::WaitForInput(bool& self_pipe_ready, bool& input_ready) {
  constexpr timespec kAtOnce{0, 0};
  std::array<pollfd, 2> waiting = {pollfd{wake_read_.Get(), POLLIN, 0}, pollfd{read_fd_, POLLIN, 0}};
  timespec limit{static_cast<time_t>(timeout_seconds_), 0};
  const timespec* const wait = may_gather_ ? &kAtOnce : timeout_seconds_ == 0 ? nullptr : &limit;
  int ready = ppoll(waiting.data(), waiting.size(), wait, nullptr);
  if (ready > 0 && ((waiting[0].revents | waiting[1].revents) & POLLNVAL) != 0) {
    errno = EBADF;
    ready = -1;
  }
  if (ready == 0 && may_gather_) {
    may_gather_ = false;
    let_gather_();
    return Wake::Again;
  }
  if (ready == 0) return Wake::TimedOut;
  if (ready < 0) {
    if (errno == EINTR) return Wake::Again;
    ZLOG_ERROR("IOChannel::EventLoop: " << ErrnoText(errno));
    return Wake::Failed;
  }
  self_pipe_ready = waiting[0].revents != 0;
  input_ready = waiting[1].revents != 0;
  return Wake::Signalled;
}

IOChannel::Error IOChannel::HandleTimeout() {
  return ReportError(OnTimeout());
}

IOChannel::Error IOChannel::HandleReadable() {
  Bytes data;
  const bool end_of_file = Read(data);
  may_gather_ = static_cast<bool>(let_gather_);
  if (!data.empty()) OnRead(std::move(data));
  return end_of_file ? ReportError(OnEOF()) : Error::Success;
}

void IOChannel::DrainSelfPipe() const {
  ZLOG_INFO("IOChannel: Wake up triggered using self-pipe.");
  std::array<char, kSelfPipeStep> bytes{};
  while (read(wake_read_.Get(), bytes.data(), bytes.size()) > 0) {
  }
}

IOChannel::Error IOChannel::ReportError(Error error) const {
  if (error != Error::Success && error_callback_) error_callback_(error);
  return error;
}

bool IOChannel::Read(Bytes& data) {
  std::array<unsigned char, kMaxBurst> buffer;  // NOLINT(cppcoreguidelines-pro-type-member-init): read fills it
  const std::size_t step = std::min(read_buf_size_, buffer.size());
  // A later success gives no try back, so that a slow writer cannot hold the loop for ever.
  int empty_reads = 0;
  while (true) {
    const ssize_t length = read(read_fd_, buffer.data(), step);
    if (length == 0) return true;
    if (length > 0) {
      data.insert(data.end(), buffer.begin(), buffer.begin() + length);
      if (data.size() >= kMaxBurst) return false;
      continue;
    }
    if (++empty_reads == kEmptyReads) return false;
    SleepThroughSignals(kReadPause);
  }
}

void IOChannel::OnRead(Bytes&& data) {
  if (read_callback_) read_callback_(std::move(data));
}

IOChannel::Error IOChannel::OnEOF() {
  ZLOG_ERROR("IOChannel: EOF received.");
  return Error::RemoteFailure;
}

IOChannel::Error IOChannel::OnTimeout() {
  ZLOG_ERROR("IOChannel: Timeout occurred.");
  return Error::Timeout;
}

void IOChannel::Send(const Bytes& data) {
  if (write_fd_ == -1) throw IOChannelException(Error::InvalidState);
  const SigpipeBlock no_sigpipe;
  const Error error = WriteAll(data);
  if (error != Error::Success) throw IOChannelException(error);
}

IOChannel::Error IOChannel::WriteAll(const Bytes& data) {
  std::size_t written = 0;
  while (written < data.size()) {
    const ssize_t length = write(write_fd_, data.data() + written, data.size() - written);
    if (length >= 0) {
      written += static_cast<std::size_t>(length);
      continue;
    }
    const int error = errno;
    ZLOG_ERROR("IOChannel::Send: " << ErrnoText(error));
    if (error == EINTR) continue;
    if (error == EPIPE) return Error::RemoteFailure;
    if (error != EAGAIN) return Error::Unknown;
    const Error waited = WaitUntilWritable();
    if (waited != Error::Success) return waited;
  }
  return Error::Success;
}

IOChannel::Error IOChannel::WaitUntilWritable() {
  while (!exiting_) {
    pollfd waiting{write_fd_, POLLOUT, 0};
    const int ready = poll(&waiting, 1, static_cast<int>(kWriteWait.count()));
    if (ready > 0) return Error::Success;
    if (ready == 0) break;
    if (errno == EINTR) continue;
    ZLOG_ERROR("IOChannel::WaitUntilWritable: " << ErrnoText(errno));
    return Error::Unknown;
  }
  ZLOG_WARNING("IOChannel: Write aborted due to " << (exiting_ ? "exiting." : "timeout."));
  return Error::Timeout;
}

}  // namespace zagent::audit

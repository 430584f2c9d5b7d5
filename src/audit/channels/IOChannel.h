#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <future>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/src/util/UniqueFd.h"

namespace zagent::audit {

// A byte channel with one reader thread, one readable and one writable descriptor, and a self-pipe that interrupts the
// wait. The only place where the program selects on descriptors.
//
// The event loop's thread alone calls Read, OnRead, OnEOF and OnTimeout, and so the callbacks. Send and Stop come from
// any other thread; Stop from within a callback is not supported. A channel that ended by itself still holds its
// thread until Stop.
//
// Every concrete channel calls its own Stop in its own destructor and swallows what it throws: the base cannot.
class IOChannel {
 public:
  enum class Error : int {
    Success = 0,
    Timeout = 1,
    RemoteFailure = 2,
    AccessDenied = 3,
    InvalidData = 4,
    InvalidState = 5,
    Unknown = 6,
  };
  using Bytes = std::vector<unsigned char>;
  using ReadCallback = std::function<void(Bytes&&)>;
  using ErrorCallback = std::function<void(Error)>;
  using EndedCallback = std::function<void(const std::string& cause)>;

  // A burst ends at this many bytes even if more are waiting.
  static constexpr std::size_t kMaxBurst = 65'536;
  // It ends as well when this many reads in all found nothing, with a pause between each and the next: a quiet gap of
  // about 80 ms is the only boundary that a stream of unframed messages has.
  static constexpr int kEmptyReads = 5;
  static constexpr std::chrono::milliseconds kReadPause{20};
  static constexpr std::chrono::milliseconds kWriteWait{500};

  // timeout_seconds 0: the loop waits without a time limit. Throws std::runtime_error for a zero read_buf_size,
  // IOChannelException(Unknown) when the self-pipe cannot be made.
  IOChannel(std::size_t read_buf_size, std::uint64_t timeout_seconds);
  IOChannel(const IOChannel&) = delete;
  IOChannel& operator=(const IOChannel&) = delete;

  // Throw IOChannelException(InvalidState) while the channel is running.
  void SetReadCallback(ReadCallback callback);
  void SetErrorCallback(ErrorCallback callback);
  // Called once a run, as the last thing on the loop's thread, when the loop has ended without having been stopped:
  // after the error callback, and also where that one is not called because the wait itself failed.
  void SetEndedCallback(EndedCallback callback);
  // What the loop's thread is called in /proc.
  void SetThreadName(std::string name);

 protected:
  // The order of the virtual operations is part of the interface.

  virtual void OnRead(Bytes&& data);
  // What is not Success ends the loop through the error callback.
  virtual Error OnEOF();
  // Appends one burst to `data`; true at end of file.
  virtual bool Read(Bytes& data);
  // As OnEOF.
  virtual Error OnTimeout();

 public:
  virtual ~IOChannel();
  // Writes everything, waiting at most 500 ms at a time for a slow peer. Throws IOChannelException.
  virtual void Send(const Bytes& data);
  // Throws IOChannelException(InvalidState) without a descriptor or when running.
  virtual void Start();
  // Ends the loop and waits for its thread; rethrows what the thread died of. Harmless on a stopped channel.
  virtual void Stop();

 protected:
  // Close-on-exec and non-blocking. Each failure is logged.
  static Error ConfigureFD(int fd);
  [[nodiscard]] bool IsExiting() const { return exiting_; }
  // What the loop does from here on belongs to its stop; for a channel that must be woken before Stop can wait for it.
  void AnnounceStop() { exiting_ = true; }
  [[nodiscard]] std::size_t GetReadBufSize() const { return read_buf_size_; }
  // Throws IOChannelException(InvalidState) when running; the caller holds mutex_.
  void RequireStopped() const;

  std::mutex mutex_;  // serialises Start, Stop and the setters
  // Written by the event loop while it runs, by Start and Stop otherwise.
  std::atomic<int> read_fd_{-1};
  std::atomic<int> write_fd_{-1};
  // Called when what there was has been read, before the loop waits for more. What comes in between is read without
  // another sleep, which costs more than a record. Returns soon. Set while stopped; may be empty.
  std::function<void()> let_gather_;

 private:
  enum class Wake { Signalled, TimedOut, Again, Failed };
  void Run();
  // Answers why it has ended by itself; Success when it was stopped.
  Error EventLoop();
  // Waits for the self-pipe, read_fd_ or the time limit.
  Wake WaitForInput(bool& self_pipe_ready, bool& input_ready);
  // What is not Success ends the loop; it has been reported.
  Error HandleTimeout();
  Error HandleReadable();
  void DrainSelfPipe() const;
  // Hands an error to the error callback and answers it.
  Error ReportError(Error error) const;
  Error WriteAll(const Bytes& data);
  Error WaitUntilWritable();

  ErrorCallback error_callback_;
  EndedCallback ended_callback_;
  std::string thread_name_ = "edr-channel";
  std::future<void> future_;
  ReadCallback read_callback_;
  common::util::UniqueFd wake_read_;
  common::util::UniqueFd wake_write_;
  std::atomic<bool> exiting_{false};
  bool may_gather_ = false;  // something was read since; event loop
  std::uint64_t timeout_seconds_;
  std::size_t read_buf_size_;
};

// Carries one IOChannel::Error; what() is "IOChannel: <its words>".
class IOChannelException : public std::runtime_error {
 public:
  explicit IOChannelException(IOChannel::Error error);
  [[nodiscard]] IOChannel::Error GetError() const { return error_; }
  [[nodiscard]] const char* what() const noexcept override;

 private:
  IOChannel::Error error_;
};

}  // namespace zagent::audit

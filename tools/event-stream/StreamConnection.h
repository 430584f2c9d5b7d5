#pragma once

#include <nats/nats.h>

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "tools/event-stream/StreamOptions.h"

namespace zagent::tools {

// What libnats gives out, owned.
struct NatsDeleter {
  void operator()(natsOptions* options) const { natsOptions_Destroy(options); }
  void operator()(natsConnection* connection) const { natsConnection_Destroy(connection); }
  void operator()(jsCtx* context) const { jsCtx_Destroy(context); }
  void operator()(natsMsg* message) const { natsMsg_Destroy(message); }
  void operator()(natsSubscription* subscription) const { natsSubscription_Destroy(subscription); }
  void operator()(jsPubAck* ack) const { jsPubAck_Destroy(ack); }
  void operator()(jsStreamInfo* info) const { jsStreamInfo_Destroy(info); }
};
template <typename T>
using NatsPtr = std::unique_ptr<T, NatsDeleter>;

// The text for a failure of libnats on this thread: its own words where it has some.
std::string NatsErrorText(natsStatus status);

// One connection to the engine. libnats goes to another server of the cluster by itself when one is lost.
// Thread-safe but for the construction.
class StreamSession {
 public:
  // Throws std::runtime_error when no server lets this client in, or a file cannot be used.
  explicit StreamSession(const StreamOptions& options);

  // Makes the stream when there is none. Throws std::runtime_error.
  void EnsureStream(const StreamOptions& options) const;
  // Throws std::runtime_error when there is none.
  void RequireStream(const StreamOptions& options) const;

  [[nodiscard]] bool IsConnected() const;
  // For ever: libnats does not try again, as when the engine has refused the login twice.
  [[nodiscard]] bool IsClosed() const;
  // The largest message in bytes, headers included.
  [[nodiscard]] std::size_t MaxPayload() const;
  [[nodiscard]] std::string LastError() const;

  // In this order: the context goes first.
  [[nodiscard]] natsConnection* Connection() const { return connection_.get(); }
  [[nodiscard]] jsCtx* JetStream() const { return jet_stream_.get(); }

 private:
  NatsPtr<natsConnection> connection_;
  NatsPtr<jsCtx> jet_stream_;
};

// Keeps a session for all threads, with a thread of its own: opens it, sees to the stream, and opens another when the
// session is lost for good. An engine that is away is waited for without an end; `say` gets
// "stream: connected to <server>", and one line for each kind of failure, "error: stream: <reason>". Thread-safe.
class StreamConnection {
 public:
  enum class Stream { Make, Require };

  StreamConnection(StreamOptions options, Stream stream, std::function<void(const std::string& line)> say);
  StreamConnection(const StreamConnection&) = delete;
  StreamConnection& operator=(const StreamConnection&) = delete;
  ~StreamConnection();

  // Null while there is none. Whoever holds one may go on with it; its calls fail when it is lost.
  [[nodiscard]] std::shared_ptr<const StreamSession> Current() const;
  // Lets the thread look again whether the stream is there: of the session that gave reason to doubt it.
  void Doubt(const std::shared_ptr<const StreamSession>& session);
  // Until there is a session, `patience` is over, or Stop.
  std::shared_ptr<const StreamSession> Await(std::chrono::milliseconds patience) const;
  // Lets all waiting end. Current gives null from here on.
  void Stop();

  [[nodiscard]] const StreamOptions& Options() const { return options_; }
  void Say(const std::string& line) const;

 private:
  void Keep();
  // True when it is time to go.
  bool Pause(std::chrono::milliseconds duration);
  void Fail(const std::string& reason);

  const StreamOptions options_;
  const Stream stream_;
  const std::function<void(const std::string&)> say_;
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::shared_ptr<const StreamSession> current_;
  bool is_doubted_ = false;
  bool stopped_ = false;
  std::string told_;  // the last failure, until it works again; of the thread
  std::thread thread_;
};

}  // namespace zagent::tools

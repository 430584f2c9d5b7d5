#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>

#include "common/src/util/Clock.h"
#include "tools/event-stream/StreamConnection.h"
#include "tools/reference-receiver/UploadSink.h"

namespace zagent::tools {

// Publishes uploads to a stream (docs/PROTOCOL.md, "The stream") and holds nothing itself: what it has said to be kept
// the engine has acknowledged, on as many of its servers as the stream has replicas. The engine knows an upload again
// within the stream's window, whichever receiver it came to. Thread-safe.
class StreamSink final : public UploadSink {
 public:
  // Returns at once: while the engine is away, Add fails. `say` gets the lines of StreamConnection.
  StreamSink(StreamOptions options, std::function<void(const std::string& line)> say,
             const common::util::Clock& clock = common::util::Clock::Real());
  ~StreamSink() override;

  // Tries again until the time for an acknowledgement is over. Throws UnfitPayloadException for an identity or a
  // Z-REQID that cannot stand in the stream, PayloadTooLargeException for more than the engine or the stream takes, and
  // std::runtime_error when the engine is away, does not acknowledge in time, or the stream is full.
  bool Add(const AcceptedPayload& payload, const std::function<void()>& on_accepted) override;
  // The engine's largest message, once it is known.
  [[nodiscard]] std::size_t MaxSize() const override;
  void Stop() override;

 private:
  enum class Outcome { Kept, Repeated, Failed };

  // `why`: of a failure that may pass.
  Outcome Publish(const StreamSession& session, natsMsg* message, const std::string& id,
                  std::chrono::milliseconds patience, std::string& why, bool& is_gone) const;
  bool Pause();

  const common::util::Clock& clock_;
  StreamConnection connection_;
  std::mutex stop_mutex_;
  std::condition_variable stopping_;
  bool stopped_ = false;
};

}  // namespace zagent::tools

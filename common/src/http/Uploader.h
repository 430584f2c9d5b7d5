#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "common/src/http/UploadSource.h"

namespace zagent::common {

// What the upload schedules see: one call that sends one spool file's bytes to the platform.
class Uploader {
 public:
  static constexpr std::int32_t kSuccess = 0;

  Uploader() = default;
  Uploader(const Uploader&) = delete;
  Uploader& operator=(const Uploader&) = delete;
  virtual ~Uploader() = default;

  // Blocks until the final response, retries included. Never throws: 0 is success, 1000xx a failure (the table is
  // in docs/PROTOCOL.md), each failure logged once.
  virtual std::int32_t Upload(const std::string& content_type, const std::vector<unsigned char>& payload) = 0;
  // Ends an upload in flight, from another thread, and lets every later one fail at once: whoever cancels is about to
  // go, and an upload that begins just behind the cancel must not hold the end up.
  virtual void Cancel() = 0;

  // Where the next upload goes.
  [[nodiscard]] virtual std::string GetTarget() const = 0;
  virtual void SetTarget(const std::string& url) = 0;
  // Replaces the value of an indexed header of the header table (0 Z-PROTOVER, 1 Z-PROTOTYPE).
  virtual void SetIndexedHeader(unsigned index, const std::string& value) = 0;

  // The file that the next Upload sends, for that one only: its Z-REQID is the file's own, so that a receiver knows it
  // again whenever it comes. An upload without one has a random id.
  virtual void SetSource(const UploadSource& source) = 0;

  // Of the last finished upload: HTTP status code (0: no answer) and the upload's UUID (header Z-REQID).
  [[nodiscard]] virtual long LastHttpStatus() const = 0;
  [[nodiscard]] virtual std::string LastCorrelationId() const = 0;
};

}  // namespace zagent::common

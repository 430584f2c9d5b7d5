#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace zagent::common {
class ImageInfo;
}

namespace zagent::fim::internal {

// What a document says of a file's content; an empty content comes with its reason in `status`.
struct FileContent {
  static constexpr const char* kReadSuccessful = "READ_SUCCESSFUL";
  static constexpr const char* kReadFailure = "READ_FAILURE";
  static constexpr const char* kMaxSizeLimitReached = "MAX_SIZE_LIMIT_REACHED";
  // Files of up to this many bytes are captured.
  static constexpr std::size_t kMaxSize = 51'200;

  std::string status;
  std::vector<unsigned char> bytes;
};

// Reads the file as it is on disk now. Only a regular file that still is the object of the event (inode, and device
// where the event knows it) is read: a FIFO, a device or a link that was put in its place is "READ_FAILURE",
// and is not opened. A file that is gone is one too, without a log line: files come and go.
FileContent ReadFileContent(const common::ImageInfo& file);

}  // namespace zagent::fim::internal

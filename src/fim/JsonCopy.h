#pragma once

#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string>

#include "common/src/storage/StorageResult.h"

namespace zagent::fim::internal {

// A text that is not what it should be: RapidJSON's words for the fault, or our own, and the byte where it was found.
class JsonCopyException : public std::runtime_error {
 public:
  JsonCopyException(const std::string& text, std::size_t offset) : std::runtime_error(text), offset_(offset) {}
  [[nodiscard]] std::size_t Offset() const { return offset_; }

 private:
  std::size_t offset_;
};

struct JsonCopyOptions {
  // A top-level member that must be there and be an array.
  const char* required_array = nullptr;
  // A top-level text member that is put at the end of the object; a member of this name in the text is left out.
  const char* added_key = nullptr;
  std::string added_text;
};

// Reads one JSON object from `text` and appends it, without its blanks, to `out`. Nothing is built in memory and
// nothing recurses, so a hostile text costs no more than its own size; strings are decoded in place, in `text`.
//
// Throws JsonCopyException, with `out` as it was, for anything that is not exactly one object of well-formed UTF-8
// without NUL bytes and without more than 64 levels.
void CopyJsonObject(common::Bytes text, common::Bytes& out, const JsonCopyOptions& options = {});

}  // namespace zagent::fim::internal

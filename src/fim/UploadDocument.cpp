#include "src/fim/UploadDocument.h"

#include <utility>

namespace zagent::fim::internal {

common::Bytes BuildUploadDocument(common::Bytes file, const std::string& timestamp) {
  common::Bytes document;
  document.reserve(file.size() + timestamp.size() + sizeof(R"(,"timestamp":"")"));
  CopyJsonObject(std::move(file), document, {"events", "timestamp", timestamp});
  return document;
}

}  // namespace zagent::fim::internal

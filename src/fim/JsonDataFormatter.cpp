#include "src/fim/JsonDataFormatter.h"

#include <string_view>

#include "src/fim/JsonCopy.h"

namespace zagent::fim::internal {
namespace {

constexpr std::string_view kHead = R"({"events":[)";
constexpr std::string_view kTail = "]}";

}  // namespace

void JsonDataFormatter::Append(const common::Bytes& data) {
  const std::size_t old_size = events_.size();
  if (!events_.empty()) events_.push_back(',');
  try {
    CopyJsonObject(data, events_);
  } catch (const JsonCopyException&) {
    events_.resize(old_size);
    throw common::DataFormatterException("fim::JsonDataFormatter: 'data' is not a valid JSON object");
  }
}

common::Bytes JsonDataFormatter::Finish() {
  common::Bytes document(kHead.begin(), kHead.end());
  document.reserve(kHead.size() + events_.size() + kTail.size());
  document.insert(document.end(), events_.begin(), events_.end());
  document.insert(document.end(), kTail.begin(), kTail.end());
  return document;
}

std::size_t JsonDataFormatter::Size() const {
  return events_.empty() ? 0 : kHead.size() + events_.size() + kTail.size();
}

void JsonDataFormatter::Clear() {
  events_ = {};
}

}  // namespace zagent::fim::internal

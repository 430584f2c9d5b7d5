#include "src/ioc/process/EventSize.h"

#include <malloc.h>

#include <algorithm>
#include <cstdint>
#include <exception>
#include <string>

#include "src/edr/process/ImageInfo.h"

namespace zagent::ioc::internal {
namespace {

// What malloc takes for so many bytes.
std::size_t Chunk(std::size_t bytes) {
  constexpr std::size_t kHeader = 8;
  constexpr std::size_t kStep = 16;
  constexpr std::size_t kSmallest = 32;
  return std::max(kSmallest, (bytes + kHeader + kStep - 1) / kStep * kStep);
}

}  // namespace

std::size_t HeapOf(const std::string& text) {
  static const std::size_t kWithin = std::string().capacity();
  return text.capacity() > kWithin ? Chunk(text.capacity() + 1) : 0;
}

std::size_t HeapOf(const common::ImageInfo& image) {
  return HeapOf(image.GetDevice()) + HeapOf(image.GetPath()) + HeapOf(image.GetGroupName()) +
         HeapOf(image.GetOwnerName());
}

std::size_t HeapOf(const std::vector<std::string>& texts) {
  std::size_t bytes = texts.capacity() == 0 ? 0 : Chunk(texts.capacity() * sizeof(std::string));
  for (const std::string& text : texts) bytes += HeapOf(text);
  return bytes;
}

namespace {

// Adds up what belongs to one event. Most images are part of the event's own object.
class Sum {
 public:
  explicit Sum(const edr::Event& event)
      : begin_(reinterpret_cast<std::uintptr_t>(dynamic_cast<const void*>(&event))),
        object_bytes_(malloc_usable_size(const_cast<void*>(dynamic_cast<const void*>(&event)))),  // NOLINT
        total_(Chunk(object_bytes_)) {}

  void Add(const std::string& text) { total_ += HeapOf(text); }
  void Add(const common::ImageInfo* image) {
    if (image == nullptr) return;
    const auto at = reinterpret_cast<std::uintptr_t>(image);
    const bool is_within = at >= begin_ && at < begin_ + object_bytes_;
    total_ += HeapOf(*image) + (is_within ? 0 : Chunk(sizeof(*image)));
  }
  void Add(const std::vector<std::string>& texts) { total_ += HeapOf(texts); }
  [[nodiscard]] std::size_t Total() const { return total_; }

 private:
  const std::uintptr_t begin_;
  const std::size_t object_bytes_;
  std::size_t total_;
};

void AddFile(const edr::Event& event, Sum& sum) {
  sum.Add(event.GetCommandLine());
  sum.Add(event.GetFile());
  sum.Add(event.GetParentDeviceID());
  if (event.GetType() == edr::EventType::Rename || event.GetType() == edr::EventType::AttributeChange) {
    sum.Add(event.GetNewFile());
  }
}

void AddStart(const edr::Event& event, Sum& sum) {
  sum.Add(event.GetActorProcessArguments());
  sum.Add(event.GetCwd());
  if (event.HasSecondaryImage()) sum.Add(event.GetSecondaryImage());
}

void AddParts(const edr::Event& event, Sum& sum) {
  sum.Add(event.GetAuditKey());
  if (const common::ImageInfo* image = event.GetImage()) {
    sum.Add(image);
    sum.Add(image->GetPath());  // as the record has named it
  }
  switch (event.GetObjectType()) {
    case edr::ObjectType::File:
    case edr::ObjectType::Directory:
      AddFile(event, sum);
      return;
    case edr::ObjectType::Network:
      sum.Add(event.GetNetworkAddress());
      return;
    case edr::ObjectType::Process:
      if (event.GetType() == edr::EventType::ProcessStart) AddStart(event, sum);
      return;
  }
}

}  // namespace

std::size_t EstimateHeap(const edr::Event& event) {
  Sum sum(event);
  try {
    AddParts(event, sum);
  } catch (const std::exception&) {
    // A question that this event does not answer: what it answers is the most of it.
  }
  return sum.Total();
}

}  // namespace zagent::ioc::internal

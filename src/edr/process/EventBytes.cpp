#include "src/edr/process/EventBytes.h"

#include <string>

#include "src/edr/process/ImageInfo.h"

namespace zagent::edr {
namespace {

constexpr std::uint64_t kOrdinaryPath = 100;
constexpr std::uint64_t kOrdinaryArguments = 300;
// A path stands in an event as it was called and as it is.
constexpr std::uint64_t kCopiesOfPath = 2;

std::uint64_t Beyond(std::uint64_t bytes, std::uint64_t ordinary) {
  return bytes > ordinary ? bytes - ordinary : 0;
}

std::uint64_t BytesOf(const common::ImageInfo* file) {
  return file == nullptr ? 0 : kCopiesOfPath * Beyond(file->GetPath().size(), kOrdinaryPath);
}

std::uint64_t BytesOfArguments(const Event& event) {
  std::uint64_t bytes = 0;
  for (const std::string& argument : event.GetActorProcessArguments()) bytes += sizeof argument + argument.size();
  return Beyond(bytes, kOrdinaryArguments);
}

}  // namespace

std::uint64_t EstimateBytes(const Event& event) {
  std::uint64_t bytes = kOrdinaryEventBytes;
  switch (event.GetObjectType()) {
    case ObjectType::File:
    case ObjectType::Directory:
      bytes += BytesOf(event.GetFile());
      if (event.GetType() == EventType::Rename) bytes += BytesOf(event.GetNewFile());
      break;
    case ObjectType::Process:
      if (event.GetType() == EventType::ProcessStart) bytes += BytesOfArguments(event);
      break;
    case ObjectType::Network:
      break;
  }
  return bytes;
}

}  // namespace zagent::edr

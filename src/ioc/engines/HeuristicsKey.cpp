#include "src/ioc/engines/HeuristicsKey.h"

#include <array>
#include <charconv>
#include <cstdint>
#include <limits>
#include <memory>
#include <string_view>

#include "common/src/util/Digest.h"
#include "src/ioc/rules/RulePath.h"

namespace zagent::ioc::internal {
namespace {

void Append(std::string& text, std::uint32_t number) {
  std::array<char, std::numeric_limits<std::uint32_t>::digits10 + 1> digits{};
  const auto [end, error] = std::to_chars(digits.data(), digits.data() + digits.size(), number);
  text.append(digits.data(), end);
}

void AppendConnection(std::string& text, const edr::Event& event) {
  text += event.GetNetworkAddress();
  text += ':';
  Append(text, event.GetNetworkPort());
}

void AppendFileObject(std::string& text, const edr::Event& event) {
  const common::ImageInfo* const file = event.GetFile();
  if (file == nullptr) return;
  for (const std::uint32_t number : {file->GetOwnerId(), file->GetGroupId(), file->GetPermission()}) {
    Append(text, number);
    text += ':';
  }
  const NormalPath path(file);
  if (event.GetObjectType() != edr::ObjectType::File) {
    text += path.Get();
    return;
  }
  text += FolderOf(path.Get());
  // What is done to files of a folder is no more of what is done to the folder.
  if (!text.ends_with('/')) text += '/';
}

void AppendEvent(std::string& text, const edr::Event& event) {
  text += event.GetAction();
  text += ':';
  switch (event.GetObjectType()) {
    case edr::ObjectType::Network:
      AppendConnection(text, event);
      break;
    case edr::ObjectType::File:
    case edr::ObjectType::Directory:
      AppendFileObject(text, event);
      break;
    case edr::ObjectType::Process:
      break;
  }
  text += ';';
}

const std::string& PartOf(ProcessInfo& process) {
  if (const std::string* known = process.FindHeuristicsKey()) return *known;
  process.SetHeuristicsKey(HeuristicsPartOf(process));
  return *process.FindHeuristicsKey();
}

}  // namespace

std::string HeuristicsPartOf(const ProcessInfo& process) {
  std::string part = (process.HasSecondaryImage() ? process.GetSecondaryImage() : process.GetImage())->GetPath();
  for (const std::uint32_t id : {process.GetAuid(), process.GetEuid()}) {
    part += ':';
    Append(part, id);
  }
  part += ':';
  for (const std::string& argument : process.GetArguments()) {
    part += argument;
    part += ':';
  }
  part += ';';
  return part.size() <= HeuristicsKey::kMaxProcessPart ? part : common::util::Sha256Hex(part) + ';';
}

const std::string& HeuristicsKey::Of(const edr::Event& event, const TtlProcessTree& tree) {
  text_.clear();
  is_long_ = false;
  AppendEvent(text_, event);
  for (std::int32_t pid = event.GetActorProcessId(); pid > 0;) {
    const std::shared_ptr<ProcessInfo> process = tree.Get(pid);
    text_ += PartOf(*process);
    if (text_.size() > kMaxText) Shorten();
    pid = process->GetParent();
  }
  key_.clear();
  if (is_long_ || text_.size() > kMaxText) {
    Shorten();
    digest_.Final(key_);
  } else {
    common::util::AppendHex(text_, key_);
  }
  return key_;
}

void HeuristicsKey::Shorten() {
  if (!is_long_) digest_.Init();
  is_long_ = true;
  digest_.Update(text_);
  text_.clear();
}

}  // namespace zagent::ioc::internal

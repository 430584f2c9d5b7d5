#include "src/ioc/protobuf/Messages.h"

#include <algorithm>

#include "common/src/util/Json.h"
#include "common/src/util/Log.h"
#include "common/src/util/Utf8.h"
#include "src/edr/process/NameService.h"
#include "src/ioc/config/LogPrefix.h"
#include "src/ioc/protobuf/UniqueId.h"

namespace zagent::ioc::internal::protobuf {
namespace {

constexpr auto kUnknown = static_cast<std::uint32_t>(-1);
// Processes are told apart from other kinds of actors by this number.
constexpr int kActorIsProcess = 3;

// As JSON has it. Names are plain nearly always.
void AppendQuoted(const std::string& text, std::string& json) {
  const auto is_plain = [](char c) { return c >= ' ' && c <= '~' && c != '"' && c != '\\'; };
  if (std::all_of(text.begin(), text.end(), is_plain)) {
    ((json += '"') += text) += '"';
    return;
  }
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
  json.append(buffer.GetString(), buffer.GetSize());
}

const common::ImageInfo& ProgramOf(const ProcessInfo& process, const common::ImageInfo* image) {
  const common::ImageInfo& own = *process.GetImage();
  return image == nullptr || image->GetPath().empty() || image->GetPath() == own.GetPath() ? own : *image;
}

// Whether more than its path is known.
bool HasSettings(const common::ImageInfo& image) {
  return image.GetOwnerId() != kUnknown || image.GetPermission() != kUnknown;
}

// A name that nobody knows yet is asked for again.
bool HasNames(const ProcessInfo& process) {
  const common::ImageInfo& image = *process.GetImage();
  const auto is_known = [](const std::string& known, std::uint32_t id, std::string (*look_up)(std::uint32_t)) {
    return !known.empty() || look_up(id) != std::to_string(id);
  };
  if (!is_known("", process.GetUserId(), common::UserName)) return false;
  return !HasSettings(image) || (is_known(image.GetOwnerName(), image.GetOwnerId(), common::UserName) &&
                                 is_known(image.GetGroupName(), image.GetGroupId(), common::GroupName));
}

}  // namespace

std::string Repaired(std::string_view text) {
  return common::util::ReplaceInvalidUtf8(text);
}

std::string SecuritySettings(const common::ImageInfo& image) {
  if (!HasSettings(image)) return {};
  const auto name_of = [](const std::string& known, std::uint32_t id, std::string (*look_up)(std::uint32_t)) {
    return Repaired(known.empty() ? look_up(id) : known);
  };
  constexpr std::size_t kOrdinary = 128;
  std::string settings = "{";
  settings.reserve(kOrdinary);
  const auto add = [&settings](const char* key) -> std::string& {
    if (settings.size() > 1) settings += ',';
    return ((settings += '"') += key) += "\":";
  };
  add("Uid") += std::to_string(image.GetOwnerId());
  add("Gid") += std::to_string(image.GetGroupId());
  add("Permission") += std::to_string(image.GetPermission());
  AppendQuoted(name_of(image.GetOwnerName(), image.GetOwnerId(), common::UserName), add("OwnerName"));
  AppendQuoted(name_of(image.GetGroupName(), image.GetGroupId(), common::GroupName), add("GroupName"));
  return settings += '}';
}

void FillActor(const ProcessInfo& process, const common::ImageInfo* image,
               com::ostrel::ioc::model::proto::event::Actor& actor) {
  image = &ProgramOf(process, image);
  actor.set_type(kActorIsProcess);
  actor.set_processid(process.GetPid());
  actor.set_uniqueimageid(UniquePathId(image->GetPath()));
  actor.set_securitysettings(SecuritySettings(*image));
  actor.set_userid(std::to_string(process.GetUserId()));
  actor.set_username(Repaired(common::UserName(process.GetUserId())));
  actor.set_imagepath(Repaired(image->GetPath()));
  actor.set_creationtime(process.GetCreationTime());
  actor.set_uniqueprocessid(UniqueProcessId(process));
  actor.set_threadid(process.GetPid());
}

void FillActor(const TtlProcessTree& tree, const edr::Event& event,
               com::ostrel::ioc::model::proto::event::Actor& actor) {
  FillActor(*tree.Get(event.GetActorProcessId()), ImageOf(event), actor);
}

void KnownActors::Fill(const TtlProcessTree& tree, const edr::Event& event,
                       com::ostrel::ioc::model::proto::event::Actor& actor) {
  const std::int32_t pid = event.GetActorProcessId();
  const std::shared_ptr<const ProcessInfo> process = tree.Get(pid);
  const common::ImageInfo* const image = ImageOf(event);
  if (&ProgramOf(*process, image) != process->GetImage()) {
    FillActor(*process, image, actor);
    return;
  }
  if (const Known* const known = known_.Find(pid); known != nullptr && known->process.lock() == process) {
    actor.CopyFrom(known->actor);
    return;
  }
  FillActor(*process, nullptr, actor);
  if (HasNames(*process)) known_.Put(pid, {process, actor});
}

std::string UniqueProcessId(const ProcessInfo& process) {
  return UniqueProcessId(process.GetPid(), process.GetCreationTime(), process.GetImage()->GetPath());
}

const common::ImageInfo* ImageOf(const edr::Event& event) {
  try {
    return event.GetImage();
  } catch (const std::runtime_error&) {
    return nullptr;
  }
}

void LogGenerating(const edr::Event& event, const std::string& subject) {
  ZLOG_DEBUG("Generating protobuf for " << event.GetAction() << " (" << subject << ") [" << event.GetId() << ", "
                                        << event.GetTimestamp() << "]");
}

}  // namespace zagent::ioc::internal::protobuf

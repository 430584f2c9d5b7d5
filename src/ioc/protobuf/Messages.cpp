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

// As it is in the record, else as it is in the system's database.
std::string OwnerNameOf(const common::ImageInfo& image) {
  return image.GetOwnerName().empty() ? common::UserName(image.GetOwnerId()) : image.GetOwnerName();
}

std::string GroupNameOf(const common::ImageInfo& image) {
  return image.GetGroupName().empty() ? common::GroupName(image.GetGroupId()) : image.GetGroupName();
}

std::string SettingsText(const common::ImageInfo& image, const std::string& owner_name, const std::string& group_name) {
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
  AppendQuoted(Repaired(owner_name), add("OwnerName"));
  AppendQuoted(Repaired(group_name), add("GroupName"));
  return settings += '}';
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

void SetRepaired(std::string_view text, std::string& to) {
  if (common::util::SkipAscii(text, 0) == text.size()) {
    to.assign(text);
  } else {
    to = Repaired(text);
  }
}

std::string SecuritySettings(const common::ImageInfo& image) {
  return HasSettings(image) ? SettingsText(image, OwnerNameOf(image), GroupNameOf(image)) : std::string();
}

const std::string& LatestSettings::Of(const common::ImageInfo& image) {
  static const std::string kNone;
  if (!HasSettings(image)) return kNone;
  std::string owner_name = OwnerNameOf(image);
  std::string group_name = GroupNameOf(image);
  Known& known = known_[(image.GetOwnerId() + image.GetGroupId() + image.GetPermission()) % known_.size()];
  const bool is_same = !known.settings.empty() && image.GetOwnerId() == known.owner_id &&
                       image.GetGroupId() == known.group_id && image.GetPermission() == known.permission &&
                       owner_name == known.owner_name && group_name == known.group_name;
  if (is_same) return known.settings;
  std::string settings = SettingsText(image, owner_name, group_name);
  known = {image.GetOwnerId(),    image.GetGroupId(),    image.GetPermission(),
           std::move(owner_name), std::move(group_name), std::move(settings)};
  return known.settings;
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

const std::string& KnownActors::FieldOf(const TtlProcessTree& tree, const edr::Event& event) {
  const std::shared_ptr<const ProcessInfo> process = tree.Get(event.GetActorProcessId());
  const common::ImageInfo* const image = ImageOf(event);
  return &ProgramOf(*process, image) == process->GetImage() ? FieldOf(process) : Make(*process, image);
}

const std::string& KnownActors::FieldOf(const std::shared_ptr<const ProcessInfo>& process) {
  const std::int32_t pid = process->GetPid();
  if (const Known* const known = known_.Find(pid); known != nullptr && known->process.lock() == process) {
    return known->field;
  }
  const std::string& field = Make(*process, nullptr);
  if (HasNames(*process)) known_.Put(pid, {process, field});
  return field;
}

const std::string& KnownActors::Make(const ProcessInfo& process, const common::ImageInfo* image) {
  using com::ostrel::ioc::model::proto::event::FileEvent;
  using com::ostrel::ioc::model::proto::event::ProcessEvent;
  static_assert(int{FileEvent::kActorFieldNumber} == int{ProcessEvent::kActorFieldNumber});
  FileEvent actor_alone;
  FillActor(process, image, *actor_alone.mutable_actor());
  made_ = actor_alone.SerializeAsString();
  return made_;
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

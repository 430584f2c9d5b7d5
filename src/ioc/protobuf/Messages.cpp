#include "src/ioc/protobuf/Messages.h"

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

}  // namespace

std::string Repaired(std::string_view text) {
  return common::util::ReplaceInvalidUtf8(text);
}

std::string SecuritySettings(const common::ImageInfo& image) {
  if (image.GetOwnerId() == kUnknown && image.GetPermission() == kUnknown) return {};
  const auto name_of = [](const std::string& known, std::uint32_t id, std::string (*look_up)(std::uint32_t)) {
    return Repaired(known.empty() ? look_up(id) : known);
  };
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  const auto text = [&](const std::string& value) {
    writer.String(value.data(), static_cast<rapidjson::SizeType>(value.size()));
  };
  writer.StartObject();
  writer.Key("Uid");
  writer.Uint(image.GetOwnerId());
  writer.Key("Gid");
  writer.Uint(image.GetGroupId());
  writer.Key("Permission");
  writer.Uint(image.GetPermission());
  writer.Key("OwnerName");
  text(name_of(image.GetOwnerName(), image.GetOwnerId(), common::UserName));
  writer.Key("GroupName");
  text(name_of(image.GetGroupName(), image.GetGroupId(), common::GroupName));
  writer.EndObject();
  return {buffer.GetString(), buffer.GetSize()};
}

void FillActor(const ProcessInfo& process, const common::ImageInfo* image,
               com::ostrel::ioc::model::proto::event::Actor& actor) {
  const common::ImageInfo& own = *process.GetImage();
  if (image == nullptr || image->GetPath().empty() || image->GetPath() == own.GetPath()) image = &own;
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

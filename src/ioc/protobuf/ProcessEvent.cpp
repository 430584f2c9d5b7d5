#include "src/ioc/protobuf/ProcessEvent.h"

#include <sys/stat.h>

#include <algorithm>
#include <string_view>

#include "common/src/util/Log.h"
#include "src/edr/process/NameService.h"
#include "src/edr/process/StatHelper.h"
#include "src/ioc/config/LogPrefix.h"
#include "src/ioc/protobuf/BatchItem.h"
#include "src/ioc/protobuf/EventActions.h"
#include "src/ioc/protobuf/Exception.h"
#include "src/ioc/protobuf/Messages.h"
#include "src/ioc/protobuf/UniqueId.h"

namespace zagent::ioc::internal::protobuf {
namespace {

using edr::EventType;

constexpr std::string_view kCut = "...";  // behind arguments that are not told whole

// Who a process is: of a start as the event tells it, for the same process may have started another program since.
struct Identity {
  Identity(const ProcessInfo& process, const edr::Event& event, bool is_start)
      : image(*process.GetImage()),
        arguments(is_start ? event.GetActorProcessArguments() : process.GetArguments()),
        cwd(is_start ? event.GetCwd() : process.GetCwd()),
        uid(is_start ? event.GetActorUserId() : process.GetUserId()),
        creation_time(is_start ? event.GetTimestamp() : process.GetCreationTime()) {
    if (!is_start) return;
    const common::ImageInfo* started = ImageOf(event);
    // A start that was made up has no serial number, and the time when the process was made: what is known of it is
    // better.
    if (event.GetId() == 0 && (started == nullptr || started->GetPath() == image.GetPath())) {
      creation_time = process.GetCreationTime();
    }
    if (started != nullptr) image = *started;
  }

  common::ImageInfo image;
  const std::vector<std::string>& arguments;
  const std::string& cwd;
  std::uint32_t uid;
  std::int64_t creation_time;
};

// Whether the event tells who started the process: by the time that a start is told, whoever did it may have ended, and
// the process hangs under process 1.
bool TellsParent(const edr::Event& event, bool is_start) {
  const std::int32_t ppid = is_start ? event.GetActorParentProcessId() : 0;
  return ppid > 0 && ppid != event.GetActorProcessId();
}

bool IsOnDisk(const common::ImageInfo& image) {
  try {
    return common::StatImage(image) != nullptr;
  } catch (const common::StatHelperException&) {
    return false;  // another file has its name
  }
}

}  // namespace

ProcessEvent::ProcessEvent(const TtlProcessTree& tree, const Config& config)
    : tree_(tree), config_(config), message_(std::make_unique<Message>()) {}

ProcessEvent::~ProcessEvent() = default;

Report ProcessEvent::Build(const edr::Event& event) const {
  const std::int32_t pid = event.GetActorProcessId();
  const EventType type = event.GetType();
  if (!tree_.Has(pid)) {
    throw Exception("PID: " + std::to_string(pid) +
                    " does not exist in tree for event ID: " + std::to_string(event.GetId()));
  }
  const bool is_start = type == EventType::ProcessStart;
  if (!is_start && type != EventType::ProcessExit && type != EventType::AbnormalEnd) {
    throw Exception("Invalid event action for process event with ID " + std::to_string(event.GetId()));
  }
  const std::shared_ptr<ProcessInfo> process = tree_.Get(pid);
  const Identity identity(*process, event, is_start);
  const std::string& path = identity.image.GetPath();
  LogGenerating(event, path);

  Message& message = *message_;
  message.Clear();
  message.set_eventaction(ActionOf(type));
  message.set_timestamp(event.GetTimestamp());
  message.set_uniqueid(UniqueProcessId(pid, identity.creation_time, path));
  const bool tells_parent = TellsParent(event, is_start);
  const std::int32_t ppid = tells_parent ? event.GetActorParentProcessId() : process->GetParent();
  std::string_view actor;
  if (const auto parent = tells_parent ? tree_.FindParent(event) : tree_.Has(ppid) ? tree_.Get(ppid) : nullptr) {
    actor = actors_.FieldOf(parent);
  } else {
    ZLOG_DEBUG("Failed to get parent process information with PID " << ppid);
  }
  message.set_processname(Repaired(path.substr(path.rfind('/') + 1)));
  message.set_processid(pid);
  message.set_creationtime(identity.creation_time);
  if (ppid != common::ProcessInfo::kNoParent) message.set_parentprocessid(ppid);
  message.set_arguments(ArgumentsText(identity.arguments));
  message.set_uniqueimageid(UniquePathId(path));
  message.set_userid(std::to_string(identity.uid));
  message.set_username(Repaired(common::UserName(identity.uid)));
  message.set_securitysettings(settings_.Of(identity.image));
  message.set_elevated(event.IsElevated());
  message.set_currentdirectory(Repaired(identity.cwd));
  message.set_imagepath(Repaired(path));
  message.set_ondisk(IsOnDisk(identity.image));
  if (!is_start) message.set_status("Stop");
  Report report;
  report.items.push_back({MakeItem(Kind::Process, message, {actor})});
  return report;
}

std::string ProcessEvent::ArgumentsText(const std::vector<std::string>& arguments) const {
  // A size of 0 leaves the spool its own, which is larger than all arguments.
  const std::size_t half_file = std::size_t{config_.GetMaxFileSizeKb()} * 1024 / 2;
  const std::size_t max_size = half_file == 0 ? kMaxArguments : std::min(half_file, kMaxArguments);
  std::string text;
  for (const std::string& argument : arguments) {
    if (!text.empty()) text += ' ';
    text += Repaired(argument);
    if (text.size() > max_size) break;
  }
  if (text.size() <= max_size) return text;
  std::size_t end = max_size - kCut.size();
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80U) --end;  // not within a character
  return text.substr(0, end).append(kCut);
}

}  // namespace zagent::ioc::internal::protobuf

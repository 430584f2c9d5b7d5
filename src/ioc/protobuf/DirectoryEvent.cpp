#include "src/ioc/protobuf/DirectoryEvent.h"

#include <sys/stat.h>

#include "common/src/util/Log.h"
#include "src/ioc/config/LogPrefix.h"
#include "src/ioc/protobuf/BatchItem.h"
#include "src/ioc/protobuf/EventActions.h"
#include "src/ioc/protobuf/Exception.h"
#include "src/ioc/protobuf/FileTimes.h"
#include "src/ioc/protobuf/Messages.h"
#include "src/ioc/protobuf/UniqueId.h"

namespace zagent::ioc::internal::protobuf {
namespace {

namespace wire = com::ostrel::ioc::model::proto::event;

using edr::EventType;
using Table = ReportedObjects::Table;

}  // namespace

Report DirectoryEvent::Build(const edr::Event& event) const {
  const bool has_new = event.GetType() == EventType::Rename || event.GetType() == EventType::AttributeChange;
  const common::ImageInfo* directory = has_new ? event.GetNewFile() : event.GetFile();
  const std::string path = directory == nullptr ? "" : directory->GetPath();
  if (path.empty()) throw Exception("Failed to load directory path for reputation: " + path);
  LogGenerating(event, path);
  const std::string id = UniquePathId(path);
  const bool is_gone = event.GetType() == EventType::Delete;
  if (is_gone && !IsReported(id, path)) throw Exception("Dropping delete event for unreported directory: " + path);

  wire::DirectoryEvent message;
  message.set_eventaction(ActionOf(event.GetType()));
  message.set_timestamp(event.GetTimestamp());
  message.set_uniqueid(id);
  FillActor(tree_, event, *message.mutable_actor());
  message.set_path(Repaired(path));
  message.set_securitysettings(SecuritySettings(*directory));
  ReportedObjects::Times times;
  if (!is_gone && event.GetFileSize() >= 0) {
    times = TimesOf(event, *directory, LookAt(path));
    SetTimes(times, message);
  }
  Report::Item item{MakeItem(Kind::Directory, message)};
  if (event.GetType() == EventType::Rename && event.GetFile() != nullptr) {
    const std::string& old_path = event.GetFile()->GetPath();
    item.changes.push_back({Table::Directory, UniquePathId(old_path), {}, old_path});
  }
  item.changes.push_back(
      {Table::Directory, id, is_gone ? common::Bytes() : ReportedObjects::DirectoryRow(id, path, times), path});
  Report report;
  report.items.push_back(std::move(item));
  return report;
}

bool DirectoryEvent::Describe(const edr::Event& event, const std::string& path, const std::string& id,
                              Report& report) const {
  if (IsReported(id, path)) return true;
  struct stat found {};
  if (stat(path.c_str(), &found) != 0 || !S_ISDIR(found.st_mode)) {
    ZLOG_DEBUG("Skip adding directory event: " << path << " in protobuf for non-existing directory id in snapshot");
    return false;
  }
  wire::DirectoryEvent message;
  message.set_timestamp(event.GetTimestamp());
  message.set_uniqueid(id);
  FillActor(tree_, event, *message.mutable_actor());
  message.set_path(Repaired(path));
  message.set_securitysettings(SecuritySettings(common::ImageInfo(path, found)));
  const ReportedObjects::Times times = TimesOf(path, found);
  SetTimes(times, message);
  report.items.push_back({MakeItem(Kind::Directory, message),
                          {{Table::Directory, id, ReportedObjects::DirectoryRow(id, path, times), path}}});
  return true;
}

bool DirectoryEvent::IsReported(const std::string& id, const std::string& path) const {
  try {
    return reported_.Has(Table::Directory, id);
  } catch (const common::StorageException& error) {
    ZLOG_ERROR("Failed to read directory entry from snapshot DB for " << path << ": " << error.what());
    return false;
  }
}

}  // namespace zagent::ioc::internal::protobuf

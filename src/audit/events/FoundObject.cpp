#include "src/audit/events/FoundObject.h"

#include <sys/stat.h>

#include <cstdio>
#include <filesystem>
#include <system_error>
#include <utility>

#include "common/src/util/DeviceText.h"
#include "common/src/util/Log.h"
#include "src/audit/events/CreateEvent.h"
#include "src/audit/events/RecordList.h"

namespace zagent::audit::internal {
namespace {

using edr::RecordField;

constexpr const char* kNobody = "4294967295";
// An id that no event of the kernel has in its first weeks; 0 would be none.
constexpr std::uint32_t kId = 4294967295U;

// The call that would have made the object; nothing for what is none of ours.
const char* CallFor(mode_t mode) {
  if (S_ISDIR(mode)) return "83";          // mkdir
  if (S_ISLNK(mode)) return "88";          // symlink
  return S_ISREG(mode) ? "133" : nullptr;  // mknod
}

std::string OctalText(mode_t mode) {
  char text[16];
  std::snprintf(text, sizeof text, "0%o", mode);
  return text;
}

Record CallRecord(RecordList& records, const char* call, const std::string& key) {
  Record record;
  record.type = record_type::kSyscall;
  const std::pair<RecordField, const char*> fields[] = {
      {RecordField::Syscall, call}, {RecordField::Success, "yes"}, {RecordField::Exit, "0"},
      {RecordField::Items, "1"},    {RecordField::PPid, "0"},      {RecordField::Pid, "0"},
      {RecordField::Auid, kNobody}, {RecordField::Uid, kNobody},   {RecordField::Euid, kNobody},
      {RecordField::Exe, ""},
  };
  for (const auto& [field, value] : fields) record.fields.Set(field, value);
  record.fields.Set(RecordField::Key, records.Keep(key));
  return record;
}

Record PathRecordOf(RecordList& records, const std::string& path, const struct stat& found, dev_t device) {
  Record record;
  record.type = record_type::kPath;
  record.fields.Set(RecordField::Item, "0");
  record.fields.Set(RecordField::Name, records.Keep(path));
  record.fields.Set(RecordField::Inode, records.Keep(std::to_string(found.st_ino)));
  record.fields.Set(RecordField::Dev, records.Keep(common::util::DeviceText(device)));
  record.fields.Set(RecordField::Mode, records.Keep(OctalText(found.st_mode)));
  record.fields.Set(RecordField::OUid, records.Keep(std::to_string(found.st_uid)));
  record.fields.Set(RecordField::OGid, records.Keep(std::to_string(found.st_gid)));
  record.fields.Set(RecordField::NameType, "CREATE");
  return record;
}

}  // namespace

std::unique_ptr<edr::Event> MakeFoundObject(const std::string& path, const std::string& key, std::int64_t timestamp,
                                            const FileEvent::Context& context) {
  struct stat found {};
  if (lstat(path.c_str(), &found) != 0) return nullptr;
  const char* call = CallFor(found.st_mode);
  if (call == nullptr) return nullptr;
  const auto mount = context && context->mounts ? context->mounts->Find(path) : std::nullopt;
  RecordList records(kId, timestamp);
  records.Records().push_back(CallRecord(records, call, key));
  records.Records().push_back(PathRecordOf(records, path, found, mount ? mount->device : found.st_dev));
  try {
    auto event = std::make_unique<CreateEvent>(records, context);
    if (event->Refusal() == nullptr) return event;
    ZLOG_DEBUG("Dropping what was found at " << path << ": " << *event->Refusal());
  } catch (const std::exception& error) {
    ZLOG_DEBUG("Dropping what was found at " << path << ": " << error.what());
  }
  return nullptr;
}

std::vector<std::unique_ptr<edr::Event>> MakeFoundEntries(const std::string& folder, const std::string& key,
                                                          std::int64_t timestamp, const FileEvent::Context& context,
                                                          std::size_t most) {
  std::vector<std::unique_ptr<edr::Event>> events;
  std::error_code error;
  std::size_t looked_at = 0;
  for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error)) {
    if (looked_at++ >= most) {
      ZLOG_WARNING("Only the first " << most << " entries of " << folder << " were looked at");
      break;
    }
    if (auto event = MakeFoundObject(entry->path().string(), key, timestamp, context)) {
      events.push_back(std::move(event));
    }
  }
  if (error) ZLOG_DEBUG("Failed to read the folder " << folder << ": " << error.message());
  return events;
}

}  // namespace zagent::audit::internal

#include "src/fim/BaselineEventInfo.h"

#include <sys/stat.h>

#include <cerrno>
#include <stdexcept>
#include <utility>

#include "common/src/util/Log.h"
#include "src/edr/process/NameService.h"
#include "src/fim/ContentReader.h"
#include "src/fim/LogPrefix.h"

namespace zagent::fim::internal {
namespace {

std::unique_ptr<common::ImageInfo> LookAt(const std::string& path) {
  struct stat stat {};
  if (lstat(path.c_str(), &stat) == 0) {
    auto file = std::make_unique<common::ImageInfo>(path, stat);
    file->SetNames(common::UserName(stat.st_uid), common::GroupName(stat.st_gid));
    return file;
  }
  if (errno == ENOENT) {
    ZLOG_DEBUG("Event Path: " << path << " does not exist");
  } else {
    ZLOG_DEBUG("Stat Failed for: " << path << " Settings could not be loaded.");
  }
  return std::make_unique<common::ImageInfo>(path);
}

}  // namespace

BaselineEventInfo::BaselineEventInfo(std::uint32_t id, edr::EventType type, const std::string& path,
                                     const common::util::Clock& clock)
    : id_(id),
      type_(type),
      creation_time_(common::util::ToNanoseconds(clock.Now()) / 1'000'000'000),
      file_(LookAt(path)),
      is_symlink_(file_->IsSymlink()) {
  FileContent content = ReadFileContent(*file_);
  content_ = std::move(content.bytes);
  content_status_ = std::move(content.status);
}

bool BaselineEventInfo::IsElevated() const {
  throw std::runtime_error("IsElevated not implemented");
}

void BaselineEventInfo::ParseRecord(int /*type*/, const edr::RecordFields& /*fields*/) {
  throw std::runtime_error("ParseRecord is not implemented");
}

void BaselineEventInfo::Validate() {
  throw std::runtime_error("Validate is not implemented");
}

const std::string& BaselineEventInfo::GetAuditKey() const {
  throw std::runtime_error("GetAuditKey is not implemented");
}

}  // namespace zagent::fim::internal

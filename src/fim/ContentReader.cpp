#include "src/fim/ContentReader.h"

#include <sys/stat.h>

#include <memory>
#include <utility>

#include "common/src/storage/FileOperations.h"
#include "common/src/util/DeviceText.h"
#include "src/edr/process/ImageInfo.h"

namespace zagent::fim::internal {
namespace {

bool IsObjectOfEvent(const struct stat& stat, const common::ImageInfo& file) {
  return S_ISREG(stat.st_mode) && stat.st_ino == file.GetInode() &&
         (file.GetDevice().empty() || file.GetDevice() == common::util::DeviceText(stat.st_dev));
}

}  // namespace

FileContent ReadFileContent(const common::ImageInfo& file) {
  // Looked at before it is opened: opening a device may set it going, and a file that is gone is nothing to log.
  struct stat now {};
  if (stat(file.GetPath().c_str(), &now) != 0 || !IsObjectOfEvent(now, file)) return {FileContent::kReadFailure, {}};
  // One byte more than is taken tells a file that grew since its size was looked at.
  const std::unique_ptr<common::StorageResult> result = common::ReadFileUpTo(file.GetPath(), FileContent::kMaxSize + 1);
  if (result->code != common::StorageCode::Success || result->stat_info == nullptr ||
      !IsObjectOfEvent(*result->stat_info, file)) {
    return {FileContent::kReadFailure, {}};
  }
  if (result->stat_info->st_size > static_cast<off_t>(FileContent::kMaxSize) ||
      result->data.size() > FileContent::kMaxSize) {
    return {FileContent::kMaxSizeLimitReached, {}};
  }
  return {FileContent::kReadSuccessful, std::move(result->data)};
}

}  // namespace zagent::fim::internal

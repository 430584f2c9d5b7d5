#include "src/ioc/rules/ProgramSize.h"

#include <sys/stat.h>

#include <string>

#include "common/src/util/Log.h"
#include "src/edr/process/ImageInfo.h"
#include "src/ioc/config/LogPrefix.h"

namespace zagent::ioc::internal {

bool HasProgramSizeToProcess(const edr::Event& event, std::int64_t max_size) {
  if (max_size == 0) return true;
  const common::ImageInfo* image = event.GetImage();
  const std::string path = image != nullptr ? image->GetPath() : "";
  struct stat info {};
  if (stat(path.c_str(), &info) != 0) {
    ZLOG_DEBUG("Failed to load file for finding file size: " << path);
    return false;
  }
  if (info.st_size <= max_size) return true;
  ZLOG_DEBUG(" File size for " << path << " is more than max limit. Skipping it");
  return false;
}

}  // namespace zagent::ioc::internal

#include "src/audit/routing/ProgramLook.h"

#include <sys/stat.h>

#include <filesystem>
#include <system_error>

#include "common/src/util/Log.h"
#include "src/edr/process/ImageInfo.h"

namespace zagent::audit::internal {
namespace {

// Empty when it cannot be read.
std::string LinkTarget(const std::string& path) {
  std::error_code error;
  return std::filesystem::read_symlink(path, error).string();
}

// The kernel tells a name by the root of whom it tells it to: the process its own when it acts, ours when we ask.
bool IsCalled(const std::string& image, const std::string& process) {
  const std::string program = LinkTarget(process + "/exe");
  if (program == image) return true;
  const std::string root = LinkTarget(process + "/root");
  return root.size() > 1 && program == root + image;
}

}  // namespace

bool IsImageProvedAnotherFile(const edr::Event& event, const std::string& proc_root) {
  const common::ImageInfo* image = event.GetImage();
  if (image == nullptr || !image->GetPath().starts_with('/') || event.GetActorProcessId() <= 0) return false;
  const std::string process = proc_root + "/" + std::to_string(event.GetActorProcessId());
  struct stat running {};
  struct stat named {};
  if (!IsCalled(image->GetPath(), process) || stat((process + "/exe").c_str(), &running) != 0) return false;
  const bool is_named_here =
      stat(image->GetPath().c_str(), &named) == 0 && named.st_dev == running.st_dev && named.st_ino == running.st_ino;
  // It may have become another program, or have ended, while it was looked at.
  if (is_named_here || !IsCalled(image->GetPath(), process)) return false;
  ZLOG_DEBUG("Process " << event.GetActorProcessId() << " is not what it is called: " << image->GetPath());
  return true;
}

}  // namespace zagent::audit::internal

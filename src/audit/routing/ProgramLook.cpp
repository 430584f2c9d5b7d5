#include "src/audit/routing/ProgramLook.h"

#include <sys/stat.h>

#include <filesystem>
#include <string_view>
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

// The kernel's mark on the name of a program that was removed after its start.
constexpr std::string_view kRemoved = " (deleted)";

std::string WithoutMark(std::string path) {
  if (path.ends_with(kRemoved)) path.resize(path.size() - kRemoved.size());
  return path;
}

// The kernel tells a name by the root of whom it tells it to: the process its own when it acts, ours when we ask.
bool IsCalled(const std::string& image, const std::string& process) {
  const std::string program = WithoutMark(LinkTarget(process + "/exe"));
  if (program == image) return true;
  const std::string root = LinkTarget(process + "/root");
  return root.size() > 1 && program == root + image;
}

bool IsFileAt(const std::string& path, const struct stat& file) {
  struct stat found {};
  return stat(path.c_str(), &found) == 0 && found.st_dev == file.st_dev && found.st_ino == file.st_ino;
}

// Whether the program may have had its name here before it was removed, as one that is updated while it runs: on the
// device of the folder, and of somebody who may put it there. A mount of one's own has neither.
bool WasHere(const std::string& image, const std::string& process, const struct stat& running) {
  struct stat folder {};
  if (LinkTarget(process + "/exe") != image + std::string(kRemoved)) return false;
  if (stat(image.substr(0, image.rfind('/') + 1).c_str(), &folder) != 0 || folder.st_dev != running.st_dev)
    return false;
  return (running.st_uid == 0 || running.st_uid == folder.st_uid) && (running.st_mode & S_IWOTH) == 0;
}

}  // namespace

bool IsImageProvedAnotherFile(const edr::Event& event, const std::string& proc_root) {
  const common::ImageInfo* image = event.GetImage();
  if (image == nullptr || !image->GetPath().starts_with('/') || event.GetActorProcessId() <= 0) return false;
  const std::string name = WithoutMark(image->GetPath());
  const std::string process = proc_root + "/" + std::to_string(event.GetActorProcessId());
  struct stat running {};
  if (!IsCalled(name, process) || stat((process + "/exe").c_str(), &running) != 0) return false;
  if (IsFileAt(image->GetPath(), running) || IsFileAt(name, running) || WasHere(name, process, running)) return false;
  // It may have become another program, or have ended, while it was looked at.
  if (!IsCalled(name, process)) return false;
  ZLOG_DEBUG("Process " << event.GetActorProcessId() << " is not what it is called: " << image->GetPath());
  return true;
}

}  // namespace zagent::audit::internal

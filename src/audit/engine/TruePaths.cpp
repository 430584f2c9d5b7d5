#include "src/audit/engine/TruePaths.h"

#include <cstdlib>
#include <stdexcept>

#include "common/src/util/Log.h"
#include "src/audit/engine/RulePaths.h"
#include "src/audit/events/PathResolution.h"
#include "src/edr/process/ImageInfo.h"

namespace zagent::audit::internal {
namespace {

struct Free {
  void operator()(char* text) const { std::free(text); }  // NOLINT: realpath allocates with malloc
};

std::string Join(const std::string& folder, const std::string& name) {
  return folder == "/" ? folder + name : folder + "/" + name;
}

bool IsDescriptor(const std::string& path) {
  return path.starts_with("/proc/") && path.find("/fd/") != std::string::npos;
}

// Nothing when the records did not tell.
std::optional<FileIdentity> FolderOf(const edr::Event& event) {
  try {
    const FileIdentity folder{DeviceNumberOf(event.GetParentDeviceID()), event.GetParentInode()};
    if (folder.inode != 0) return folder;
  } catch (const std::runtime_error& error) {
    ZLOG_TRACE(error.what());
  }
  return std::nullopt;
}

}  // namespace

std::vector<std::string> TruePaths::OfFile(const edr::Event& event) const {
  const common::ImageInfo* file = event.GetFile();
  if (file == nullptr) return {};
  // Of a rename the event knows the folder of the new name.
  return Of(file->GetPath(), event.GetType() == edr::EventType::Rename ? std::nullopt : FolderOf(event));
}

std::vector<std::string> TruePaths::OfNewFile(const edr::Event& event) const {
  if (event.GetType() != edr::EventType::Rename || event.GetNewFile() == nullptr) return {};
  return Of(event.GetNewFile()->GetPath(), FolderOf(event));
}

bool TruePaths::IsAt(const std::string& path, const FileIdentity& object) const {
  return LeadsTo(path, object, mounts_.get()) == Leads::Straight;
}

std::optional<std::string> TruePaths::OfFileAt(const edr::EventRule& rule, const edr::Event& event) const {
  const common::ImageInfo* file = event.GetFile();
  if (file == nullptr || event.GetType() == edr::EventType::Rename) return std::nullopt;
  const std::string& path = file->GetPath();
  if (IsDescriptor(path)) {
    return OfDescriptor(rule, path, {DeviceNumberOf(file->GetDevice()), file->GetInode()});
  }
  const std::optional<FileIdentity> folder = FolderOf(event);
  const std::string watched = RulePaths::Tidy(rule.GetPath());
  if (!folder || rule.GetType() != edr::ObjectType::Directory || !IsAt(watched, *folder)) return std::nullopt;
  return Join(watched, path.substr(path.rfind('/') + 1));
}

std::optional<std::string> TruePaths::OfDescriptor(const edr::EventRule& rule, const std::string& path,
                                                   const FileIdentity& file) const {
  const std::unique_ptr<char, Free> resolved(realpath(path.c_str(), nullptr));
  if (resolved && IsAt(resolved.get(), file)) return std::string(resolved.get());
  std::string watched = RulePaths::Tidy(rule.GetPath());
  if (rule.GetType() == edr::ObjectType::Directory) watched = FindByInode(file.inode, watched);
  if (!IsAt(watched, file)) return std::nullopt;
  return watched;
}

std::vector<std::string> TruePaths::Of(const std::string& path, const std::optional<FileIdentity>& folder) const {
  if (!path.starts_with('/')) return {};
  const std::string written = FolderPart(path);
  const std::string name = path.substr(path.rfind('/') + 1);
  std::vector<std::string> paths;
  if (folder && folders_) {
    const std::optional<std::string> known = folders_->PathOf(*folder);
    if (known && *known != written) paths.push_back(Join(*known, name));
  }
  const std::unique_ptr<char, Free> resolved(realpath(written.c_str(), nullptr));
  if (resolved && resolved.get() != written &&
      (!folder || LeadsTo(resolved.get(), *folder, mounts_.get()) == Leads::Straight)) {
    paths.push_back(Join(resolved.get(), name));
  }
  return paths;
}

}  // namespace zagent::audit::internal

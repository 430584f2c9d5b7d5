#include "src/audit/engine/TruePaths.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <stdexcept>

#include "common/src/util/Log.h"
#include "src/audit/engine/RulePaths.h"
#include "src/audit/events/PathResolution.h"
#include "src/audit/events/RenameEvent.h"
#include "src/edr/process/ImageInfo.h"

namespace zagent::audit::internal {
namespace {

struct Free {
  void operator()(char* text) const { std::free(text); }  // NOLINT: realpath allocates with malloc
};

std::string Join(const std::string& folder, const std::string& name) {
  return folder == "/" ? folder + name : folder + "/" + name;
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

// Every other question about a rename is answered from where the object is now.
std::optional<FileIdentity> OldFolderOf(const edr::Event& event) {
  if (event.GetType() != edr::EventType::Rename) return FolderOf(event);
  const auto* rename = dynamic_cast<const RenameEvent*>(&event);
  if (rename == nullptr || rename->OldFolder().inode == 0) return std::nullopt;
  return rename->OldFolder();
}

}  // namespace

std::vector<std::string> TruePaths::OfFile(const edr::Event& event) const {
  const common::ImageInfo* file = event.GetFile();
  return file != nullptr ? Of(file->GetPath(), OldFolderOf(event)) : std::vector<std::string>();
}

std::vector<std::string> TruePaths::OfNewFile(const edr::Event& event) const {
  if (event.GetType() != edr::EventType::Rename || event.GetNewFile() == nullptr) return {};
  return Of(event.GetNewFile()->GetPath(), FolderOf(event));
}

bool TruePaths::IsAt(const std::string& path, const FileIdentity& object) const {
  return LeadsTo(path, object, mounts_.get()) == Leads::Straight;
}

// By the folders on the way to it, one of which may be the rule's under another name.
std::optional<std::string> TruePaths::Below(const edr::EventRule& rule, const std::string& path) {
  const std::string watched = RulePaths::Tidy(rule.GetPath());
  struct stat top {};
  if (rule.GetType() != edr::ObjectType::Directory || stat(watched.c_str(), &top) != 0) return std::nullopt;
  for (std::size_t end = path.rfind('/'); end != std::string::npos && end != 0; end = path.rfind('/', end - 1)) {
    struct stat folder {};
    if (stat(path.substr(0, end).c_str(), &folder) != 0 || FileIdentity::Of(folder) != FileIdentity::Of(top)) continue;
    return watched == "/" ? path.substr(end) : watched + path.substr(end);
  }
  return std::nullopt;
}

TruePaths::Names TruePaths::Within(const edr::EventRule& rule, const edr::Event& event) const {
  const std::string watched = RulePaths::Tidy(rule.GetPath());
  const auto find = [&](const common::ImageInfo* file, const std::vector<std::string>& paths) {
    const auto within = std::find_if(paths.begin(), paths.end(),
                                     [&](const std::string& path) { return RulePaths::IsAtOrBelow(path, watched); });
    if (within != paths.end()) return std::optional(*within);
    return file != nullptr ? Below(rule, file->GetPath()) : std::nullopt;
  };
  Names names{find(event.GetFile(), OfFile(event)), std::nullopt};
  if (event.GetType() == edr::EventType::Rename) names.new_file = find(event.GetNewFile(), OfNewFile(event));
  if (!names.file) names.file = OfFileAt(rule, event);
  return names;
}

bool TruePaths::IsFileOf(const edr::EventRule& rule, const edr::Event& event) const {
  const common::ImageInfo* file = event.GetFile();
  if (rule.GetType() != edr::ObjectType::File || file == nullptr || file->GetInode() == 0) return false;
  const FileIdentity object{DeviceNumberOf(file->GetDevice()), file->GetInode()};
  return LeadsTo(rule.GetPath(), object, mounts_.get()) != Leads::Nowhere;
}

std::optional<std::string> TruePaths::OfFileAt(const edr::EventRule& rule, const edr::Event& event) const {
  const common::ImageInfo* file = event.GetFile();
  if (file == nullptr || event.GetType() == edr::EventType::Rename) return std::nullopt;
  const std::string& path = file->GetPath();
  if (IsDescriptorPath(path)) {
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
  if (!folder || !path.starts_with('/')) return {};
  const std::string written = FolderPart(path);
  const std::string name = path.substr(path.rfind('/') + 1);
  std::vector<std::string> paths;
  if (folders_) {
    const std::optional<std::string> known = folders_->PathOf(*folder);
    if (known && *known != written) paths.push_back(Join(*known, name));
  }
  const std::unique_ptr<char, Free> resolved(realpath(written.c_str(), nullptr));
  if (resolved && resolved.get() != written && IsAt(resolved.get(), *folder)) {
    paths.push_back(Join(resolved.get(), name));
  }
  return paths;
}

}  // namespace zagent::audit::internal

#include "src/audit/engine/TruePaths.h"

#include <cstdlib>
#include <stdexcept>

#include "common/src/util/Log.h"
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

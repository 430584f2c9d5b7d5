#include "src/audit/events/PathResolution.h"

#include <Poco/Exception.h>
#include <Poco/Path.h>
#include <dirent.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <memory>

#include "src/edr/Event.h"

namespace zagent::audit::internal {
namespace {

struct DirectoryCloser {
  void operator()(DIR* directory) const { closedir(directory); }
};

struct Free {
  void operator()(char* text) const { std::free(text); }  // NOLINT: canonicalize_file_name allocates with malloc
};

struct DirectoryArgument {
  std::uint32_t syscall;
  std::size_t index;
};
constexpr std::array kDirectoryArguments = {
    DirectoryArgument{257, 0},  // openat
    DirectoryArgument{258, 0},  // mkdirat
    DirectoryArgument{259, 0},  // mknodat
    DirectoryArgument{260, 0},  // fchownat
    DirectoryArgument{261, 0},  // futimesat
    DirectoryArgument{263, 0},  // unlinkat
    DirectoryArgument{264, 0},  // renameat, of the old name
    DirectoryArgument{265, 2},  // linkat, of the new name
    DirectoryArgument{266, 1},  // symlinkat
    DirectoryArgument{268, 0},  // fchmodat
    DirectoryArgument{280, 0},  // utimensat
    DirectoryArgument{316, 0},  // renameat2, of the old name
};
// ftruncate, and what is told as write; fchmod, fchown, fsetxattr, fremovexattr; and without a name fchownat,
// futimesat, fchmodat, utimensat
constexpr std::array kObjectDescriptorCalls = {77U, 1U, 91U, 93U, 190U, 199U, 260U, 261U, 268U, 280U};

constexpr int kMaxEntriesLookedAt = 10'000;

std::string WithoutLastSlash(std::string path) {
  if (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

// Whether an absolute path has neither an empty part nor one that begins with a dot, and no slash at its end: nothing
// to take out. Nearly every path is, and then it need not be taken apart.
bool IsPlain(const std::string& path) {
  if (path.size() < 2 || path.front() != '/' || path.back() == '/') return false;
  for (std::size_t at = 0; (at = path.find('/', at)) != std::string::npos; ++at) {
    if (path[at + 1] == '/' || path[at + 1] == '.') return false;
  }
  return true;
}

}  // namespace

std::string NormalisePath(std::string path) {
  if (IsPlain(path)) return path;
  return NormaliseWithPoco(path);
}

std::string NormaliseWithPoco(const std::string& path) {
  try {
    const std::string last = path.substr(path.rfind('/') + 1);
    if (last != "." && last != "..") return Poco::Path(path).toString();
    // Read as a file's name, these two would be kept as they are.
    return WithoutLastSlash(Poco::Path(path).makeDirectory().toString());
  } catch (const Poco::Exception& error) {
    throw edr::EventException("Failed to find absolute path: " + error.displayText());
  }
}

std::optional<std::string> CanonicalPath(const std::string& path) {
  const std::unique_ptr<char, Free> canonical(canonicalize_file_name(path.c_str()));
  return canonical ? std::optional<std::string>(canonical.get()) : std::nullopt;
}

std::string WithCaller(std::string name, std::int32_t pid) {
  if (!name.starts_with('/') || name.find("self/") == std::string::npos) return name;
  const std::string plain = NormalisePath(name);
  for (const std::string_view self : {"/proc/self/", "/proc/thread-self/"}) {
    if (plain.starts_with(self)) return "/proc/" + std::to_string(pid) + "/" + plain.substr(self.size());
  }
  return name;
}

bool IsDescriptorPath(std::string_view path) {
  return path.starts_with("/proc/") && path.find("/fd/") != std::string_view::npos;
}

bool IsCanonical(const std::string& path) {
  return CanonicalPath(path) == path;
}

std::string FolderPart(const std::string& path) {
  if (IsPlain(path)) return path.substr(0, std::max<std::size_t>(path.rfind('/'), 1));
  return WithoutLastSlash(Poco::Path(path).parent().toString());
}

std::string FolderText(const std::string& name) {
  const std::size_t last = name.find_last_not_of('/');
  if (last == std::string::npos) return name;
  return name.substr(0, name.rfind('/', last) + 1);
}

std::string FindByInode(std::uint64_t inode, const std::string& directory) {
  const std::unique_ptr<DIR, DirectoryCloser> folder(opendir(directory.c_str()));
  if (!folder) return directory + "/" + std::to_string(inode);
  for (int looked_at = 0; looked_at < kMaxEntriesLookedAt; ++looked_at) {
    const dirent* entry = readdir(folder.get());  // NOLINT(concurrency-mt-unsafe): a stream of its own
    if (entry == nullptr) break;
    if (entry->d_ino == inode) return directory + "/" + entry->d_name;
  }
  return "inode:" + std::to_string(inode);
}

std::string NameWithinParent(const std::string& parent, const std::string& child) {
  if (parent.empty() || parent.front() == '/' || child.compare(0, parent.size(), parent) != 0) return child;
  if (parent.back() != '/' && child[parent.size()] != '/') return child;
  const std::size_t rest = child.find_first_not_of('/', parent.size());
  return rest == std::string::npos ? child : child.substr(rest);
}

std::string DescriptorPath(std::int32_t pid, std::int32_t fd, const std::string& proc_root) {
  const std::string link = proc_root + "/" + std::to_string(pid) + "/fd/" + std::to_string(fd);
  std::array<char, PATH_MAX> target{};
  const ssize_t length = readlink(link.c_str(), target.data(), target.size());
  return length > 0 ? std::string(target.data(), static_cast<std::size_t>(length)) : std::string();
}

bool IsSame(const struct stat& found, const std::string& path, const FileIdentity& object, MountTable* mounts) {
  if (found.st_ino != object.inode) return false;
  if (found.st_dev == object.device) return true;
  if (mounts == nullptr) return false;
  const auto holds = [&](const std::string& at) {
    const auto mount = mounts->Find(at);
    return mount && mount->device == object.device;
  };
  if (holds(path)) return true;
  // A link among the folders may lead into another mount.
  const std::string written = FolderPart(path);
  const std::optional<std::string> folder = CanonicalPath(written);
  return folder && *folder != written && holds(*folder + path.substr(path.rfind('/')));
}

Leads LeadsTo(const std::string& path, const FileIdentity& object, MountTable* mounts) {
  struct stat found {};
  if (lstat(path.c_str(), &found) != 0) return Leads::Nowhere;
  if (IsSame(found, path, object, mounts)) return Leads::Straight;
  if (!S_ISLNK(found.st_mode) || stat(path.c_str(), &found) != 0 || found.st_ino != object.inode) {
    return Leads::Nowhere;
  }
  // The mount is that of the target.
  const std::optional<std::string> target = CanonicalPath(path);
  return target && IsSame(found, *target, object, mounts) ? Leads::ThroughLink : Leads::Nowhere;
}

bool TakesObjectDescriptor(std::uint32_t syscall) {
  return std::find(kObjectDescriptorCalls.begin(), kObjectDescriptorCalls.end(), syscall) !=
         kObjectDescriptorCalls.end();
}

std::optional<std::size_t> DirectoryArgumentOf(std::uint32_t syscall) {
  const auto* found = std::find_if(kDirectoryArguments.begin(), kDirectoryArguments.end(),
                                   [syscall](const DirectoryArgument& entry) { return entry.syscall == syscall; });
  if (found == kDirectoryArguments.end()) return std::nullopt;
  return found->index;
}

}  // namespace zagent::audit::internal

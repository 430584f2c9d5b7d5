#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <optional>
#include <string>

#include "src/audit/events/FileIdentity.h"
#include "src/audit/events/MountTable.h"

// Finding out which path an audit record means.
namespace zagent::audit::internal {

// "." and ".." and doubled separators taken out by the text alone; never asks the disk. Throws edr::EventException.
[[nodiscard]] std::string NormalisePath(std::string path);

// The same by Poco::Path, whatever the path: the rule that NormalisePath takes a shortcut to.
[[nodiscard]] std::string NormaliseWithPoco(const std::string& path);

// As realpath(3) finds it on disk; nothing, with errno set, when there is no such object.
[[nodiscard]] std::optional<std::string> CanonicalPath(const std::string& path);

// The name with the process in place of "/proc/self/" and "/proc/thread-self/", with which a caller means itself.
[[nodiscard]] std::string WithCaller(std::string name, std::int32_t pid);

// Whether a path is that of a descriptor in procfs, /proc/<pid>/fd/<number>, or goes on below one.
[[nodiscard]] bool IsDescriptorPath(std::string_view path);

// Whether the path leads to what is there without any symbolic link.
[[nodiscard]] bool IsCanonical(const std::string& path);

// The folder part of a path without its last slash; "/" for what lies in the root.
[[nodiscard]] std::string FolderPart(const std::string& path);

// The text of a name up to the slash before its last part, as audit names the parent of a call's argument: "sub/" for
// "sub/f" and for "sub/f/", nothing for "f".
[[nodiscard]] std::string FolderText(const std::string& name);

// The path of the entry of `directory` with this inode; "<directory>/<inode>" when the folder cannot be read and
// "inode:<inode>" when it holds no such entry, or none among its first 10,000.
[[nodiscard]] std::string FindByInode(std::uint64_t inode, const std::string& directory);

// A relative name without the text of its relative parent: audit names the parent "sub/" and the child "sub/f".
[[nodiscard]] std::string NameWithinParent(const std::string& parent, const std::string& child);

// What descriptor `fd` of a process stands for, as the link in `proc_root` tells it; empty when it cannot be read.
[[nodiscard]] std::string DescriptorPath(std::int32_t pid, std::int32_t fd, const std::string& proc_root = "/proc");

// Whether what was found at `path` is this object. With mounts, the device of the one that holds the path counts as
// well as the one that was found; links among the path's folders are followed to it.
[[nodiscard]] bool IsSame(const struct stat& found, const std::string& path, const FileIdentity& object,
                          MountTable* mounts);

// How a path leads to an object.
enum class Leads { Nowhere, ThroughLink, Straight };
[[nodiscard]] Leads LeadsTo(const std::string& path, const FileIdentity& object, MountTable* mounts);

// Which argument of the call is the descriptor that relative names of its (first or only) object start from.
[[nodiscard]] std::optional<std::size_t> DirectoryArgumentOf(std::uint32_t syscall);

// Whether the first argument of the call may be a descriptor of the object itself, which then has no name.
[[nodiscard]] bool TakesObjectDescriptor(std::uint32_t syscall);

}  // namespace zagent::audit::internal

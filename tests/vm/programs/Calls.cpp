#include "Calls.h"

#include <fcntl.h>
#include <linux/io_uring.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <stdexcept>

#include "SystemCall.h"

namespace one_call {
namespace {

constexpr int kNone = -1;
constexpr int kFchmodat2 = 452;
constexpr unsigned kExchange = 2;  // RENAME_EXCHANGE
constexpr const char* kAttribute = "trusted.mark";

long Name(const Request& r) {
  return Reachable(r.name);
}
long Argument(const Request& r) {
  return Reachable(r.argument);
}

// Calls without a descriptor ...
template <int Flags>
long Open(const Request& r) {
  return Enter(r.compat, {SYS_open, 5}, Name(r), Flags, 0644);
}
long Creat(const Request& r) {
  return Enter(r.compat, {SYS_creat, 8}, Name(r), 0644);
}
long Mkdir(const Request& r) {
  return Enter(r.compat, {SYS_mkdir, 39}, Name(r), 0755);
}
long Mknod(const Request& r) {
  return Enter(r.compat, {SYS_mknod, 14}, Name(r), S_IFREG | 0644);
}
long Link(const Request& r) {
  return Enter(r.compat, {SYS_link, 9}, Argument(r), Name(r));
}
long Symlink(const Request& r) {
  return Enter(r.compat, {SYS_symlink, 83}, Argument(r), Name(r));
}
long Rename(const Request& r) {
  return Enter(r.compat, {SYS_rename, 38}, Name(r), Argument(r));
}
long Rmdir(const Request& r) {
  return Enter(r.compat, {SYS_rmdir, 40}, Name(r));
}
long Unlink(const Request& r) {
  return Enter(r.compat, {SYS_unlink, 10}, Name(r));
}
long Chmod(const Request& r) {
  return Enter(r.compat, {SYS_chmod, 15}, Name(r), 0600);
}
long Chown(const Request& r) {
  return Enter(r.compat, {SYS_chown, 212}, Name(r), 1000, 1000);
}
long Lchown(const Request& r) {
  return Enter(r.compat, {SYS_lchown, 198}, Name(r), 1000, 1000);
}
long Setxattr(const Request& r) {
  return Enter(r.compat, {SYS_setxattr, 226}, Name(r), Reachable(kAttribute), Reachable("v"), 1);
}
long Lsetxattr(const Request& r) {
  return Enter(r.compat, {SYS_lsetxattr, 227}, Name(r), Reachable(kAttribute), Reachable("v"), 1);
}
long Removexattr(const Request& r) {
  return Enter(r.compat, {SYS_removexattr, 235}, Name(r), Reachable(kAttribute));
}
long Lremovexattr(const Request& r) {
  return Enter(r.compat, {SYS_lremovexattr, 236}, Name(r), Reachable(kAttribute));
}
long Utime(const Request& r) {
  return Enter(r.compat, {SYS_utime, 30}, Name(r));
}
long Utimes(const Request& r) {
  return Enter(r.compat, {SYS_utimes, 271}, Name(r));
}
long Truncate(const Request& r) {
  return Enter(r.compat, {SYS_truncate, 193}, Name(r), 1);
}  // 32 bits: truncate64

// ... with one of a folder ...
template <int Flags>
long Openat(const Request& r) {
  return Enter(r.compat, {SYS_openat, 295}, r.dirfd, Name(r), Flags, 0644);
}
template <int Flags>
long Openat2(const Request& r) {
  const open_how how{Flags, (Flags & O_CREAT) != 0 ? 0644U : 0U, 0};
  return Enter(r.compat, {SYS_openat2, 437}, r.dirfd, Name(r), Reachable(&how, sizeof(how)), sizeof(how));
}
long Mkdirat(const Request& r) {
  return Enter(r.compat, {SYS_mkdirat, 296}, r.dirfd, Name(r), 0755);
}
long Mknodat(const Request& r) {
  return Enter(r.compat, {SYS_mknodat, 297}, r.dirfd, Name(r), S_IFREG | 0644);
}
long Linkat(const Request& r) {
  return Enter(r.compat, {SYS_linkat, 303}, r.dirfd, Argument(r), r.dirfd, Name(r), 0);
}
long Symlinkat(const Request& r) {
  return Enter(r.compat, {SYS_symlinkat, 304}, Argument(r), r.dirfd, Name(r));
}
long Renameat(const Request& r) {
  return Enter(r.compat, {SYS_renameat, 302}, r.dirfd, Name(r), r.dirfd, Argument(r));
}
template <unsigned Flags>
long Renameat2(const Request& r) {
  return Enter(r.compat, {SYS_renameat2, 353}, r.dirfd, Name(r), r.dirfd, Argument(r), Flags);
}
template <int Flags>
long Unlinkat(const Request& r) {
  return Enter(r.compat, {SYS_unlinkat, 301}, r.dirfd, Name(r), Flags);
}
long Fchmodat(const Request& r) {
  return Enter(r.compat, {SYS_fchmodat, 306}, r.dirfd, Name(r), 0600);
}
long Fchmodat2(const Request& r) {
  return Enter(r.compat, {kFchmodat2, kFchmodat2}, r.dirfd, Name(r), 0600, 0);
}
template <int Flags>
long Fchownat(const Request& r) {
  return Enter(r.compat, {SYS_fchownat, 298}, r.dirfd, Name(r), 1000, 1000, Flags);
}
long Futimesat(const Request& r) {
  return Enter(r.compat, {SYS_futimesat, 299}, r.dirfd, Name(r));
}
long Utimensat(const Request& r) {
  return Enter(r.compat, {SYS_utimensat, 320}, r.dirfd, Name(r));
}

// ... and with one of the object.
long Fchmod(const Request& r) {
  return Enter(r.compat, {SYS_fchmod, 94}, r.fd, 0600);
}
long Fchown(const Request& r) {
  return Enter(r.compat, {SYS_fchown, 207}, r.fd, 1000, 1000);
}
long FchownatEmpty(const Request& r) {
  return Enter(r.compat, {SYS_fchownat, 298}, r.fd, Reachable(""), 1000, 1000, AT_EMPTY_PATH);
}
long Fsetxattr(const Request& r) {
  return Enter(r.compat, {SYS_fsetxattr, 228}, r.fd, Reachable(kAttribute), Reachable("v"), 1);
}
long Fremovexattr(const Request& r) {
  return Enter(r.compat, {SYS_fremovexattr, 237}, r.fd, Reachable(kAttribute));
}
long Ftruncate(const Request& r) {
  return Enter(r.compat, {SYS_ftruncate, 194}, r.fd, 1);
}  // 32 bits: ftruncate64
long Futimens(const Request& r) {
  return Enter(r.compat, {SYS_utimensat, 320}, r.fd, 0);
}

// The object's handle is asked for beforehand: that call is in no watch.
long OpenByHandle(const Request& r) {
  struct {
    file_handle head;
    char bytes[MAX_HANDLE_SZ];
  } handle{};
  handle.head.handle_bytes = MAX_HANDLE_SZ;
  int mount = 0;
  if (name_to_handle_at(r.dirfd, r.name.c_str(), &handle.head, &mount, 0) < 0) return -errno;
  const int root = open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  return Enter(r.compat, {SYS_open_by_handle_at, 342}, root, Reachable(&handle, sizeof(handle)), O_WRONLY);
}

// A file without a name, which then gets one: the one thing here that takes two calls.
long LinkTemporary(const Request& r) {
  const std::size_t slash = r.name.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : r.name.substr(0, slash);
  const int fd = openat(r.dirfd, folder.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0644);
  if (fd < 0) return -errno;
  const long source = Reachable("/proc/self/fd/" + std::to_string(fd));
  return Enter(r.compat, {SYS_linkat, 303}, AT_FDCWD, source, r.dirfd, Name(r), AT_SYMLINK_FOLLOW);
}

template <int Flags>
long UringOpenat(const Request& r) {
  return Submit({IORING_OP_OPENAT, r.dirfd, Name(r), 0644, 0, Flags});
}
template <int Flags>
long UringOpenat2(const Request& r) {
  const open_how how{Flags, (Flags & O_CREAT) != 0 ? 0644U : 0U, 0};
  return Submit({IORING_OP_OPENAT2, r.dirfd, Name(r), sizeof(how), Reachable(&how, sizeof(how))});
}
long UringUnlinkat(const Request& r) {
  return Submit({IORING_OP_UNLINKAT, r.dirfd, Name(r)});
}
long UringMkdirat(const Request& r) {
  return Submit({IORING_OP_MKDIRAT, r.dirfd, Name(r), 0755});
}
long UringSymlinkat(const Request& r) {
  return Submit({IORING_OP_SYMLINKAT, r.dirfd, Argument(r), 0, Name(r)});
}
// The second folder's descriptor stands in the length.
long UringRenameat(const Request& r) {
  return Submit({IORING_OP_RENAMEAT, r.dirfd, Name(r), static_cast<unsigned>(r.dirfd), Argument(r)});
}
long UringLinkat(const Request& r) {
  return Submit({IORING_OP_LINKAT, r.dirfd, Argument(r), static_cast<unsigned>(r.dirfd), Name(r)});
}
// The attribute's name stands in the address, its value in the offset, the path in the third address.
long UringSetxattr(const Request& r) {
  return Submit({IORING_OP_SETXATTR, 0, Reachable(kAttribute), 1, Reachable("v"), 0, Name(r)});
}
long UringFsetxattr(const Request& r) {
  return Submit({IORING_OP_FSETXATTR, r.fd, Reachable(kAttribute), 1, Reachable("v")});
}

constexpr int kNew = O_CREAT | O_EXCL;

std::vector<Call> CallsByName() {
  using enum Scene;
  constexpr Forms names = Forms::kNames;
  return {
      {"open-read", names, kFile, "Read", "Read", 5, Open<O_RDONLY>},
      {"open-write", names, kFile, "Write", "Write", 5, Open<O_WRONLY>},
      {"open-both", names, kFile, "Write", "Write", 5, Open<O_RDWR>},
      {"open-create", names, kNothing, "Create", "Create", 5, Open<O_WRONLY | kNew>},
      {"open-create-over", names, kFile, "Write", "Write", 5, Open<O_WRONLY | O_CREAT>},
      {"open-truncate", names, kFile, "Write", "Write", 5, Open<O_WRONLY | O_TRUNC>},
      {"open-create-to-read", names, kNothing, "", "Create+", 5, Open<O_RDONLY | kNew>},
      {"open-truncate-to-read", names, kFile, "", "Write+", 5, Open<O_RDONLY | O_TRUNC>},
      {"creat", names, kNothing, "Create", "Create", 8, Creat},
      {"creat-over", names, kFile, "", "Write", 8, Creat},
      {"mkdir", names, kNothing, "Create", "Create", 39, Mkdir},
      {"mknod", names, kNothing, "Create", "Create", 14, Mknod},
      {"link", names, kArgumentFile, "Create", "Create", 9, Link},
      {"symlink", names, kNothing, "Create", "Create", 83, Symlink},
      {"rename", names, kFile, "Rename", "Rename", 38, Rename},
      {"rename-folder", names, kFolder, "Rename", "Rename", 38, Rename},
      {"rename-over", names, kTwoFiles, "Rename Over", "Rename Over", 38, Rename},
      {"rmdir", names, kFolder, "Delete", "Delete", 40, Rmdir},
      {"unlink", names, kFile, "Delete", "Delete", 10, Unlink},
      {"chmod", names, kFile, "Change", "Change", 15, Chmod},
      {"chmod-folder", names, kFolder, "Change", "Change", 15, Chmod},
      {"chmod-link", names, kLink, "Target", "Target", 15, Chmod},
      {"chown", names, kFile, "Change", "Change", 212, Chown},
      {"lchown-link", names, kLink, "Change", "Change", 198, Lchown},
      {"setxattr", names, kFile, "Change", "Change", 226, Setxattr},
      {"lsetxattr-link", names, kLink, "Change", "Change", 227, Lsetxattr},
      {"removexattr", names, kMarkedFile, "Change", "Change", 235, Removexattr},
      {"lremovexattr", names, kMarkedFile, "Change", "Change", 236, Lremovexattr},
      {"utime", names, kFile, "", "Change+", 30, Utime},
      {"utimes", names, kFile, "", "Change+", 271, Utimes},
      {"truncate", names, kFile, "", "Write", 193, Truncate},
  };
}

std::vector<Call> CallsByFolder() {
  using enum Scene;
  constexpr Forms at = Forms::kAt;
  return {
      {"openat-read", at, kFile, "Read", "Read", 295, Openat<O_RDONLY>},
      {"openat-write", at, kFile, "Write", "Write", 295, Openat<O_WRONLY>},
      {"openat-create", at, kNothing, "Create", "Create", 295, Openat<O_RDWR | kNew>},
      {"openat-truncate", at, kFile, "Write", "Write", 295, Openat<O_WRONLY | O_CREAT | O_TRUNC>},
      {"openat-create-to-read", at, kNothing, "", "Create+", 295, Openat<O_RDONLY | kNew>},
      {"openat-truncate-to-read", at, kFile, "", "Write+", 295, Openat<O_RDONLY | O_TRUNC>},
      {"openat2-read", at, kFile, "", "Read", 437, Openat2<O_RDONLY>},
      {"openat2-write", at, kFile, "", "Write", 437, Openat2<O_WRONLY>},
      {"openat2-create", at, kNothing, "", "Create", 437, Openat2<O_WRONLY | kNew>},
      {"openat2-truncate", at, kFile, "", "Write", 437, Openat2<O_WRONLY | O_TRUNC>},
      {"mkdirat", at, kNothing, "Create", "Create", 296, Mkdirat},
      {"mknodat", at, kNothing, "Create", "Create", 297, Mknodat},
      {"linkat", at, kArgumentFile, "Create", "Create", 303, Linkat},
      {"symlinkat", at, kNothing, "Create", "Create", 304, Symlinkat},
      {"renameat", at, kFile, "Rename", "Rename", 302, Renameat},
      {"renameat2", at, kFile, "Rename", "Rename", 353, Renameat2<0>},
      {"renameat2-over", at, kTwoFiles, "Rename Over", "Rename Over", 353, Renameat2<0>},
      {"renameat2-exchange", at, kTwoFiles, "", "Rename Back", 353, Renameat2<kExchange>},
      {"unlinkat", at, kFile, "Delete", "Delete", 301, Unlinkat<0>},
      {"unlinkat-folder", at, kFolder, "Delete", "Delete", 301, Unlinkat<AT_REMOVEDIR>},
      {"fchmodat", at, kFile, "Change", "Change", 306, Fchmodat},
      {"fchmodat2", at, kFile, "", "Change", kFchmodat2, Fchmodat2},
      {"fchownat", at, kFile, "Change", "Change", 298, Fchownat<0>},
      {"fchownat-link", at, kLink, "Change", "Change", 298, Fchownat<AT_SYMLINK_NOFOLLOW>},
      {"futimesat", at, kFile, "", "Change+", 299, Futimesat},
      {"utimensat", at, kFile, "", "Change+", 320, Utimensat},
      {"open-by-handle", at, kFile, "", "Write+", 342, OpenByHandle},
      {"link-temporary", at, kNothing, "Create", "Create", 303, LinkTemporary},
  };
}

// The kernel says nothing about ftruncate, whose Write is the one of the opening, nor of times that are changed through
// a descriptor.
std::vector<Call> CallsByDescriptor() {
  using enum Scene;
  constexpr Forms descriptor = Forms::kDescriptor;
  return {
      {"fchmod", descriptor, kFile, "Change", "Change", 94, Fchmod},
      {"fchmod-folder", descriptor, kFolder, "Change", "Change", 94, Fchmod},
      {"fchown", descriptor, kFile, "Change", "Change", 207, Fchown},
      {"fchownat-empty", descriptor, kFile, "Change", "Change", 298, FchownatEmpty, O_PATH},
      {"fsetxattr", descriptor, kFile, "Change", "Change", 228, Fsetxattr},
      {"fremovexattr", descriptor, kMarkedFile, "Change", "Change", 237, Fremovexattr},
      {"futimens", descriptor, kFile, "", "", 320, Futimens},
      {"ftruncate", descriptor, kFile, "Write", "Write", 194, Ftruncate, O_WRONLY},
  };
}

// The records of both attribute operations name no object at all.
std::vector<Call> CallsByUring() {
  using enum Scene;
  constexpr Forms at = Forms::kAt;
  return {
      {"uring-openat", at, kNothing, "", "Create", kNone, UringOpenat<O_WRONLY | kNew>},
      {"uring-openat-write", at, kFile, "", "Write", kNone, UringOpenat<O_WRONLY>},
      {"uring-openat2", at, kNothing, "", "Create", kNone, UringOpenat2<O_WRONLY | kNew>},
      {"uring-unlinkat", at, kFile, "", "Delete#", kNone, UringUnlinkat},
      {"uring-mkdirat", at, kNothing, "", "Create", kNone, UringMkdirat},
      {"uring-symlinkat", at, kNothing, "", "Create", kNone, UringSymlinkat},
      {"uring-renameat", at, kFile, "", "Rename#", kNone, UringRenameat},
      {"uring-linkat", at, kArgumentFile, "", "Create", kNone, UringLinkat},
      {"uring-setxattr", Forms::kNames, kFolder, "", "", kNone, UringSetxattr},
      {"uring-fsetxattr", Forms::kDescriptor, kFolder, "", "", kNone, UringFsetxattr},
  };
}

}  // namespace

const std::vector<Call>& AllCalls() {
  static const std::vector<Call> all = [] {
    std::vector<Call> calls;
    for (auto table : {CallsByName, CallsByFolder, CallsByDescriptor, CallsByUring}) {
      const std::vector<Call> some = table();
      calls.insert(calls.end(), some.begin(), some.end());
    }
    return calls;
  }();
  return all;
}

const Call& CallNamed(const std::string& name) {
  const auto& all = AllCalls();
  const auto found = std::find_if(all.begin(), all.end(), [&](const Call& call) { return call.name == name; });
  if (found == all.end()) throw std::runtime_error("no such call: " + name);
  return *found;
}

}  // namespace one_call

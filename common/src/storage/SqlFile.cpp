#include "common/src/storage/SqlFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>

#include "common/src/storage/StorageResult.h"
#include "common/src/util/ErrnoText.h"
#include "common/src/util/Log.h"
#include "common/src/util/UniqueFd.h"

namespace zagent::common::internal {
namespace {

constexpr mode_t kFolderMode = 0700;
constexpr mode_t kFileMode = 0600;
constexpr mode_t kOthers = 0077;

}  // namespace

std::string SqlFilePath(const std::string& directory, const std::string& name) {
  return directory.back() == '/' ? directory + name : directory + "/" + name;
}

void MakeSqlFolder(const std::string& directory) {
  std::filesystem::path growing;
  for (const std::filesystem::path& part : std::filesystem::path(directory)) {
    growing /= part;
    if (mkdir(growing.c_str(), kFolderMode) == 0) continue;
    const int error = errno;
    struct stat info {};
    // A folder that is there may say EEXIST, but EACCES or EROFS as well.
    if (stat(growing.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) continue;
    throw StorageException::FromErrno("SqlStorage: Failed to create folder " + growing.string(), error);
  }
}

bool PrepareSqlFile(const std::string& path) {
  struct stat info {};
  if (stat(path.c_str(), &info) != 0) {
    // What fails here SQLite tells when it opens the file.
    const util::UniqueFd created(open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, kFileMode));
    return false;
  }
  if (S_ISREG(info.st_mode) && (info.st_mode & kOthers) != 0 && chmod(path.c_str(), kFileMode) != 0) {
    const int error = errno;
    ZLOG_WARNING("SqlStorage: Others can read " << path
                                                << ", and its mode cannot be made 0600: " << util::ErrnoText(error));
  }
  return info.st_size != 0 || !S_ISREG(info.st_mode);
}

std::string SetSqlFileAside(const std::string& path) {
  std::string aside = path + ".damaged";
  // The database last: should it end here, the next start finds it where it was.
  for (const char* part : {"-journal", "-wal", "-shm", ""}) {
    if (rename((path + part).c_str(), (aside + part).c_str()) == 0) continue;
    const int error = errno;
    if (error != ENOENT || *part == '\0') {
      throw StorageException::FromErrno("SqlStorage: Failed to set aside " + path + part, error);
    }
    // That of an earlier one belongs to no file any more.
    unlink((aside + part).c_str());
  }
  return aside;
}

}  // namespace zagent::common::internal

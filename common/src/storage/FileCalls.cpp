#include "common/src/storage/FileCalls.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <system_error>

namespace zagent::common {

int FileCalls::Open(const char* path, int flags, mode_t mode) {
  return open(path, flags, mode);
}

ssize_t FileCalls::Read(int fd, void* buffer, std::size_t size) {
  return read(fd, buffer, size);
}

ssize_t FileCalls::Write(int fd, const void* data, std::size_t size) {
  return write(fd, data, size);
}

int FileCalls::Fstat(int fd, struct stat* info) {
  return fstat(fd, info);
}

int FileCalls::Fsync(int fd) {
  return fsync(fd);
}

int FileCalls::Stat(const char* path, struct stat* info) {
  return stat(path, info);
}

int FileCalls::Lstat(const char* path, struct stat* info) {
  return lstat(path, info);
}

int FileCalls::Unlink(const char* path) {
  return unlink(path);
}

int FileCalls::Rename(const char* from, const char* to) {
  return std::rename(from, to);
}

int FileCalls::ListFolder(const char* path, std::vector<std::string>& names) {
  std::error_code error;
  std::filesystem::directory_iterator entry(path, error);
  for (const std::filesystem::directory_iterator end; !error && entry != end; entry.increment(error)) {
    names.push_back(entry->path().filename().string());
  }
  if (!error) return 0;
  errno = error.value();
  return -1;
}

FileCalls& FileCalls::Real() {
  static FileCalls calls;
  return calls;
}

}  // namespace zagent::common

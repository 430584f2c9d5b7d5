#include "common/src/storage/FileCalls.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

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

int FileCalls::Unlink(const char* path) {
  return unlink(path);
}

int FileCalls::Rename(const char* from, const char* to) {
  return std::rename(from, to);
}

FileCalls& FileCalls::Real() {
  static FileCalls calls;
  return calls;
}

}  // namespace zagent::common

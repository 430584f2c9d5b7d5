#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

namespace zagent::common {

// The system calls of the storages, so that a test can let one of them fail. Each does what the call of its name does:
// -1 and errno on a failure. From every thread.
class FileCalls {
 public:
  FileCalls() = default;
  FileCalls(const FileCalls&) = delete;
  FileCalls& operator=(const FileCalls&) = delete;
  virtual ~FileCalls() = default;

  virtual int Open(const char* path, int flags, mode_t mode);
  virtual ssize_t Read(int fd, void* buffer, std::size_t size);
  virtual ssize_t Write(int fd, const void* data, std::size_t size);
  virtual int Fstat(int fd, struct stat* info);
  virtual int Fsync(int fd);
  virtual int Stat(const char* path, struct stat* info);
  virtual int Lstat(const char* path, struct stat* info);
  virtual int Unlink(const char* path);
  virtual int Rename(const char* from, const char* to);
  // opendir, readdir and closedir: adds the names in a folder, without "." and "..", in no order.
  virtual int ListFolder(const char* path, std::vector<std::string>& names);

  // Those of the machine. Lives as long as the process.
  static FileCalls& Real();
};

}  // namespace zagent::common

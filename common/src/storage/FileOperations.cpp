#include "common/src/storage/FileOperations.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <utility>

#include "common/src/util/ErrnoText.h"
#include "common/src/util/Log.h"

namespace zagent::common {
namespace {

using util::UniqueFd;

constexpr std::size_t kSmallestReadBuffer = 4096;

template <typename Call>
auto RetryOnInterrupt(Call call) {
  auto result = call();
  while (result < 0 && errno == EINTR) result = call();
  return result;
}

UniqueFd OpenFile(FileCalls& calls, const std::string& path, int flags) {
  constexpr mode_t kMode = 0600;
  return UniqueFd(RetryOnInterrupt([&] { return calls.Open(path.c_str(), flags | O_CLOEXEC | O_NONBLOCK, kMode); }));
}

std::unique_ptr<StorageResult> MakeResult(const std::string& path, Bytes data = {}) {
  auto result = std::make_unique<StorageResult>();
  result->path = path;
  result->data = std::move(data);
  return result;
}

// Turns errno into the result's code, before the log line can change it.
void Fail(StorageResult& result, const char* text) {
  const int error = errno;
  result.code = StorageCodeFromErrno(error);
  ZLOG_ERROR(text << result.path << ": " << util::ErrnoText(error));
}

std::unique_ptr<struct stat> Stat(FileCalls& calls, int fd) {
  auto info = std::make_unique<struct stat>();
  if (calls.Fstat(fd, info.get()) != 0) return nullptr;
  return info;
}

// False with errno; true where the file system has no such operation.
bool Sync(FileCalls& calls, int fd) {
  return RetryOnInterrupt([&] { return calls.Fsync(fd); }) == 0 || errno == EINVAL || errno == ENOSYS;
}

// Writes all of result.data and notes the file's attributes, after a failure too: they tell the torn file from others.
void WriteAll(FileCalls& calls, int fd, Durability durability, StorageResult& result) {
  std::size_t written = 0;
  while (written < result.data.size()) {
    const ssize_t count =
        RetryOnInterrupt([&] { return calls.Write(fd, result.data.data() + written, result.data.size() - written); });
    if (count <= 0) {
      if (count == 0) errno = EIO;
      Fail(result, "Storage: Failed to write to ");
      break;
    }
    written += static_cast<std::size_t>(count);
  }
  if (result.code == StorageCode::Success && durability == Durability::OnDisk && !Sync(calls, fd)) {
    Fail(result, "Storage: Failed to sync ");
  }
  result.stat_info = Stat(calls, fd);
}

// Opens the file and notes its attributes in `result`. A failure is a code, with its log line.
UniqueFd OpenToRead(FileCalls& calls, int flags, const char* stat_failure, StorageResult& result) {
  UniqueFd fd = OpenFile(calls, result.path, O_RDONLY | flags);
  if (!fd) {
    Fail(result, "Storage: Failed to open ");
    return fd;
  }
  result.stat_info = Stat(calls, fd.Get());
  if (!result.stat_info) Fail(result, stat_failure);
  return fd;
}

// Reads up to `max_bytes`, or the size that the file has now.
std::unique_ptr<StorageResult> OpenAndRead(FileCalls& calls, const std::string& path, const char* stat_failure,
                                           std::optional<std::size_t> max_bytes) {
  auto result = MakeResult(path);
  const UniqueFd fd = OpenToRead(calls, 0, stat_failure, *result);
  if (result->code != StorageCode::Success) return result;
  const struct stat& info = *result->stat_info;
  return ReadFileDescriptor(path, info, fd.Get(), max_bytes.value_or(static_cast<std::size_t>(info.st_size)), calls);
}

}  // namespace

std::unique_ptr<StorageResult> WriteFile(const std::string& path, Bytes data, FileCalls& calls, Durability durability,
                                         bool* created) {
  auto result = MakeResult(path, std::move(data));
  const UniqueFd fd = OpenFile(calls, path, O_WRONLY | O_CREAT | O_EXCL);
  if (!fd) {
    Fail(*result, "Storage: Failed to create ");
    return result;
  }
  if (created != nullptr) *created = true;
  WriteAll(calls, fd.Get(), durability, *result);
  return result;
}

FolderSync::FolderSync(std::string path, FileCalls& calls) : path_(std::move(path)), calls_(calls) {}

int FolderSync::operator()() {
  if (!IsAtPath()) Open();
  if (folder_ && Sync(calls_, folder_.Get())) return 0;
  const int error = errno;
  folder_.Reset();
  ZLOG_ERROR("Storage: Failed to sync " << path_ << ": " << util::ErrnoText(error));
  return error;
}

// While the folder is open no other one has its number.
bool FolderSync::IsAtPath() const {
  struct stat now {};
  return folder_ && calls_.Stat(path_.c_str(), &now) == 0 && now.st_ino == opened_.st_ino &&
         now.st_dev == opened_.st_dev;
}

void FolderSync::Open() {
  folder_.Reset();
  folder_ = OpenFile(calls_, path_, O_RDONLY | O_DIRECTORY);
  // What is not known is opened again the next time.
  if (folder_ && calls_.Fstat(folder_.Get(), &opened_) != 0) opened_ = {};
}

std::unique_ptr<StorageResult> AppendFile(const std::string& path, Bytes data, const StorageResult& previous,
                                          FileCalls& calls) {
  auto result = MakeResult(path, std::move(data));
  const UniqueFd fd = OpenFile(calls, path, O_WRONLY | O_EXCL | O_APPEND);
  if (!fd) {
    Fail(*result, "Storage: Failed to append data to ");
    return result;
  }
  result->stat_info = Stat(calls, fd.Get());
  if (!result->stat_info) {
    Fail(*result, "Storage: Failed to stat file ");
    return result;
  }
  if (!previous.stat_info || previous.stat_info->st_ino != result->stat_info->st_ino) {
    ZLOG_ERROR("Storage: Failed to append data, file " << path << " was changed/replaced outside");
    result->code = StorageCode::FileReplaced;
    return result;
  }
  WriteAll(calls, fd.Get(), Durability::Cached, *result);
  return result;
}

std::unique_ptr<StorageResult> ReadFile(const std::string& path, FileCalls& calls) {
  return OpenAndRead(calls, path, "Storage: Failed to stat ", std::nullopt);
}

std::unique_ptr<StorageResult> ReadFileUpTo(const std::string& path, std::size_t max_bytes, FileCalls& calls) {
  return OpenAndRead(calls, path, "FileStorage: Failed to stat ", max_bytes);
}

std::unique_ptr<StorageResult> ReadRegularFile(const std::string& path, std::uint64_t max_bytes, FileCalls& calls) {
  auto result = MakeResult(path);
  const UniqueFd fd = OpenToRead(calls, O_NOFOLLOW, "Storage: Failed to stat ", *result);
  if (result->code != StorageCode::Success) return result;
  const struct stat& info = *result->stat_info;
  const auto size = static_cast<std::uint64_t>(info.st_size);
  if (!S_ISREG(info.st_mode)) {
    result->code = StorageCode::NotAFile;
  } else if (size > max_bytes) {
    result->code = StorageCode::Unknown;
  } else {
    return ReadFileDescriptor(path, info, fd.Get(), size, calls);
  }
  return result;
}

std::unique_ptr<StorageResult> ReadFileDescriptor(const std::string& path, const struct stat& stat, int fd,
                                                  std::size_t size, FileCalls& calls) {
  auto result = MakeResult(path);
  result->stat_info = std::make_unique<struct stat>(stat);
  if (!S_ISREG(stat.st_mode)) return result;

  Bytes& data = result->data;
  const auto expected = static_cast<std::size_t>(std::max<off_t>(stat.st_size, 0));
  std::size_t gathered = 0;
  while (gathered < size) {
    // The file may hold more than its size says (procfs) and much less than the caller allows.
    if (gathered == data.size()) {
      data.resize(std::min(size, std::max({expected, 2 * data.size(), kSmallestReadBuffer})));
    }
    const ssize_t count =
        RetryOnInterrupt([&] { return calls.Read(fd, data.data() + gathered, data.size() - gathered); });
    if (count < 0) {
      Fail(*result, "Storage: Failed to read from ");
      break;
    }
    if (count == 0) break;
    gathered += static_cast<std::size_t>(count);
  }
  data.resize(gathered);
  ZLOG_TRACE("Storage: Read upto " << gathered << " bytes out of" << size << " from" << path);
  return result;
}

}  // namespace zagent::common

#include "common/src/http/OnDiskHttpResponse.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "common/src/http/HttpException.h"
#include "common/src/util/Log.h"

namespace zagent::common {
namespace {

using util::UniqueFd;

constexpr const char* kFinalized = "Cannot update HttpResponse payload after it has been finalized";

UniqueFd CreateFile(const std::string& path) {
  return UniqueFd(open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
}

bool DeleteFile(const std::string& path) {
  return unlink(path.c_str()) == 0 || errno == ENOENT;
}

void WriteAll(int fd, const std::vector<unsigned char>& data, const std::string& path) {
  std::size_t written = 0;
  while (written < data.size()) {
    const ssize_t count = write(fd, data.data() + written, data.size() - written);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) throw HttpException("Failed to write data to the file " + path);
    written += static_cast<std::size_t>(count);
  }
}

}  // namespace

OnDiskHttpResponse::OnDiskHttpResponse(std::string path)
    : path_(std::move(path)), part_(path_ + ".part"), temp_(path_ + ".temp") {}

OnDiskHttpResponse::~OnDiskHttpResponse() {
  DeletePart();
}

void OnDiskHttpResponse::Begin() {
  if (file_) return;  // a later attempt, or a later range
  if (!DeleteFile(part_)) throw HttpException("Failed to delete the existing part file " + part_);
  file_ = CreateFile(part_);
  if (!file_) throw HttpException("Failed to initialize the part file " + part_);
}

const std::vector<unsigned char>& OnDiskHttpResponse::GetPayload() const {
  if (!processing_ || !payload_.empty()) return payload_;
  const std::string failure = "Response processing failed, error to open download-file stream: " + part_;
  struct stat status {};
  if (fstat(file_.Get(), &status) != 0 || static_cast<std::size_t>(status.st_size) > kMaxPayloadInMemory) {
    throw HttpException(failure);
  }
  payload_.resize(static_cast<std::size_t>(status.st_size));
  std::size_t gathered = 0;
  while (gathered < payload_.size()) {
    const ssize_t count =
        pread(file_.Get(), payload_.data() + gathered, payload_.size() - gathered, static_cast<off_t>(gathered));
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) throw HttpException(failure);
    gathered += static_cast<std::size_t>(count);
  }
  return payload_;
}

void OnDiskHttpResponse::UpdatePayload(std::vector<unsigned char> payload) {
  RequireOpen(kFinalized);
  if (!processing_) {
    WriteAll(file_.Get(), payload, part_);
    ZLOG_TRACE("Updated download file: " << path_);
    return;
  }
  const std::string failure = "Response processing failed, error to open temp-download-file stream: " + temp_;
  if (!DeleteFile(temp_)) throw HttpException(failure);
  UniqueFd temp = CreateFile(temp_);
  if (!temp) throw HttpException(failure);
  try {
    WriteAll(temp.Get(), payload, temp_);
    if (std::rename(temp_.c_str(), part_.c_str()) != 0) throw HttpException(failure);
  } catch (const HttpException&) {
    DeleteFile(temp_);
    throw;
  }
  file_ = std::move(temp);
  payload_ = std::move(payload);
  ZLOG_TRACE("Updated download file: " << path_);
}

void OnDiskHttpResponse::ClearPayload() {
  RequireOpen(kFinalized);
  if (ftruncate(file_.Get(), 0) != 0 || lseek(file_.Get(), 0, SEEK_SET) != 0) {
    throw HttpException("Failed to write data to the file " + part_);
  }
}

void OnDiskHttpResponse::KeepErrorPayload(std::vector<unsigned char> payload) {
  RequireOpen(kFinalized);
  payload_ = std::move(payload);
}

void OnDiskHttpResponse::EndProcessing() {
  processing_ = false;
  payload_ = {};
}

void OnDiskHttpResponse::Save() {
  RequireOpen(kFinalized);
  if (std::rename(part_.c_str(), path_.c_str()) != 0) throw HttpException("Failed to save the file " + path_);
  file_.Reset();
  ZLOG_INFO("Successfully saved file " << path_);
}

void OnDiskHttpResponse::Finalize() {
  DeletePart();
  if (processing_) EndProcessing();
  MutableHttpResponse::Finalize();
}

void OnDiskHttpResponse::DeletePart() {
  if (!file_) return;  // saved, or never begun
  file_.Reset();
  ZLOG_INFO("Deleting file " << part_);
  DeleteFile(part_);
}

}  // namespace zagent::common

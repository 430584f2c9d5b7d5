#include "common/src/util/HashGenerator.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <utility>

#include "common/src/util/DeviceText.h"
#include "common/src/util/ErrnoText.h"
#include "common/src/util/Log.h"
#include "common/src/util/UniqueFd.h"

namespace zagent::common::util {
namespace {

constexpr std::size_t kChunk = 1024UL * 1024UL;

struct ContextCloser {
  void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};
using Context = std::unique_ptr<EVP_MD_CTX, ContextCloser>;

// Which digest is whose.
struct Kind {
  HashKind kind;
  const EVP_MD* (*algorithm)();
  std::vector<unsigned char> FileDigests::*digest;
};
constexpr std::array kKinds = {Kind{HashKind::Md5, &EVP_md5, &FileDigests::md5},
                               Kind{HashKind::Sha1, &EVP_sha1, &FileDigests::sha1},
                               Kind{HashKind::Sha256, &EVP_sha256, &FileDigests::sha256}};

bool Wants(HashKind wanted, const Kind& kind) {
  return wanted == HashKind::All || wanted == kind.kind;
}

// One digest on its way.
struct Pass {
  Context context;
  std::vector<unsigned char> FileDigests::*digest;
};

Pass StartPass(const std::string& path, const Kind& kind) {
  Pass pass{Context(EVP_MD_CTX_new()), kind.digest};
  if (!pass.context) throw HashGeneratorException("Failed to create hash contexts for " + path);
  if (EVP_DigestInit(pass.context.get(), kind.algorithm()) != 1) {
    throw HashGeneratorException("Failed to initialize hash contexts for " + path);
  }
  return pass;
}

std::vector<unsigned char> FinishPass(const std::string& path, const Pass& pass) {
  std::vector<unsigned char> digest(EVP_MAX_MD_SIZE);
  unsigned length = 0;
  if (EVP_DigestFinal(pass.context.get(), digest.data(), &length) != 1) {
    throw HashGeneratorException("Failed to finalize hashes for " + path);
  }
  digest.resize(length);
  return digest;
}

// The calling thread's buffer of kChunk bytes. Its pages are touched by what is read only: zeroed anew for each file,
// it would cost most of what hashing many small files costs.
unsigned char* ChunkBuffer() {
  thread_local std::unique_ptr<unsigned char[]> buffer;
  if (!buffer) buffer = std::make_unique_for_overwrite<unsigned char[]>(kChunk);
  return buffer.get();
}

bool IsInProcfs(int fd) {
  struct statfs file_system {};
  return fstatfs(fd, &file_system) == 0 && file_system.f_type == PROC_SUPER_MAGIC;
}

std::size_t ReadChunk(const std::string& path, int fd, unsigned char* buffer, std::int64_t left) {
  const std::size_t wanted = std::min(kChunk, static_cast<std::size_t>(left));
  ssize_t count = 0;
  do {
    count = read(fd, buffer, wanted);
  } while (count < 0 && errno == EINTR);
  if (count < 0) {
    throw HashGeneratorException("Error reading file '" + path + "' for generating hashes: " + ErrnoText(errno));
  }
  return static_cast<std::size_t>(count);
}

const std::vector<unsigned char>& Existing(const std::vector<unsigned char>& digest, const char* name,
                                           const std::string& path) {
  if (digest.empty()) throw HashGeneratorException(name + (" for " + path) + " does not exist");
  return digest;
}

}  // namespace

HashGenerator::HashGenerator(std::string path, const std::string& device, std::uint64_t inode, HashKind kind,
                             DigestCache* cache, std::int64_t max_size)
    : path_(std::move(path)) {
  const auto is_the_one_meant = [&](const struct stat& file) {
    return device.empty() || (file.st_ino == inode && DeviceText(file.st_dev) == device);
  };
  struct stat before {};
  if (lstat(path_.c_str(), &before) == 0) {
    const bool is_link = S_ISLNK(before.st_mode);
    if (is_link && stat(path_.c_str(), &before) != 0) before.st_mode = S_IFREG;  // to be told by the open that fails
    // Opening alone can do harm: a watchdog is armed by it. Whoever puts a link in the file's place must not get there.
    if (!S_ISREG(before.st_mode)) return;
    const bool may_be_known = cache != nullptr && !is_link && before.st_size <= max_size && is_the_one_meant(before);
    if (may_be_known && Recall(before, kind, *cache)) return;
  }
  // Neither an open nor a read may wait for the other end of a FIFO that stands in the file's place.
  const UniqueFd fd(open(path_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!fd) {
    throw HashGeneratorException("Failed to open file '" + path_ + "' for generating hashes:" + ErrnoText(errno));
  }
  struct stat opened {};
  struct stat named {};
  if (fstat(fd.Get(), &opened) != 0) throw HashGeneratorException("Failed to fstat file at " + path_);
  if (lstat(path_.c_str(), &named) != 0) throw HashGeneratorException("Failed to lstat file at " + path_);
  if (S_ISLNK(named.st_mode)) ZLOG_DEBUG("Generating hash for source file for symlink " << path_);
  if (!is_the_one_meant(opened)) return;
  if (!S_ISREG(opened.st_mode) || opened.st_size > max_size || IsInProcfs(fd.Get())) return;
  if (cache != nullptr && Recall(opened, kind, *cache)) return;
  digests_ =
      cache != nullptr ? GenerateAndKeep(fd.Get(), opened, kind, *cache) : Generate(fd.Get(), opened.st_size, kind);
}

bool HashGenerator::Recall(const struct stat& file, HashKind kind, const DigestCache& cache) {
  FileDigests known = cache.Find(file);
  for (const Kind& one : kKinds) {
    if (!Wants(kind, one)) {
      (known.*one.digest).clear();
    } else if ((known.*one.digest).empty()) {
      return false;
    }
  }
  digests_ = std::move(known);
  return true;
}

// What is kept must be the digests of one state, from before the first read until after the last.
FileDigests HashGenerator::GenerateAndKeep(int fd, const struct stat& opened, HashKind kind, DigestCache& cache) const {
  const bool settled = cache.IsSettled(opened);
  FileDigests digests = Generate(fd, opened.st_size, kind);
  struct stat afterwards {};
  if (settled && fstat(fd, &afterwards) == 0 && FileState(opened) == FileState(afterwards)) {
    cache.Keep(opened, digests);
  }
  return digests;
}

// Ends at the size that the file had when it was opened, or earlier: who appends faster than this reads gains nothing.
FileDigests HashGenerator::Generate(int fd, std::int64_t size, HashKind kind) const {
  ZLOG_TRACE("Reading file content from " << path_ << " (Size: " << size << " bytes.)");
  std::vector<Pass> passes;
  for (const Kind& one : kKinds) {
    if (Wants(kind, one)) passes.push_back(StartPass(path_, one));
  }
  unsigned char* const buffer = ChunkBuffer();
  // The digest of nothing would be a false one.
  if (size == 0 && ReadChunk(path_, fd, buffer, 1) > 0) return {};
  for (std::int64_t left = size; left > 0;) {
    const std::size_t count = ReadChunk(path_, fd, buffer, left);
    if (count == 0) break;
    left -= static_cast<std::int64_t>(count);
    for (const Pass& pass : passes) {
      if (EVP_DigestUpdate(pass.context.get(), buffer, count) != 1) {
        throw HashGeneratorException("Failed to update hashes for " + path_);
      }
    }
  }
  FileDigests digests;
  for (const Pass& pass : passes) digests.*pass.digest = FinishPass(path_, pass);
  return digests;
}

const std::vector<unsigned char>& HashGenerator::GetMd5() const {
  return Existing(digests_.md5, "MD5", path_);
}

const std::vector<unsigned char>& HashGenerator::GetSha1() const {
  return Existing(digests_.sha1, "SHA1", path_);
}

// The platform knows a missing SHA-256 digest by the same words.
const std::vector<unsigned char>& HashGenerator::GetSha256() const {
  return Existing(digests_.sha256, "SHA1", path_);
}

}  // namespace zagent::common::util

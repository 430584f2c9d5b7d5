#include "common/src/util/HashGenerator.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
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

// One digest on its way.
struct Pass {
  Context context;
  std::vector<unsigned char>* digest;
};

Pass StartPass(const std::string& path, const EVP_MD* algorithm, std::vector<unsigned char>* digest) {
  Pass pass{Context(EVP_MD_CTX_new()), digest};
  if (!pass.context) throw HashGeneratorException("Failed to create hash contexts for " + path);
  if (EVP_DigestInit(pass.context.get(), algorithm) != 1) {
    throw HashGeneratorException("Failed to initialize hash contexts for " + path);
  }
  return pass;
}

void FinishPass(const std::string& path, const Pass& pass) {
  std::vector<unsigned char> digest(EVP_MAX_MD_SIZE);
  unsigned length = 0;
  if (EVP_DigestFinal(pass.context.get(), digest.data(), &length) != 1) {
    throw HashGeneratorException("Failed to finalize hashes for " + path);
  }
  digest.resize(length);
  *pass.digest = std::move(digest);
}

bool IsInProcfs(int fd) {
  struct statfs file_system {};
  return fstatfs(fd, &file_system) == 0 && file_system.f_type == PROC_SUPER_MAGIC;
}

std::size_t ReadChunk(const std::string& path, int fd, std::vector<unsigned char>& buffer, std::int64_t left) {
  const std::size_t wanted = std::min(buffer.size(), static_cast<std::size_t>(left));
  ssize_t count = 0;
  do {
    count = read(fd, buffer.data(), wanted);
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

HashGenerator::HashGenerator(std::string path, const std::string& device, std::uint64_t inode, HashKind kind)
    : path_(std::move(path)) {
  // Opening alone can do harm: a watchdog is armed by it. Whoever puts a link in the file's place must not get there.
  struct stat before {};
  if (stat(path_.c_str(), &before) == 0 && !S_ISREG(before.st_mode)) return;
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
  if (!device.empty() && (opened.st_ino != inode || DeviceText(opened.st_dev) != device)) return;
  if (!S_ISREG(opened.st_mode) || IsInProcfs(fd.Get())) return;
  ZLOG_TRACE("Reading file content from " << path_ << " (Size: " << opened.st_size << " bytes.)");
  if (opened.st_size > kMaxFileSize) {
    ZLOG_DEBUG("Not generating hashes for " << path_ << ": " << opened.st_size << " bytes are more than "
                                            << kMaxFileSize);
    return;
  }
  Generate(fd.Get(), opened.st_size, kind);
}

// Ends at the size that the file had when it was opened, or earlier: who appends faster than this reads gains nothing.
void HashGenerator::Generate(int fd, std::int64_t size, HashKind kind) {
  const auto wanted = [kind](HashKind one) { return kind == HashKind::All || kind == one; };
  std::vector<Pass> passes;
  if (wanted(HashKind::Md5)) passes.push_back(StartPass(path_, EVP_md5(), &md5_));
  if (wanted(HashKind::Sha1)) passes.push_back(StartPass(path_, EVP_sha1(), &sha1_));
  if (wanted(HashKind::Sha256)) passes.push_back(StartPass(path_, EVP_sha256(), &sha256_));

  std::vector<unsigned char> buffer(kChunk);
  for (std::int64_t left = size; left > 0;) {
    const std::size_t count = ReadChunk(path_, fd, buffer, left);
    if (count == 0) break;
    left -= static_cast<std::int64_t>(count);
    for (const Pass& pass : passes) {
      if (EVP_DigestUpdate(pass.context.get(), buffer.data(), count) != 1) {
        throw HashGeneratorException("Failed to update hashes for " + path_);
      }
    }
  }
  for (const Pass& pass : passes) FinishPass(path_, pass);
}

const std::vector<unsigned char>& HashGenerator::GetMd5() const {
  return Existing(md5_, "MD5", path_);
}

const std::vector<unsigned char>& HashGenerator::GetSha1() const {
  return Existing(sha1_, "SHA1", path_);
}

// The platform knows a missing SHA-256 digest by the same words.
const std::vector<unsigned char>& HashGenerator::GetSha256() const {
  return Existing(sha256_, "SHA1", path_);
}

}  // namespace zagent::common::util

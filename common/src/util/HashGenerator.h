#pragma once

#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/src/util/DigestCache.h"

namespace zagent::common::util {

class HashGeneratorException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Which digests to compute. Counted differently from edr::ContentHash, which names one digest of an event.
enum class HashKind : std::uint8_t { All = 0, Md5 = 1, Sha1 = 2, Sha256 = 3 };

// Digests of a file, computed in one pass over it and only if the file that is opened is still the one that was meant.
// The thread that hashes keeps a buffer of 1 MiB for its next file.
// What is no regular file (a FIFO, a device) or lies in procfs, whose files may be endless or change by being read, has
// no digests; neither has a file that was replaced, nor one whose size of 0 says nothing of what it holds, as with the
// files of cgroups, nor one that is larger than its reader allows.
class HashGenerator {
 public:
  // Does all the work. `device` as audit writes it ("fd:00"); without it neither device nor inode is checked. A
  // symbolic link is followed. With a cache the file is opened and read only if its state is not known there.
  // `max_size` in bytes. Throws HashGeneratorException when the file cannot be opened or read.
  HashGenerator(std::string path, const std::string& device, std::uint64_t inode, HashKind kind,
                DigestCache* cache = nullptr, std::int64_t max_size = std::numeric_limits<std::int64_t>::max());

  // The digest as bytes. Throw HashGeneratorException when it was not asked for or not computed.
  [[nodiscard]] const std::vector<unsigned char>& GetMd5() const;
  [[nodiscard]] const std::vector<unsigned char>& GetSha1() const;
  [[nodiscard]] const std::vector<unsigned char>& GetSha256() const;

 private:
  [[nodiscard]] FileDigests Generate(int fd, std::int64_t size, HashKind kind) const;
  // Whether the cache has every digest of this state that is wanted.
  [[nodiscard]] bool Recall(const struct stat& file, HashKind kind, const DigestCache& cache);
  [[nodiscard]] FileDigests GenerateAndKeep(int fd, const struct stat& opened, HashKind kind, DigestCache& cache) const;

  std::string path_;
  FileDigests digests_;
};

}  // namespace zagent::common::util

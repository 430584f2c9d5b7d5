#pragma once

#include <cstddef>

#include "common/src/http/interceptors/Compression.h"

namespace zagent::common {

// LZMA through liblzma, in one of its two containers.
//
// The alone container is made with the default preset, but with the dictionary lowered to the next power of two above
// the data: a bigger one cannot be filled, and for a spool file the encoder's memory falls from 93 MiB to about 2.5.
class LzmaCompression final : public Compression {
 public:
  enum class Container { Alone, Xz };

  // What an answer or a payload may unfold to, so that a few bytes cannot fill the memory.
  static constexpr std::size_t kMaxDecompressedSize = 64UL * 1024 * 1024;

  explicit LzmaCompression(Container container = Container::Alone,
                           std::size_t max_decompressed_size = kMaxDecompressedSize)
      : container_(container), max_decompressed_size_(max_decompressed_size) {}

  [[nodiscard]] std::vector<unsigned char> Compress(const std::vector<unsigned char>& data) const override;
  // A stream that does not end, bytes behind its end and more than the allowed size are failures; so is, before
  // anything is allocated, an alone header that names a dictionary above that size.
  [[nodiscard]] std::vector<unsigned char> Decompress(const std::vector<unsigned char>& data) const override;

 private:
  Container container_;
  std::size_t max_decompressed_size_;
};

}  // namespace zagent::common

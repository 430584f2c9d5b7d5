#pragma once

#include <stdexcept>
#include <vector>

namespace zagent::common {

class CompressionException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The data would unfold to more than is allowed.
class DecompressedTooLargeException : public CompressionException {
 public:
  using CompressionException::CompressionException;
};

// One compression format over whole buffers. Failures are CompressionExceptions.
class Compression {
 public:
  Compression() = default;
  Compression(const Compression&) = delete;
  Compression& operator=(const Compression&) = delete;
  virtual ~Compression() = default;

  [[nodiscard]] virtual std::vector<unsigned char> Compress(const std::vector<unsigned char>& data) const = 0;
  [[nodiscard]] virtual std::vector<unsigned char> Decompress(const std::vector<unsigned char>& data) const = 0;
};

}  // namespace zagent::common

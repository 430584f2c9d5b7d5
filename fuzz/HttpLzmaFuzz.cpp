// Feeds one text to the decoders of both containers, with a bound of 1 MiB on what comes out, and through the encoders
// and back.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "common/src/http/interceptors/LzmaCompression.h"

namespace {

using zagent::common::LzmaCompression;

constexpr std::size_t kBound = 1UL << 20;

void Expect(bool holds) {
  if (!holds) std::abort();
}

void Feed(const std::vector<unsigned char>& bytes, LzmaCompression::Container container) {
  const LzmaCompression compression(container, kBound);
  try {
    Expect(compression.Decompress(bytes).size() <= kBound);
  } catch (const zagent::common::CompressionException&) {
    // No stream, or one that does not end, goes on or unfolds to too much: it says so.
  }
  Expect(compression.Decompress(compression.Compress(bytes)) == bytes);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::vector<unsigned char> bytes(data, data + size);
  Feed(bytes, LzmaCompression::Container::Alone);
  Feed(bytes, LzmaCompression::Container::Xz);
  return 0;
}

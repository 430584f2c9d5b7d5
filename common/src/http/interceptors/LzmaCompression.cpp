#include "common/src/http/interceptors/LzmaCompression.h"

#include <lzma.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <limits>
#include <string>

namespace zagent::common {
namespace {

constexpr std::size_t kBufferSize = 4096;
constexpr std::uint64_t kNoMemoryLimit = std::numeric_limits<std::uint64_t>::max();

class LzmaStream {
 public:
  LzmaStream() = default;
  LzmaStream(const LzmaStream&) = delete;
  LzmaStream& operator=(const LzmaStream&) = delete;
  ~LzmaStream() { lzma_end(&stream_); }

  lzma_stream* Get() { return &stream_; }

 private:
  lzma_stream stream_ = LZMA_STREAM_INIT;
};

std::string ErrorText(lzma_ret code) {
  switch (code) {
    case LZMA_MEM_ERROR:
      return "Memory allocation failed";
    case LZMA_DATA_ERROR:
      return "File size limits exceeded";
    case LZMA_UNSUPPORTED_CHECK:
      return "Specified integrity check is not supported";
    case LZMA_OPTIONS_ERROR:
      return "Specified preset is not supported";
    default:
      return "Unknown error: " + std::to_string(code) + ", possibly a bug";
  }
}

void RequireOk(lzma_ret code) {
  if (code != LZMA_OK) throw CompressionException(ErrorText(code));
}

// Drives an initialised coder over the whole input until its stream ends.
std::vector<unsigned char> Run(lzma_stream* stream, const std::vector<unsigned char>& data, std::size_t max_size) {
  std::vector<unsigned char> result;
  std::array<std::uint8_t, kBufferSize> buffer{};
  std::size_t given = 0;
  while (true) {
    if (stream->avail_in == 0 && given < data.size()) {
      stream->next_in = data.data() + given;
      stream->avail_in = std::min(kBufferSize, data.size() - given);
      given += stream->avail_in;
    }
    stream->next_out = buffer.data();
    stream->avail_out = buffer.size();
    const lzma_ret code = lzma_code(stream, given == data.size() ? LZMA_FINISH : LZMA_RUN);
    const std::size_t made = buffer.size() - stream->avail_out;
    if (made > max_size - result.size()) throw DecompressedTooLargeException("Decompressed data is too large");
    result.insert(result.end(), buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(made));
    if (code == LZMA_STREAM_END) break;
    if (code == LZMA_BUF_ERROR) throw CompressionException("Compressed data ends too early");
    RequireOk(code);
  }
  if (stream->avail_in != 0 || given < data.size())
    throw CompressionException("Compressed data goes on behind its end");
  return result;
}

std::uint32_t DictionarySizeFor(std::size_t data_size, std::uint32_t preset_size) {
  if (data_size >= preset_size) return preset_size;
  return std::max<std::uint32_t>(LZMA_DICT_SIZE_MIN, std::bit_ceil(static_cast<std::uint32_t>(data_size)));
}

// liblzma allocates what the header names before it has seen a byte of data: a dictionary that is larger than all that
// may come out of it is refused unseen.
void RequireSaneDictionary(const std::vector<unsigned char>& data, std::size_t max_size) {
  constexpr std::size_t kHeader = 5;  // properties, then the size, little-endian
  if (data.size() < kHeader) return;
  std::uint64_t dictionary = 0;
  for (std::size_t i = kHeader - 1; i > 0; --i) dictionary = dictionary << 8U | data[i];
  // An honest encoder rounds up.
  constexpr std::uint64_t kLargest = std::uint64_t{1} << 32U;
  const std::uint64_t limit = std::bit_ceil(std::min<std::uint64_t>(max_size, kLargest));
  if (dictionary > std::max<std::uint64_t>(LZMA_DICT_SIZE_MIN, limit)) {
    throw CompressionException("The dictionary is larger than what may be decompressed");
  }
}

}  // namespace

std::vector<unsigned char> LzmaCompression::Compress(const std::vector<unsigned char>& data) const {
  LzmaStream stream;
  if (container_ == Container::Alone) {
    lzma_options_lzma options{};
    if (lzma_lzma_preset(&options, LZMA_PRESET_DEFAULT)) throw CompressionException(ErrorText(LZMA_OPTIONS_ERROR));
    options.dict_size = DictionarySizeFor(data.size(), options.dict_size);
    RequireOk(lzma_alone_encoder(stream.Get(), &options));
  } else {
    RequireOk(lzma_easy_encoder(stream.Get(), LZMA_PRESET_DEFAULT, LZMA_CHECK_CRC64));
  }
  return Run(stream.Get(), data, std::numeric_limits<std::size_t>::max());
}

std::vector<unsigned char> LzmaCompression::Decompress(const std::vector<unsigned char>& data) const {
  if (container_ == Container::Alone) RequireSaneDictionary(data, max_decompressed_size_);
  LzmaStream stream;
  RequireOk(container_ == Container::Alone ? lzma_alone_decoder(stream.Get(), kNoMemoryLimit)
                                           : lzma_stream_decoder(stream.Get(), kNoMemoryLimit, LZMA_CONCATENATED));
  return Run(stream.Get(), data, max_decompressed_size_);
}

}  // namespace zagent::common

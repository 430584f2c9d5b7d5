#pragma once

#include <cstddef>
#include <map>
#include <random>
#include <vector>

#include "common/src/http/interceptors/LzmaCompression.h"

namespace zagent::tools {

// Spool documents that were made and compressed beforehand, by the daemon's own compression: hosts of a fleet compress
// on processors of their own, and a thousand of them on this machine would leave little of it for what takes their
// uploads. For uploaders it is a compression that knows these documents already. Thread-safe but for Add.
class PreparedDocuments final : public common::Compression {
 public:
  using Bytes = std::vector<unsigned char>;

  // `count` further documents of at least `size` bytes (MakeSpoolDocument).
  void Add(std::size_t size, unsigned count, std::mt19937_64& random);
  // One of those of this size. Throws std::out_of_range when there are none.
  [[nodiscard]] const Bytes& OneOf(std::size_t size, std::mt19937_64& random) const;

  // Of a document that is not one of these, too: it is compressed then.
  [[nodiscard]] Bytes Compress(const Bytes& document) const override;
  [[nodiscard]] Bytes Decompress(const Bytes& data) const override { return lzma_.Decompress(data); }

 private:
  const common::LzmaCompression lzma_;
  std::map<Bytes, Bytes> compressed_;                         // by the document
  std::map<std::size_t, std::vector<const Bytes*>> by_size_;  // keys of the map above
};

}  // namespace zagent::tools

#include "tools/agent-swarm/PreparedDocuments.h"

#include "tools/agent-swarm/SpoolDocument.h"

namespace zagent::tools {

void PreparedDocuments::Add(std::size_t size, unsigned count, std::mt19937_64& random) {
  for (unsigned i = 0; i < count; ++i) {
    Bytes document = MakeSpoolDocument(size, random);
    Bytes compressed = lzma_.Compress(document);
    const auto [place, is_new] = compressed_.emplace(std::move(document), std::move(compressed));
    if (is_new) by_size_[size].push_back(&place->first);
  }
}

const PreparedDocuments::Bytes& PreparedDocuments::OneOf(std::size_t size, std::mt19937_64& random) const {
  const auto& documents = by_size_.at(size);
  return *documents[random() % documents.size()];
}

PreparedDocuments::Bytes PreparedDocuments::Compress(const Bytes& document) const {
  const auto found = compressed_.find(document);
  return found == compressed_.end() ? lzma_.Compress(document) : found->second;
}

}  // namespace zagent::tools

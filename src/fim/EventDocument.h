#pragma once

#include <optional>
#include <string>
#include <vector>

#include "src/edr/DigestPace.h"
#include "src/edr/Event.h"
#include "src/fim/ContentReader.h"

namespace zagent::fim::internal {

// What goes into a document besides the event's own answers.
struct EventDocumentParts {
  // Report ids of the matched rules, each once.
  std::vector<std::string> associated_rules;
  bool collect_hashes = false;
  // Members `fileContent` and `contentStatus`, when present.
  std::optional<FileContent> content;
  // Says whether a digest may be computed now. Null: always, and that of a baseline without a cache.
  edr::DigestPace* pace = nullptr;
};

// The JSON text of one reported event; docs/EVENTS.md tells every member.
//
// An event that cannot answer a question (its accessor throws or has nothing to say) loses that member only: a file
// that is gone gives a document with less in it, never no document. Texts that are not UTF-8 have U+FFFD in the place
// of each bad byte, so that no event can be hidden by a name; the bytes of such an `imagePath` follow in base64.
std::string BuildEventDocument(const edr::Event& event, const EventDocumentParts& parts);

}  // namespace zagent::fim::internal

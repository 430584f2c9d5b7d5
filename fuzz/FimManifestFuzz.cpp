// Feeds one text to both JSON doors of file integrity monitoring: the manifest parser, with every rule asked about an
// event whose path comes from the same text, and the spool file parser.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "common/src/util/Json.h"
#include "fuzz/SilentLog.h"
#include "src/fim/JsonDataFormatter.h"
#include "src/fim/Manifest.h"
#include "src/fim/UploadDocument.h"
#include "tests/fakes/FakeEvent.h"

namespace {

using zagent::fakes::FakeEvent;
using zagent::fim::Manifest;
namespace common = zagent::common;
namespace internal = zagent::fim::internal;

void AskRules(const Manifest& manifest, const std::string& text) {
  FakeEvent event(zagent::edr::EventType::Rename, "Rename", "/" + text.substr(0, 200));
  event.new_file = common::ImageInfo("/srv/watched/" + text.substr(text.size() / 2, 200));
  for (const auto& rule : manifest.GetRules()) {
    (void)rule->Match(event);
    (void)rule->MatchFilters(event);
    (void)internal::EventRule(*rule, "other", "/elsewhere").Match(event);
  }
}

void ParseManifest(const std::string& text) {
  rapidjson::Document document;
  common::util::ParseJson(document, text);
  if (document.HasParseError()) return;
  try {
    AskRules(Manifest(document), text);
  } catch (const zagent::fim::ManifestException&) {
    // A malformed manifest says so.
  }
}

void ParseSpoolFile(const std::string& text) {
  const common::Bytes file(text.begin(), text.end());
  try {
    const common::Bytes upload = internal::BuildUploadDocument(file, "2024-05-01T10:20:30Z");
    // What was accepted once is accepted again: an upload document is an object with events and a time.
    if (internal::BuildUploadDocument(upload, "2024-05-01T10:20:30Z") != upload) std::abort();
  } catch (const internal::JsonCopyException&) {
    // A corrupt file says so.
  }
  internal::JsonDataFormatter formatter;
  try {
    formatter.Append(file);
    // A spool file made of accepted documents can always be uploaded.
    internal::BuildUploadDocument(formatter.Finish(), "2024-05-01T10:20:30Z");
  } catch (const common::DataFormatterException&) {
    // A document that is no object says so.
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zagent::fuzz::SilenceLog();
  const std::string text(reinterpret_cast<const char*>(data), size);
  ParseManifest(text);
  ParseSpoolFile(text);
  return 0;
}

#include "src/fim/ManifestFile.h"

#include <sys/stat.h>

#include <string_view>

#include "common/src/storage/FileStorage.h"
#include "common/src/util/Json.h"

namespace zagent::fim {
namespace {

using Fault = ManifestFileException::Fault;

std::string PlaceAndText(const Fault& fault) {
  return "line " + std::to_string(fault.position.line) + ", column " + std::to_string(fault.position.column) + ": " +
         fault.text;
}

std::string ReadText(const std::string& path) {
  const std::string failed = "Failed to read manifest: " + path;
  struct stat info {};
  if (stat(path.c_str(), &info) == 0 && info.st_size > kMaxManifestBytes) {
    throw ManifestFileException(failed + ": it has more than " + std::to_string(kMaxManifestBytes) + " bytes", {});
  }
  common::FileStorage file(path);
  const std::unique_ptr<common::StorageResult> content = file.Read();
  if (content == nullptr || content->code != common::StorageCode::Success) throw ManifestFileException(failed, {});
  return {content->data.begin(), content->data.end()};
}

Manifest ParseManifest(const std::string& path, std::string_view text, const rapidjson::Value& document) {
  try {
    return Manifest(document);
  } catch (const ManifestException& error) {
    std::vector<Fault> faults;
    for (const ManifestMistake& mistake : error.Mistakes()) {
      faults.push_back({mistake.Text(), common::util::PositionOf(text, common::util::OffsetOf(text, mistake.place))});
    }
    const std::string more = faults.size() > 1 ? " (and " + std::to_string(faults.size() - 1) + " more)" : "";
    throw ManifestFileException("Failed to parse manifest " + path + ": " + PlaceAndText(faults.front()) + more,
                                faults);
  }
}

}  // namespace

ManifestFile ReadManifestFile(const std::string& path) {
  std::string text = ReadText(path);
  rapidjson::Document document;
  common::util::ParseJson(document, text);
  if (document.HasParseError()) {
    const Fault fault{rapidjson::GetParseError_En(document.GetParseError()),
                      common::util::PositionOf(text, document.GetErrorOffset())};
    throw ManifestFileException("Invalid manifest json format for: " + path + ": " + PlaceAndText(fault), {fault});
  }
  Manifest manifest = ParseManifest(path, text, document);
  return {std::move(manifest), std::move(text)};
}

}  // namespace zagent::fim

#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "common/src/util/Json.h"

namespace zagent::common {

// One element of a section's `manifests`. The type is the management side's and is passed on as it is.
struct ManifestEntry {
  std::string path;
  std::string type;
  bool operator==(const ManifestEntry&) const = default;
};

// Reads one section of the configuration file, in which every key is required: a key that is missing or of the wrong
// type answers nothing, and the section is not valid from then on.
class SectionReader {
 public:
  // `json` outlives the reader; it need not be an object.
  explicit SectionReader(const rapidjson::Value& json) : json_(json), valid_(json.IsObject()) {}

  std::uint32_t Uint(const char* key);
  bool Bool(const char* key);
  std::string Text(const char* key);
  // A text that is one component of a path.
  std::string FileName(const char* key);
  // An array of objects with the texts "manifest_path" and "manifest_type".
  std::vector<ManifestEntry> Manifests(const char* key);

  [[nodiscard]] bool IsValid() const { return valid_; }

 private:
  const rapidjson::Value& json_;
  bool valid_;
};

}  // namespace zagent::common

#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "common/src/util/JsonPlace.h"
#include "src/fim/Manifest.h"

namespace zagent::fim {

// Why a file is no manifest. Its text is one line for the log, with the first fault and its line and column.
class ManifestFileException : public std::runtime_error {
 public:
  struct Fault {
    std::string text;
    common::util::TextPosition position;
  };
  ManifestFileException(const std::string& line, std::vector<Fault> faults)
      : std::runtime_error(line), faults_(std::move(faults)) {}
  // In the order of the file; none when it could not be read.
  [[nodiscard]] const std::vector<Fault>& Faults() const { return faults_; }

 private:
  std::vector<Fault> faults_;
};

// A manifest as it was read.
struct ManifestFile {
  Manifest manifest;
  std::string text;
};

// Nobody writes manifests of this size; whoever names another file by mistake costs no memory.
inline constexpr std::int64_t kMaxManifestBytes = 64LL * 1024 * 1024;

// Reads a manifest and judges it by itself. Throws ManifestFileException.
ManifestFile ReadManifestFile(const std::string& path);

}  // namespace zagent::fim

#pragma once

#include <stdexcept>
#include <string>
#include <utility>

#include "common/src/util/JsonPlace.h"
#include "src/ioc/process/TtlProcessTree.h"
#include "src/ioc/rules/Manifest.h"

namespace zagent::ioc::internal {

// Why a file is no manifest. Its text is one line for the log, with the line and column of the mistake.
class ManifestFileException : public std::runtime_error {
 public:
  struct Fault {
    std::string text;  // empty when the file could not be read
    common::util::TextPosition position;
  };
  ManifestFileException(const std::string& line, Fault fault) : std::runtime_error(line), fault_(std::move(fault)) {}
  [[nodiscard]] const Fault& GetFault() const { return fault_; }

 private:
  Fault fault_;
};

// A manifest as it was read.
struct ManifestFile {
  Manifest manifest;
  std::string text;
};

// Nobody writes manifests of this size; whoever names another file by mistake costs no memory.
inline constexpr std::int64_t kMaxManifestBytes = 64LL * 1024 * 1024;

// Reads a manifest and judges it by itself. Throws ManifestFileException. `tree` outlives the rules.
ManifestFile ReadManifestFile(const std::string& path, const TtlProcessTree& tree);

}  // namespace zagent::ioc::internal

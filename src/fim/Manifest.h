#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "common/src/util/Json.h"
#include "src/fim/EventRule.h"
#include "src/fim/ManifestMistake.h"

namespace zagent::fim {

// Everything that is wrong in a manifest, at most one mistake a rule; its text is that of the first.
class ManifestException : public std::runtime_error {
 public:
  // `mistakes` is not empty.
  explicit ManifestException(std::vector<ManifestMistake> mistakes)
      : std::runtime_error(mistakes.front().Text()), mistakes_(std::move(mistakes)) {}
  [[nodiscard]] const std::vector<ManifestMistake>& Mistakes() const { return mistakes_; }

 private:
  std::vector<ManifestMistake> mistakes_;
};

// A FIM manifest: which paths to watch and what to report of them. docs/MANIFESTS.md tells the format.
class Manifest {
 public:
  using Rules = std::vector<std::shared_ptr<const internal::EventRule>>;

  // Throws ManifestException when anything in the document is malformed: a manifest holds as a whole or not at all.
  // A policy version other than "1.0" is logged and gives a manifest without rules.
  explicit Manifest(const rapidjson::Value& document);

  [[nodiscard]] const std::string& GetPolicyVersion() const { return policy_version_; }
  // Whether it is of a version that gives rules.
  [[nodiscard]] bool HasKnownVersion() const { return policy_version_ == kKnownVersion; }
  [[nodiscard]] bool CollectsHashes() const { return collect_hashes_; }
  [[nodiscard]] const Rules& GetRules() const { return rules_; }

 private:
  static constexpr const char* kKnownVersion = "1.0";

  void ParseRules(const rapidjson::Value& rules);

  std::string policy_version_;
  bool collect_hashes_ = false;
  Rules rules_;
};

}  // namespace zagent::fim

#pragma once

#include <map>
#include <ostream>
#include <string>

#include "src/audit/rules/Coverage.h"
#include "src/fim/ManifestFile.h"
#include "src/fim/RuleTableBuilder.h"

namespace zagent::manifest_check {

// Judges manifests as the daemon would, with the same parser, and prints
//
//   etc.json:12:9: Invalid Notify Flag (rule r1, key notify[1])       what is wrong, one line each
//   etc.json: warning: Cannot resolve symlink /etc/nowhere            what works, but may not be meant
//   etc.json: 2 rules, with digests                                   a good manifest, and
//     r1: -a always,exit -F dir=/etc -F perm=wa -F key=r1             what the kernel will be asked to watch
//
// Links are followed as they are on this machine. The kernel is not asked: nothing is read but the files, and nothing
// changes. All files of one check are taken to be in force together: their rules' ids must differ, with those that
// rules on links get beside their own.
class ManifestCheck {
 public:
  // `coverage`: what the daemon is configured for; it decides only what the kernel will be asked to watch.
  explicit ManifestCheck(std::ostream& out, audit::internal::Coverage coverage = {}) : out_(out), coverage_(coverage) {}

  // True for a file that the daemon would take, with every rule of it.
  bool Check(const std::string& path);

 private:
  struct KnownId {
    std::string id;
    std::string rule_id;  // of the manifest
    int rule = 0;         // number of the rule, over all files
  };

  bool CheckRules(const std::string& path, const fim::ManifestFile& file);
  bool CheckRule(const std::string& path, const fim::ManifestFile& file, std::size_t position);
  bool CheckId(const std::string& path, const common::util::TextPosition& place, const KnownId& own);
  void WarnOfUnknownKeys(const std::string& path, const fim::ManifestFile& file);
  void WarnIfMissing(const std::string& path, const edr::EventRule& rule);
  void PrintFault(const std::string& path, const common::util::TextPosition& place, const std::string& text);
  void PrintWarning(const std::string& path, const std::string& text);

  std::ostream& out_;
  const audit::internal::Coverage coverage_;
  std::map<std::string, KnownId> ids_;  // by the part of an id that the kernel's rules are told apart by
  int rules_ = 0;
  std::string kernel_rules_;  // of the file at hand, a line each
};

}  // namespace zagent::manifest_check

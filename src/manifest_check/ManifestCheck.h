#pragma once

#include <map>
#include <ostream>
#include <string>

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
// changes. All files of one check are taken to be in force together: their rules' ids must differ.
class ManifestCheck {
 public:
  explicit ManifestCheck(std::ostream& out) : out_(out) {}

  // True for a file that the daemon would take, with every rule of it.
  bool Check(const std::string& path);

 private:
  bool CheckRules(const std::string& path, const fim::ManifestFile& file);
  bool CheckRule(const std::string& path, const fim::ManifestFile& file, std::size_t position);
  bool CheckId(const std::string& path, const fim::internal::TextPosition& place, const std::string& id);
  void WarnOfUnknownKeys(const std::string& path, const fim::ManifestFile& file);
  void WarnIfMissing(const std::string& path, const edr::EventRule& rule);
  void PrintFault(const std::string& path, const fim::internal::TextPosition& place, const std::string& text);
  void PrintWarning(const std::string& path, const std::string& text);

  std::ostream& out_;
  std::map<std::string, std::string> ids_;  // the part of an id that the kernel's rules are told apart by -> the id
  std::string kernel_rules_;                // of the file at hand, a line each
};

}  // namespace zagent::manifest_check

#pragma once

#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "src/audit/rules/Coverage.h"
#include "src/fim/ManifestFile.h"
#include "src/fim/RuleTableBuilder.h"
#include "src/ioc/process/TtlProcessTree.h"
#include "src/ioc/rules/ManifestFile.h"

namespace zagent::manifest_check {

// Judges manifests as the daemon would, with the same parser, and prints
//
//   etc.json:12:9: Invalid Notify Flag (rule r1, key notify[1])       what is wrong, one line each
//   etc.json:9:30: warning: Unknown key, which is passed over (rule r1, key notfy)
//   etc.json: warning: Cannot resolve symlink /etc/nowhere            what works, but may not be meant
//   ioc.json:9:20: Invalid setting json for Execution tag             what the engine of tags would log, likewise
//   etc.json: 2 rules, with digests                                   a good manifest, and
//     r1: -a always,exit -F dir=/etc -F perm=wa -F key=r1             what the kernel will be asked to watch
//
// A document with the member "data" is taken for a manifest of file integrity monitoring, any other with a member of
// theirs for one of indicators of compromise.
//
// Links are followed as they are on this machine. The kernel is not asked: nothing is read but the files, and nothing
// changes. All files of one check are taken to be in force together: their rules' ids must differ, with those that
// rules on links get beside their own.
class ManifestCheck {
 public:
  // `coverage`: what the daemon is configured for; it decides only what the kernel will be asked to watch.
  explicit ManifestCheck(std::ostream& out, audit::internal::Coverage coverage = {}) : out_(out), coverage_(coverage) {}

  // True for a file that the daemon would take, with every rule of it, and its settings of tags.
  bool Check(const std::string& path);
  // Behind all files: warns of what they lack together.
  void Finish();

 private:
  struct KnownId {
    std::string id;
    std::string rule_id;  // of the manifest
    int rule = 0;         // number of the rule, over all files
  };

  using Rules = std::vector<std::shared_ptr<const edr::EventRule>>;
  // A rule of a manifest, and what becomes of it on this machine.
  struct Derived {
    std::string rule_id;
    Rules rules;
    common::util::TextPosition place;
    common::util::TextPosition place_of_id;
  };

  bool CheckFim(const std::string& path);
  bool CheckIoc(const std::string& path);
  bool CheckFimRules(const std::string& path, const fim::ManifestFile& file);
  bool CheckIocRules(const std::string& path, const ioc::internal::ManifestFile& file);
  bool CheckRule(const std::string& path, const Derived& rule);
  // False, with a line, for a rule whose path nothing can have.
  bool CheckPath(const std::string& path, const edr::EventRule& rule, const common::util::TextPosition& place);
  void PrintRules(const std::string& path, std::size_t count, const std::string& more);
  bool CheckId(const std::string& path, const common::util::TextPosition& place, const KnownId& own);
  void WarnOfDoubts(const std::string& path, const fim::ManifestFile& file);
  void WarnOfUnreadParts(const std::string& path, const std::string& text);
  void NoteActors(const std::string& path, const Rules& rules);
  bool CheckTags(const std::string& path, const std::string& text);
  bool CheckTagSettings(const std::string& path, const common::util::TextPosition& place,
                        const rapidjson::Value& settings);
  void WarnIfMissing(const std::string& path, const edr::EventRule& rule);
  void PrintFault(const std::string& path, const common::util::TextPosition& place, const std::string& text);
  void PrintWarning(const std::string& path, const std::string& text);

  std::ostream& out_;
  const audit::internal::Coverage coverage_;
  // Nobody is in it: rules and tags are parsed, and never asked about an event.
  ioc::TtlProcessTree tree_{nullptr, {}, common::util::Clock::Real()};
  std::map<std::string, KnownId> ids_;  // by the part of an id that the kernel's rules are told apart by
  int rules_ = 0;
  bool knows_starts_ = false;                // a rule of some file has the kernel tell of starts of processes
  std::vector<std::string> without_starts_;  // files with other rules alone
  std::string kernel_rules_;                 // of the file at hand, a line each
};

}  // namespace zagent::manifest_check

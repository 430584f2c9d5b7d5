#pragma once

#include <sys/types.h>

#include <atomic>
#include <memory>
#include <string>

#include "src/edr/Event.h"
#include "src/edr/EventRule.h"
#include "src/edr/EventRuleEngine.h"

namespace zagent::edr::host {

// A deed that the kernel must tell of when audit works: a file of the program's own, a rule on it under a tag of its
// own, which no manifest takes away and which comes back with all others, and a child that opens the file for writing.
// The child is too short-lived to be excluded, and what it does concerns no component: the event counts for having
// come in.
//
// The constructor, Give, Reap and the destructor belong to one thread; IsSign may be called from any other.
class LifeSign {
 public:
  static constexpr const char* kTag = "HOST";
  static constexpr const char* kRuleId = "ostrel_proof_of_life";
  static constexpr const char* kFileName = "edr-proof-of-life";

  // Makes the file in `directory` and adds the rule. A failure is logged, and tried again by Give. `engine` outlives
  // this object. `open` is what the child does, between fork and _exit: the descriptor, or -1.
  using Open = int (*)(const char* path);
  LifeSign(const std::string& directory, edr::EventRuleEngine& engine, Open open = OpenForWriting);
  LifeSign(const LifeSign&) = delete;
  LifeSign& operator=(const LifeSign&) = delete;
  // Takes the rule away, and ends a child that hangs; the file stays.
  ~LifeSign();

  // Does the deed, without waiting for it to be done. False when there is no file or no rule on it, no child is to be
  // had, or the last one has not come to its end.
  bool Give();
  // Lets go of a child that has come to its end, without waiting for it; made to be called about once a second.
  void Reap() { (void)HasChild(); }
  // Whether an event tells of the file, whoever touched it.
  [[nodiscard]] bool IsSign(const edr::Event& event) const;

 private:
  static int OpenForWriting(const char* path);
  [[nodiscard]] bool MakeFile() const;
  void AddRule();
  bool HasChild();

  const std::string path_;
  edr::EventRuleEngine& engine_;
  const std::shared_ptr<const edr::EventRule> rule_;
  const Open open_in_child_;
  std::atomic<bool> has_rule_{false};
  pid_t child_ = 0;  // 0: none
};

}  // namespace zagent::edr::host

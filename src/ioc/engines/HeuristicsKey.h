#pragma once

#include <cstddef>
#include <string>

#include "src/edr/Event.h"
#include "src/ioc/engines/Hash.h"
#include "src/ioc/process/ProcessInfo.h"
#include "src/ioc/process/TtlProcessTree.h"

namespace zagent::ioc::internal {

// What makes two events of one kind: the same is done, by the same chain of processes from the actor up to the first
// one, to the same thing. Files of one folder with one owner, group and permission are the same thing.
//
// Bounded whatever an attacker calls his files and programs and however deeply he nests them: in the place of a longer
// text stands its SHA-256, which is taken in pieces.
//
// For one thread, which makes a key for each event and keeps the memory for the next one.
class HeuristicsKey {
 public:
  static constexpr std::size_t kMaxProcessPart = 512;  // bytes
  static constexpr std::size_t kMaxText = 2'048;       // bytes

  // Of the text, in hexadecimal; valid until the next call. Throws what the tree throws for a process that it does not
  // know.
  const std::string& Of(const edr::Event& event, const TtlProcessTree& tree);

 private:
  void Shorten();

  std::string text_;  // or what of it has come since it was too long
  bool is_long_ = false;
  Sha256Hash digest_;  // of what has come before
  std::string key_;
};

// The part of the key that is the same for all events of the process. Not longer than kMaxProcessPart.
[[nodiscard]] std::string HeuristicsPartOf(const ProcessInfo& process);

}  // namespace zagent::ioc::internal

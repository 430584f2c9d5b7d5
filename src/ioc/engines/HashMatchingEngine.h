#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "common/src/util/DigestCache.h"
#include "src/ioc/engines/Engine.h"
#include "src/ioc/process/TtlProcessTree.h"

namespace zagent::ioc::internal {

// Judges a process by its program: one that the manifest knows, whose content could be hashed, is clean, and every
// other one unknown. Who is started by somebody worse than clean is no better. The word of the verdict stays with the
// process as the tag "HashMatchingVerdict".
//
// A known program is hashed at its first start, and again at the first one after an event of its file. The digests live
// as long as the engine.
class HashMatchingEngine final : public Engine {
 public:
  static constexpr std::int64_t kMaxFileSize = std::int64_t{1024} * 1024 * 1024;  // bytes; a larger file has no digest

  // `tree` and `digests`, the cache of those who want digests of files, outlive the engine.
  HashMatchingEngine(TtlProcessTree& tree, const std::vector<std::string>& known_paths,
                     common::util::DigestCache& digests);

  // Takes the place of all paths from before, whose digests are forgotten. Any thread.
  void SetKnownProcessPaths(const std::vector<std::string>& paths);

  // Of the newest event of a process, which is in the tree. Clean, CleanWithoutHash, when the program had to be hashed
  // first, Unknown, Suspicious, when it could not be, or what the process or its parent had before. Throws what the
  // tree throws for a process, or the parent of one that starts, that it does not know.
  Verdict Process(const edr::Event& event) override;

 private:
  struct PathHash : std::hash<std::string_view> {
    using is_transparent = void;
  };
  // Digests in hexadecimal by path; empty until the file has been hashed.
  using KnownPaths = std::unordered_map<std::string, std::string, PathHash, std::equal_to<>>;

  [[nodiscard]] Verdict JudgeStart(ProcessInfo& process);
  [[nodiscard]] Verdict JudgeProgram(const ProcessInfo& process);
  [[nodiscard]] Verdict JudgeNewProgram(const ProcessInfo& process);
  [[nodiscard]] Verdict JudgeLater(const ProcessInfo& process);
  void ForgetDigests(const edr::Event& event);

  TtlProcessTree& tree_;
  common::util::DigestCache& digests_;
  std::mutex mutex_;
  KnownPaths known_paths_;
};

}  // namespace zagent::ioc::internal

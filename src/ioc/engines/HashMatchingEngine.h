#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "common/src/util/DigestCache.h"
#include "src/edr/TextHash.h"
#include "src/ioc/engines/Engine.h"
#include "src/ioc/process/TtlProcessTree.h"

namespace zagent::ioc::internal {

// Judges a process by its program: one that the manifest knows, whose content could be hashed, is clean, and every
// other one unknown. Who is started by somebody worse than clean is no better. The word of the verdict stays with the
// process as the tag "HashMatchingVerdict".
//
// A known program is hashed at its first start, and again at the first one after an event of its file. The digests live
// as long as the engine.
//
// It is the file that has the path here, on this disk: a process that lives in a mount namespace or a chroot of its own
// may call anything by that name. Where the file of a process is known, by device and inode, it has to be that one,
// unless another one has come to the path since the process started; a process of which nobody could tell more than the
// path is believed until a look has proved it another (edr::Event::IsImageDisguised).
class HashMatchingEngine final : public Engine {
 public:
  static constexpr std::int64_t kMaxFileSize = std::int64_t{1024} * 1024 * 1024;  // bytes; a larger file has no digest

  // `tree` and `digests`, the cache of those who want digests of files, outlive the engine.
  HashMatchingEngine(TtlProcessTree& tree, const std::vector<std::string>& known_paths,
                     common::util::DigestCache& digests);

  // Takes the place of all paths from before, whose digests are forgotten. Any thread.
  void SetKnownProcessPaths(const std::vector<std::string>& paths);

  // Of the newest event of a process, which is in the tree. Clean, CleanWithoutHash, when the program had to be hashed
  // first, Unknown, Suspicious, when it could not be or runs another file under that name, or what the process or its
  // parent had before. Throws what the tree throws for a process, or the parent of one that starts, that it does not
  // know.
  Verdict Process(const edr::Event& event) override;

 private:
  // Digests in hexadecimal by path; empty until the file has been hashed.
  using KnownPaths = std::unordered_map<std::string, std::string, edr::TextHash, std::equal_to<>>;

  // What is known of a path.
  enum class Known : std::uint8_t { No, Yes, WithDigest };

  [[nodiscard]] Known Find(const std::string& path);
  [[nodiscard]] Verdict JudgeStart(const edr::Event& start, const ProcessInfo& process);
  [[nodiscard]] Verdict JudgeProgram(const edr::Event& start, const ProcessInfo& process);
  [[nodiscard]] Verdict JudgeNewProgram(const ProcessInfo& process);
  [[nodiscard]] Verdict JudgeLater(const edr::Event& event, ProcessInfo& process);
  void ForgetDigests(const edr::Event& event);

  TtlProcessTree& tree_;
  common::util::DigestCache& digests_;
  std::mutex mutex_;
  KnownPaths known_paths_;
  std::size_t digests_kept_ = 0;  // in known_paths_
};

}  // namespace zagent::ioc::internal

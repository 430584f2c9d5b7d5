#include "src/ioc/engines/HashMatchingEngine.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <memory>
#include <optional>
#include <utility>

#include "common/src/util/DeviceText.h"
#include "common/src/util/Digest.h"
#include "common/src/util/HashGenerator.h"
#include "common/src/util/Log.h"
#include "src/edr/LexicalPath.h"
#include "src/ioc/config/LogPrefix.h"
#include "src/ioc/process/ProcessTags.h"
#include "src/ioc/rules/RulePath.h"

namespace zagent::ioc::internal {
namespace {

constexpr std::int32_t kInit = 1;

const std::string& Tag() {
  static const std::string kTag = process_tag::kHashMatchingVerdict;
  return kTag;
}

std::optional<Verdict> FindVerdict(const ProcessInfo& process) {
  const std::optional<std::string> word = process.FindTag(Tag());
  if (!word) return std::nullopt;
  return VerdictFromWord(*word);
}

void Keep(ProcessInfo& process, Verdict verdict) {
  ZLOG_INFO("Adding verdict '" << VerdictWord(verdict) << "' to process " << process.GetPid() << " ("
                               << process.GetImage()->GetPath() << ")");
  process.AddTag(Tag(), VerdictWord(verdict));
}

// Whether nothing proves that the process runs another file than the one that has its program's path here. Of a file
// that has come to the path since the process started nothing can be said, as after an upgrade; a subvolume of btrfs or
// an overlay has one device for stat and another one in records.
bool MayBeFileOfItsName(const ProcessInfo& process) {
  const common::ImageInfo& image = *process.GetImage();
  struct stat named {};
  if (image.GetDevice().empty() || stat(image.GetPath().c_str(), &named) != 0) return true;
  const bool is_of_no_disk = major(named.st_dev) == 0;
  if (named.st_ino == image.GetInode() &&
      (is_of_no_disk || common::util::DeviceText(named.st_dev) == image.GetDevice())) {
    return true;
  }
  constexpr std::int64_t kNanoseconds = 1'000'000'000;
  return named.st_ctim.tv_sec * kNanoseconds + named.st_ctim.tv_nsec > process.GetCreationTime();
}

Verdict Distrust(const ProcessInfo& process) {
  ZLOG_WARNING("Failed to generate hash for known process " << process.GetImage()->GetPath());
  return Verdict::Suspicious;
}

}  // namespace

HashMatchingEngine::HashMatchingEngine(TtlProcessTree& tree, const std::vector<std::string>& known_paths,
                                       common::util::DigestCache& digests)
    : tree_(tree), digests_(digests) {
  SetKnownProcessPaths(known_paths);
}

void HashMatchingEngine::SetKnownProcessPaths(const std::vector<std::string>& paths) {
  KnownPaths known;
  for (const std::string& path : paths) {
    // The program of some processes has no name that anybody knows.
    if (!path.empty()) known.emplace(edr::LexicallyNormal(path), "");
  }
  const std::lock_guard lock(mutex_);
  known_paths_ = std::move(known);
  digests_kept_ = 0;
}

Verdict HashMatchingEngine::Process(const edr::Event& event) {
  const std::shared_ptr<ProcessInfo> process = tree_.Get(event.GetActorProcessId());
  if (event.GetType() != edr::EventType::ProcessStart) {
    ForgetDigests(event);
    return JudgeLater(event, *process);
  }
  const Verdict verdict = JudgeStart(event, *process);
  Keep(*process, verdict);
  return verdict;
}

Verdict HashMatchingEngine::JudgeStart(const edr::Event& start, const ProcessInfo& process) {
  if (process.GetPid() != kInit) {
    const std::int32_t ppid = process.GetParent();
    const std::optional<Verdict> inherited = FindVerdict(*tree_.Get(ppid));
    if (inherited > Verdict::CleanWithoutHash) {
      ZLOG_DEBUG("Adding verdict: " << VerdictWord(*inherited) << " from parent process: " << ppid);
      return *inherited;
    }
  }
  const Verdict verdict = JudgeProgram(start, process);
  const std::optional<Verdict> existing = FindVerdict(process);
  if (existing > verdict) {
    ZLOG_DEBUG("Adding verdict: " << VerdictWord(*existing) << " from existing process");
    return *existing;
  }
  return verdict;
}

HashMatchingEngine::Known HashMatchingEngine::Find(const std::string& path) {
  const std::lock_guard lock(mutex_);
  const auto known = known_paths_.find(path);
  if (known == known_paths_.end()) return Known::No;
  return known->second.empty() ? Known::Yes : Known::WithDigest;
}

Verdict HashMatchingEngine::JudgeProgram(const edr::Event& start, const ProcessInfo& process) {
  const std::string& path = process.GetImage()->GetPath();
  const Known known = Find(path);
  if (known == Known::No) {
    ZLOG_DEBUG("Adding verdict: " << VerdictWord(Verdict::Unknown) << " for unknown process");
    return Verdict::Unknown;
  }
  if (start.IsImageDisguised() || !MayBeFileOfItsName(process)) return Distrust(process);
  if (known == Known::Yes) return JudgeNewProgram(process);
  ZLOG_DEBUG("Adding verdict: " << VerdictWord(Verdict::Clean) << ". Hash found for process: " << process.GetPid()
                                << " (" << path << ")");
  return Verdict::Clean;
}

// Without the lock: nobody waits for the disk.
Verdict HashMatchingEngine::JudgeNewProgram(const ProcessInfo& process) {
  const std::string& path = process.GetImage()->GetPath();
  std::string digest;
  try {
    const common::util::HashGenerator generator(path, "", 0, common::util::HashKind::Sha256, &digests_, kMaxFileSize);
    const std::vector<unsigned char>& bytes = generator.GetSha256();
    digest = common::util::ToHex({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
  } catch (const common::util::HashGeneratorException& error) {
    ZLOG_DEBUG(error.what());
    return Distrust(process);
  }
  {
    const std::lock_guard lock(mutex_);
    const auto known = known_paths_.find(path);
    if (known != known_paths_.end()) {
      if (known->second.empty()) ++digests_kept_;
      known->second = std::move(digest);
    }
  }
  ZLOG_DEBUG("Adding verdict: " << VerdictWord(Verdict::CleanWithoutHash)
                                << ". Hash not found for process: " << process.GetPid() << " (" << path << ")");
  return Verdict::CleanWithoutHash;
}

// What a look has proved since weighs more than what the start was believed.
Verdict HashMatchingEngine::JudgeLater(const edr::Event& event, ProcessInfo& process) {
  if (const std::optional<Verdict> verdict = FindVerdict(process)) {
    if (!event.IsImageDisguised() || *verdict > Verdict::CleanWithoutHash) return *verdict;
    Keep(process, Verdict::Suspicious);
    return Verdict::Suspicious;
  }
  const bool is_known =
      Find(process.GetImage()->GetPath()) != Known::No && !event.IsImageDisguised() && MayBeFileOfItsName(process);
  return is_known ? Verdict::Clean : Verdict::Unknown;
}

void HashMatchingEngine::ForgetDigests(const edr::Event& event) {
  if (event.GetObjectType() != edr::ObjectType::File) return;
  const bool is_rename = event.GetType() == edr::EventType::Rename;
  const std::lock_guard lock(mutex_);
  if (digests_kept_ == 0) return;
  // What a file is renamed to has changed as well.
  for (const common::ImageInfo* file : {event.GetFile(), is_rename ? event.GetNewFile() : nullptr}) {
    const auto known = known_paths_.find(NormalPath(file).Get());
    if (known == known_paths_.end() || known->second.empty()) continue;
    known->second.clear();
    --digests_kept_;
  }
}

}  // namespace zagent::ioc::internal

// What a FileEvent answers about its file after it was built; FileEvent.cpp builds it.
#include <fcntl.h>
#include <sys/stat.h>

#include <utility>

#include "common/src/storage/FileOperations.h"
#include "common/src/util/HashGenerator.h"
#include "common/src/util/Log.h"
#include "common/src/util/UniqueFd.h"
#include "src/audit/events/FileEvent.h"
#include "src/edr/DigestPace.h"
#include "src/edr/process/StatHelper.h"

namespace zagent::audit::internal {
namespace {

using common::util::HashGenerator;

constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;

// Empty when there is none: each digest stands for itself.
std::vector<unsigned char> DigestOrNothing(const HashGenerator& generator,
                                           const std::vector<unsigned char>& (HashGenerator::*digest)() const) {
  try {
    return (generator.*digest)();
  } catch (const common::util::HashGeneratorException& error) {
    ZLOG_DEBUG(error.what());
    return {};
  }
}

}  // namespace

edr::ObjectType FileEvent::GetObjectType() const {
  if (!state_) return object_type_;
  return S_ISDIR(state_->mode) ? edr::ObjectType::Directory : edr::ObjectType::File;
}

bool FileEvent::IsSymlink() const {
  return state_ ? S_ISLNK(state_->mode) : is_symlink_;
}

std::int64_t FileEvent::GetFileSize() const {
  return state_ ? state_->file.size : -1;
}

std::optional<common::util::FileState> FileEvent::GetFileState() const {
  return state_ ? std::optional(state_->file) : std::nullopt;
}

std::int64_t FileEvent::GetFileAccessTime() const {
  return state_ ? state_->access_time * kNanosecondsPerSecond : GetTimestamp();
}

std::int64_t FileEvent::GetFileModificationTime() const {
  return state_ ? state_->modification_time * kNanosecondsPerSecond : GetTimestamp();
}

std::int64_t FileEvent::GetFileChangeTime() const {
  return state_ ? state_->file.changed_s * kNanosecondsPerSecond : GetTimestamp();
}

edr::FileType FileEvent::GetFileType() const {
  if (!state_) {
    ZLOG_TRACE("File stat information is not available");
    return edr::FileType::Unknown;
  }
  switch (state_->mode & S_IFMT) {
    case S_IFREG:
      return edr::FileType::Regular;
    case S_IFDIR:
      return edr::FileType::Directory;
    case S_IFLNK:
      return edr::FileType::SymbolicLink;
    default:
      throw edr::EventException("Unsupported file type for " + GetAction() + " event");
  }
}

const std::string& FileEvent::GetFileTypeDesc() const {
  std::string& description = on_demand_.Get().type_description;
  if (!description.empty()) return description;
  description = IdentifyType().value_or("");
  if (description.empty()) ZLOG_DEBUG("Failed to find type description for " << file_->GetPath());
  return description;
}

// A regular file that rests is identified once however many events ask: libmagic reads a quarter of a mebibyte of it.
std::optional<std::string> FileEvent::IdentifyType() const {
  if (!context_ || !context_->lib_magic || is_gone_) return std::nullopt;
  const std::string& path = file_->GetPath();
  common::util::DigestCache* const cache = context_->digests.get();
  struct stat before {};
  // libmagic would call each file that went while its event rested an error.
  if (lstat(path.c_str(), &before) != 0) return std::nullopt;
  if (cache == nullptr || !S_ISREG(before.st_mode)) return context_->lib_magic->Identify(path);
  if (std::string known = cache->FindType(before); !known.empty()) return known;
  const bool settled = cache->IsSettled(before);
  std::optional<std::string> type = context_->lib_magic->Identify(path);
  struct stat afterwards {};
  const auto is_same = [&] { return common::util::FileState(before) == common::util::FileState(afterwards); };
  if (type && settled && lstat(path.c_str(), &afterwards) == 0 && is_same()) cache->KeepType(before, *type);
  return type;
}

const std::vector<unsigned char>& FileEvent::GetFileContentHash(edr::ContentHash kind) const {
  struct Digest {
    const char* name;
    std::vector<unsigned char> Digests::*bytes;
  };
  static constexpr Digest kDigests[] = {{"MD5", &Digests::md5}, {"sha1", &Digests::sha1}, {"sha256", &Digests::sha256}};
  const auto index = static_cast<unsigned>(kind);
  if (index >= std::size(kDigests)) {
    throw edr::EventException("Unsupported type of content hash requested: " + std::to_string(index));
  }
  OnDemand& known = on_demand_.Get();
  if (!std::exchange(known.digests_tried, true)) known.digests = GenerateDigests();
  const std::vector<unsigned char>& digest = known.digests.*kDigests[index].bytes;
  if (digest.empty()) ZLOG_DEBUG("Failed to generate " << kDigests[index].name << " for " << file_->GetPath());
  return digest;
}

FileEvent::Digests FileEvent::GenerateDigests() const {
  Digests digests;
  if (is_gone_) return digests;
  // Whoever asks has looked at the size before; the file may have grown since.
  try {
    const HashGenerator generator(file_->GetPath(), file_->GetDevice(), file_->GetInode(), common::util::HashKind::All,
                                  context_ ? context_->digests.get() : nullptr, edr::DigestPace::kMaxSize);
    digests.md5 = DigestOrNothing(generator, &HashGenerator::GetMd5);
    digests.sha1 = DigestOrNothing(generator, &HashGenerator::GetSha1);
    digests.sha256 = DigestOrNothing(generator, &HashGenerator::GetSha256);
  } catch (const common::util::HashGeneratorException& error) {
    ZLOG_DEBUG(error.what());
  }
  return digests;
}

const std::vector<unsigned char>& FileEvent::GetFileContent() const {
  std::vector<unsigned char>& content = on_demand_.Get().content;
  if (!content.empty()) return content;
  if (is_gone_) return content;
  const std::string& path = file_->GetPath();
  // The file is held against the event before a byte of it is read; a FIFO in its place must not block.
  const common::util::UniqueFd fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  struct stat opened {};
  if (!fd || fstat(fd.Get(), &opened) != 0) {
    ZLOG_DEBUG("Failed to read contents of file " << path);
    return content;
  }
  if (!IsFile(opened)) {
    ZLOG_DEBUG("The file at " << path << " has been replaced");
    return content;
  }
  if (!S_ISREG(opened.st_mode)) {
    ZLOG_DEBUG("Failed to read contents of file " << path << ": no regular file");
    return content;
  }
  const auto result = common::ReadFileDescriptor(path, opened, fd.Get(), static_cast<std::size_t>(opened.st_size));
  if (result->code != common::StorageCode::Success) {
    ZLOG_DEBUG("Failed to read contents of file " << path);
    return content;
  }
  content = std::move(result->data);
  ZLOG_DEBUG("Reading file content from " << path << " (stat: " << opened.st_size
                                          << " bytes. Content: " << content.size() << " bytes)");
  return content;
}

std::uint64_t FileEvent::NewestPiece() const {
  return Services().looks ? Services().looks->Piece() : 0;
}

// What is kept counts for the very file alone: where something else was seen, the disk is asked again.
struct stat FileEvent::LookAgain() const {
  DiskLooks* const looks = Services().looks.get();
  if (looks != nullptr) {
    const struct stat* const seen = looks->rested.Find(file_->GetPath(), piece_);
    if (seen != nullptr && common::IsOf(*seen, *file_)) return *seen;
  }
  const auto beginning = looks != nullptr ? looks->rested.Begin(looks->Piece()) : RestedLooks::Beginning{};
  const std::unique_ptr<struct stat> result = common::StatImage(*file_);
  if (!result) throw edr::EventException(DiffersText());
  if (looks != nullptr) looks->rested.Keep(file_->GetPath(), beginning, *result);
  return *result;
}

void FileEvent::Refresh() {
  on_demand_.Reset();
  try {
    state_.emplace(LookAgain());
  } catch (const std::runtime_error& error) {
    if (!context_ || !context_->extended_coverage) throw;
    // What happened is worth telling without a file to show for it.
    ZLOG_DEBUG(error.what());
    state_.reset();
    is_gone_ = true;
  }
}

}  // namespace zagent::audit::internal

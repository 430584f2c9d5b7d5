#include "src/audit/events/RunningEvent.h"

#include <sys/stat.h>

#include <algorithm>
#include <charconv>
#include <optional>
#include <utility>

#include "common/src/util/DeviceText.h"
#include "common/src/util/FileAttributes.h"
#include "src/audit/events/PathResolution.h"
#include "src/edr/process/StatHelper.h"

namespace zagent::audit::internal {
namespace {

using edr::RecordField;

constexpr std::uint32_t kExecve = 59;
constexpr std::uint32_t kExecveAt = 322;  // asked for only where coverage is extended
constexpr RecordKinds kRecords =
    KindsOf(record_type::kSyscall, record_type::kCwd, record_type::kExecve, record_type::kPath);

}  // namespace

RunningEvent::RunningEvent(RecordSource& source, std::shared_ptr<const FileContext> context)
    : context_(std::move(context)) {
  Feed(source, kRecords);
}

std::unique_ptr<edr::Event> RunningEvent::Clone() const {
  return std::unique_ptr<edr::Event>(new RunningEvent(*this));
}

void RunningEvent::ParseRecord(int type, const edr::RecordFields& fields) {
  if (type == record_type::kCwd) {
    if (has_cwd_) throw edr::EventException("Too many CWD records in Running event");
    has_cwd_ = true;
    cwd_ = fields.Find(RecordField::Cwd);
  } else if (type == record_type::kExecve) {
    ParseArguments(fields);
  } else if (type == record_type::kPath) {
    PathRecord record(fields, cwd_, "");
    record.path = WithCaller(std::move(record.path), GetActorProcessId());
    records_.push_back(std::move(record));
  } else {
    SyscallEvent::ParseRecord(type, fields);
  }
}

// A long list of arguments comes in several records, of which only the first tells their number.
void RunningEvent::ParseArguments(const edr::RecordFields& fields) {
  if (fields.Has(RecordField::Argc)) {
    const std::string_view text = fields.Find(RecordField::Argc);
    argument_count_ = 0;
    std::from_chars(text.data(), text.data() + text.size(), argument_count_);
    if (arguments_.size() > argument_count_) arguments_.clear();
  }
  constexpr std::size_t kKept = edr::RecordFields::kMaxArguments;
  const std::size_t end = std::min(argument_count_, kKept);
  // Records that repeat each other must not hold more than one list.
  for (std::size_t index = 0; index < end && arguments_.size() < kKept; ++index) {
    const auto argument = fields.Argument(index);
    if (argument && !argument->empty()) arguments_.emplace_back(*argument);
  }
}

void RunningEvent::Validate() {
  SyscallEvent::Validate();
  if (Syscall() != kExecve && Syscall() != kExecveAt) {
    throw edr::EventException("Invalid syscall for Running event: " + std::to_string(Syscall()));
  }
  if (records_.empty()) throw edr::EventException("Missing or invalid path for Running event");
  SetImages();
  records_ = {};
  ConfirmImage();
}

MountTable* RunningEvent::Mounts() const {
  return context_ ? context_->mounts.get() : nullptr;
}

DiskLooks* RunningEvent::Looks() const {
  return context_ ? context_->looks.get() : nullptr;
}

bool RunningEvent::IsAt(const std::string& path, const PathRecord& record) const {
  return LeadsTo(path, record.Identity(), Mounts()) != Leads::Nowhere;
}

// The absolute path that the call named, or what it meant by a descriptor that is still open.
std::string RunningEvent::PathOf(const PathRecord& program) const {
  if (Syscall() == kExecveAt && !program.path.starts_with('/') && HasArgument(0)) {
    const auto fd = static_cast<std::int32_t>(Argument(0));
    const std::string folder =
        fd >= 0 ? DescriptorPath(GetActorProcessId(), fd, context_ ? context_->proc_root : "/proc") : std::string();
    if (IsAt(folder, program)) return folder;
    const std::string below = folder + "/" + program.path;
    if (IsAt(below, program)) return below;
    if (fd >= 0) return ProcessPath();
  }
  return ResolvePath(cwd_, "", program.path);
}

std::optional<std::string> RunningEvent::CanonicalPathOf(const std::string& program) const {
  DiskLooks* looks = Looks();
  if (looks == nullptr) return CanonicalPath(program);
  if (const auto* known = looks->programs.Find(program)) return *known;
  return looks->programs.Keep(program, CanonicalPath(program));
}

// The first record is the program that the call named. If the image is another file, that program was a script, and the
// image is its interpreter. A name may mean another file to this process than it meant to the caller
// ("/proc/self/exe"), so the record of the image itself is no script, whatever its name.
void RunningEvent::SetImages() {
  const PathRecord& program = records_.front();
  const std::optional<std::string> canonical = CanonicalPathOf(PathOf(program));
  const bool is_image = !canonical || ProcessPath() == *canonical || IsAt(ProcessPath(), program);
  if (is_image) {
    image_ = ImageOf(program, ProcessPath());
    return;
  }
  const PathRecord& interpreter = InterpreterRecord();
  script_.Get(ImageOf(program, *canonical));
  image_ = ImageOf(interpreter, ProcessPath(),
                   common::util::ReadFileSystemAttributes(ProcessPath(), interpreter.device, interpreter.inode));
}

// With security modules the kernel records the script twice: the interpreter is what has another name. An interpreter
// may be a script too, so the one that is the image comes first.
const PathRecord& RunningEvent::InterpreterRecord() const {
  const PathRecord* first = nullptr;
  for (const PathRecord& record : records_) {
    if (record.path == records_.front().path) continue;
    if (first == nullptr) first = &record;
    if (IsAt(ProcessPath(), record)) return record;
  }
  if (first == nullptr) throw edr::EventException("Missing or invalid path for Running event");
  return *first;
}

void RunningEvent::TakeDeviceOf(const struct stat& found) {
  const FileIdentity identity{DeviceNumberOf(image_->GetDevice()), image_->GetInode()};
  if (found.st_dev == identity.device || !IsSame(found, image_->GetPath(), identity, Mounts())) return;
  image_->SetDevice(common::util::DeviceText(found.st_dev));
}

bool RunningEvent::IsImage(const struct stat& found) const {
  return found.st_ino == image_->GetInode() && common::util::DeviceText(found.st_dev) == image_->GetDevice();
}

void RunningEvent::ConfirmImage() {
  DiskLooks* looks = Looks();
  if (const auto* known = looks != nullptr ? looks->objects.Find(image_->GetPath()) : nullptr; known && *known) {
    TakeDeviceOf(**known);
    if (IsImage(**known)) return;
  }
  struct stat named {};
  if (Mounts() != nullptr && lstat(image_->GetPath().c_str(), &named) == 0) TakeDeviceOf(named);
  const std::string text = "Process image path " + image_->GetPath() + " differs from the object of the audit event";
  std::unique_ptr<struct stat> found;
  try {
    found = common::StatImage(*image_);
  } catch (const common::StatHelperException& error) {
    Refuse(text + ": " + error.what());
    return;
  }
  if (!found) {
    Refuse(text + ".");
    return;
  }
  if (looks != nullptr) looks->objects.Keep(image_->GetPath(), *found);
}

}  // namespace zagent::audit::internal

#include "src/audit/events/RunningEvent.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <memory>

#include "common/src/util/FileAttributes.h"
#include "src/audit/events/PathResolution.h"
#include "src/edr/process/NameService.h"
#include "src/edr/process/StatHelper.h"

namespace zagent::audit::internal {
namespace {

using edr::RecordField;

constexpr std::uint32_t kExecve = 59;
constexpr std::uint32_t kExecveAt = 322;  // asked for only where coverage is extended
constexpr RecordKinds kRecords =
    KindsOf(record_type::kSyscall, record_type::kCwd, record_type::kExecve, record_type::kPath);

struct Free {
  void operator()(char* text) const { std::free(text); }  // NOLINT: canonicalize_file_name allocates with malloc
};

common::ImageInfo ImageOf(const PathRecord& record, const std::string& path, std::string text) {
  return {record.device,
          record.permission,
          record.inode,
          path,
          record.group_id,
          common::GroupName(record.group_id),
          common::UserName(record.owner_id),
          record.owner_id,
          std::move(text)};
}

}  // namespace

RunningEvent::RunningEvent(RecordSource& source) {
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
    records_.emplace_back(fields, cwd_, "");
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

// The absolute path that the call named, or what it meant by a descriptor that is still open.
std::string RunningEvent::PathOf(const PathRecord& program) const {
  if (Syscall() == kExecveAt && !program.path.starts_with('/') && HasArgument(0)) {
    const auto fd = static_cast<std::int32_t>(Argument(0));
    const std::string folder = fd >= 0 ? DescriptorPath(GetActorProcessId(), fd) : std::string();
    if (IsObjectAt(folder, program.device, program.inode)) return folder;
    const std::string below = folder + "/" + program.path;
    if (IsObjectAt(below, program.device, program.inode)) return below;
    if (fd >= 0) return ProcessPath();
  }
  return ResolvePath(cwd_, "", program.path);
}

// The first record is the program that the call named. If the image is another file, that program was a script, and the
// image is its interpreter. A name may mean another file to this process than it meant to the caller
// ("/proc/self/exe"), so the record of the image itself is no script, whatever its name.
void RunningEvent::SetImages() {
  const PathRecord& program = records_.front();
  const std::unique_ptr<char, Free> canonical(canonicalize_file_name(PathOf(program).c_str()));
  const bool is_image =
      !canonical || ProcessPath() == canonical.get() || IsObjectAt(ProcessPath(), program.device, program.inode);
  if (is_image) {
    image_ = ImageOf(program, ProcessPath(), "");
    return;
  }
  const PathRecord& interpreter = InterpreterRecord();
  script_.Get(ImageOf(program, canonical.get(), ""));
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
    if (IsObjectAt(ProcessPath(), record.device, record.inode)) return record;
  }
  if (first == nullptr) throw edr::EventException("Missing or invalid path for Running event");
  return *first;
}

void RunningEvent::ConfirmImage() {
  const std::string text = "Process image path " + image_->GetPath() + " differs from the object of the audit event";
  std::unique_ptr<struct stat> found;
  try {
    found = common::StatImage(*image_);
  } catch (const common::StatHelperException& error) {
    Refuse(text + ": " + error.what());
    return;
  }
  if (!found) Refuse(text + ".");
}

}  // namespace zagent::audit::internal

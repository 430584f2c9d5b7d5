#include "src/audit/parser/ExtendedCalls.h"

#include <fcntl.h>
#include <limits.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <fstream>
#include <utility>

namespace zagent::audit::internal {
namespace {

using edr::RecordField;
using edr::RecordFields;
using Told = ExtendedCalls::Told;

constexpr int kWrite = 1;
constexpr int kOpen = 2;
constexpr int kTruncate = 76;
constexpr int kFtruncate = 77;
constexpr int kCreat = 85;
constexpr int kOpenat = 257;
constexpr int kFchmodat = 268;
constexpr int kRenameat2 = 316;
constexpr int kOpenat2 = 437;
constexpr int kFchmodat2 = 452;

// Two parents, two objects under their old names and two under their new ones.
constexpr std::uint64_t kItemsOfAnExchange = 6;

constexpr RecordKinds kFileRecords = KindsOf(record_type::kSyscall, record_type::kPath, record_type::kCwd,
                                             record_type::kProctitle, record_type::kOpenAt2);

std::uint64_t ToNumber(std::string_view text, int base = 10) {
  std::uint64_t number = 0;
  std::from_chars(text.data(), text.data() + text.size(), number, base);
  return number;
}

std::string ToHex(std::uint64_t number) {
  std::array<char, 20> digits{};
  return {digits.data(), std::to_chars(digits.data(), digits.data() + digits.size(), number, 16).ptr};
}

void SetCall(RecordList& records, int syscall) {
  if (Record* call = records.Find(record_type::kSyscall)) {
    call->fields.Set(RecordField::Syscall, records.Keep(std::to_string(syscall)));
  }
}

void SetArgument(RecordList& records, std::size_t index, std::uint64_t value) {
  if (Record* call = records.Find(record_type::kSyscall)) {
    call->fields.SetArgument(index, records.Keep(ToHex(value)));
  }
}

bool IsPath(const Record& record, std::string_view word) {
  return record.type == record_type::kPath && record.fields.Find(RecordField::NameType) == word;
}

// What was there when the call looked for it and was not when it was made stands twice; only the second has an inode.
bool IsMade(const Record& record) {
  return IsPath(record, "CREATE") && record.fields.Has(RecordField::Inode);
}

bool MadeItsObject(RecordList& records) {
  return std::any_of(records.Records().begin(), records.Records().end(), IsMade);
}

std::vector<Told> One(int syscall, std::unique_ptr<RecordList> records) {
  std::vector<Told> told;
  told.push_back({syscall, std::move(records)});
  return told;
}

std::vector<Told> As(int syscall, std::unique_ptr<RecordList> records) {
  SetCall(*records, syscall);
  return One(syscall, std::move(records));
}

// An opening is a change by its access mode; one that made or emptied its file is a change by what it did.
std::vector<Told> OpenedAs(int syscall, std::size_t flags_argument, std::unique_ptr<RecordList> records) {
  const Record* call = records->Find(record_type::kSyscall);
  const auto text = call != nullptr ? call->fields.Argument(flags_argument) : std::nullopt;
  const std::uint64_t flags = ToNumber(text.value_or(std::string_view()), 16);
  const bool changes = MadeItsObject(*records) || (flags & O_TRUNC) != 0;
  if ((flags & O_ACCMODE) == O_RDONLY && changes) SetArgument(*records, flags_argument, flags | O_WRONLY);
  return One(syscall, std::move(records));
}

std::vector<Told> OpenedBy2(std::unique_ptr<RecordList> records) {
  // Octal, as the flags are written in C.
  const Record* how = records->Find(record_type::kOpenAt2);
  const std::uint64_t flags = how != nullptr ? ToNumber(how->fields.Find(RecordField::OFlag), 8) : 0;
  SetArgument(*records, 2, flags);
  SetCall(*records, kOpenat);
  return OpenedAs(kOpenat, 2, std::move(records));
}

// One way of an exchange: the parents in their order, the object under its old name, the same under its new one.
std::unique_ptr<RecordList> OneWay(RecordList& all, const Record& from, const Record& to) {
  auto way = std::make_unique<RecordList>(all.Id(), all.Timestamp());
  for (const Record& record : all.Records()) {
    const bool is_object = IsPath(record, "DELETE") || IsPath(record, "CREATE");
    if (!is_object || &record == &from || &record == &to) way->Records().push_back(record);
  }
  return way;
}

std::vector<Told> Exchanged(std::unique_ptr<RecordList> records) {
  std::vector<const Record*> from;
  std::vector<const Record*> to;
  for (const Record& record : records->Records()) {
    if (IsPath(record, "DELETE")) from.push_back(&record);
    if (IsMade(record)) to.push_back(&record);
  }
  const auto same = [](const Record* left, const Record* right) {
    return left->fields.Find(RecordField::Inode) == right->fields.Find(RecordField::Inode) &&
           left->fields.Find(RecordField::Dev) == right->fields.Find(RecordField::Dev);
  };
  if (from.size() != 2 || to.size() != 2 || !same(from[0], to[0]) || !same(from[1], to[1])) {
    return One(kRenameat2, std::move(records));
  }
  std::vector<Told> told;
  for (std::size_t way = 0; way < 2; ++way) {
    told.push_back({kRenameat2, OneWay(*records, *from[way], *to[way])});
  }
  // The second way goes from the second folder to the first.
  if (Record* call = told[1].records->Find(record_type::kSyscall)) {
    const auto first = call->fields.Argument(0);
    const auto second = call->fields.Argument(2);
    if (first && second) {
      const std::string_view swapped = *first;
      call->fields.SetArgument(0, *second);
      call->fields.SetArgument(2, swapped);
    }
  }
  return told;
}

struct UringCall {
  std::uint64_t operation;  // of <linux/io_uring.h>
  int syscall;              // that does the same
};
constexpr std::array kUringCalls = {UringCall{18, 257}, UringCall{28, 257}, UringCall{35, 264},
                                    UringCall{36, 263}, UringCall{37, 258}, UringCall{38, 266},
                                    UringCall{39, 265}, UringCall{41, 190}, UringCall{42, 188}};
constexpr int kUnlinkat = 263;
constexpr int kRmdir = 84;

std::string ReadLink(const std::string& path) {
  std::array<char, PATH_MAX> target{};
  const ssize_t length = readlink(path.c_str(), target.data(), target.size());
  return length > 0 ? std::string(target.data(), static_cast<std::size_t>(length)) : std::string();
}

std::string ReadWord(const std::string& path) {
  std::ifstream file(path);
  std::string word;
  file >> word;
  return word;
}

}  // namespace

bool ExtendedCalls::Concerns(const EventSubject& subject) {
  if (subject.record_type == record_type::kUringOp) return true;
  switch (subject.syscall) {
    case kOpen:
    case kOpenat:
    case kTruncate:
    case kFtruncate:
    case kCreat:
    case kOpenat2:
    case kFchmodat2:
      return true;
    case kRenameat2:
      return subject.items >= kItemsOfAnExchange;
    default:
      return false;
  }
}

std::vector<Told> ExtendedCalls::Translate(const EventSubject& subject, RecordSource& source) const {
  if (subject.record_type == record_type::kUringOp) return TranslateUring(source);
  auto records = std::make_unique<RecordList>(source, kFileRecords);
  switch (subject.syscall) {
    case kOpen:
      return OpenedAs(kOpen, 1, std::move(records));
    case kOpenat:
      return OpenedAs(kOpenat, 2, std::move(records));
    case kOpenat2:
      return OpenedBy2(std::move(records));
    case kFchmodat2:
      return As(kFchmodat, std::move(records));
    case kTruncate:
    case kFtruncate:
      return As(kWrite, std::move(records));
    case kCreat:
      return MadeItsObject(*records) ? One(kCreat, std::move(records)) : As(kWrite, std::move(records));
    default:
      return Exchanged(std::move(records));
  }
}

// The URINGOP record tells the operation and who asked for it, without program, login and arguments. A SYSCALL record
// of the same event has program and login; else the process is asked while it is there.
std::vector<Told> ExtendedCalls::TranslateUring(RecordSource& source) const {
  RecordList all(source, kFileRecords | KindOf(record_type::kUringOp));
  const Record* operation = all.Find(record_type::kUringOp);
  if (operation == nullptr) return {};
  const std::uint64_t number = ToNumber(operation->fields.Find(RecordField::UringOp));
  const auto* known = std::find_if(kUringCalls.begin(), kUringCalls.end(),
                                   [number](const UringCall& call) { return call.operation == number; });
  if (known == kUringCalls.end()) return {};

  auto records = std::make_unique<RecordList>(all.Id(), all.Timestamp());
  Record call{record_type::kSyscall, operation->fields};
  const std::string process = proc_root_ + "/" + std::string(call.fields.Find(RecordField::Pid));
  if (const Record* enter = all.Find(record_type::kSyscall)) {
    call.fields.Set(RecordField::Exe, enter->fields.Find(RecordField::Exe));
    call.fields.Set(RecordField::Auid, enter->fields.Find(RecordField::Auid));
  } else {
    const std::string login = ReadWord(process + "/loginuid");
    call.fields.Set(RecordField::Exe, records->Keep(ReadLink(process + "/exe")));
    call.fields.Set(RecordField::Auid, records->Keep(login.empty() ? "4294967295" : login));
  }
  // Relative to a descriptor of which nothing is known; an opening that made nothing may have been one for writing.
  for (std::size_t index = 0; index < 4; ++index) call.fields.SetArgument(index, "7fffffff");
  if (known->syscall == kOpenat) call.fields.SetArgument(2, "1");

  // The kernel looks twice; what it has not found the first time has no inode. Each folder comes right before its
  // object.
  std::vector<Record> objects;
  for (const Record& record : all.Records()) {
    if (record.type == record_type::kPath && record.fields.Has(RecordField::Inode)) objects.push_back(record);
  }
  int syscall = known->syscall;
  const bool folder_went =
      syscall == kUnlinkat && std::any_of(objects.begin(), objects.end(), [](const Record& object) {
        return !IsPath(object, "PARENT") && object.fields.Find(RecordField::Mode).starts_with("04");
      });
  if (folder_went) syscall = kRmdir;
  std::vector<Record>& list = records->Records();
  list.push_back(std::move(call));
  if (const Record* cwd = all.Find(record_type::kCwd)) list.push_back(*cwd);
  list.insert(list.end(), objects.begin(), objects.end());
  if (const Record* title = all.Find(record_type::kProctitle)) list.push_back(*title);
  return As(syscall, std::move(records));
}

}  // namespace zagent::audit::internal

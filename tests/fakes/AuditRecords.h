#pragma once

#include <sys/stat.h>

#include <cstdio>
#include <map>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "common/src/util/DeviceText.h"
#include "src/audit/events/RecordSource.h"

namespace zagent::fakes {

// The records of one audit event, written by a test as the kernel writes them:
//
//   AuditRecords records;
//   records.Syscall(257, {{"a2", "41"}}).Cwd(folder).Path("PARENT", folder).Path("CREATE", folder / "f");
//
// Path takes the numbers of the record from the disk, so that the event's confirmation finds its object.
class AuditRecords final : public audit::internal::RecordSource {
 public:
  using Fields = std::map<std::string, std::string>;

  explicit AuditRecords(std::uint32_t id = 77, std::int64_t seconds = 1'700'000'000) : id_(id), seconds_(seconds) {}

  AuditRecords& Add(int type, Fields fields) {
    records_.emplace_back(type, std::move(fields));
    return *this;
  }

  // A successful call of pid 4711 in no login session; `changes` replace or add fields.
  AuditRecords& Syscall(unsigned number, const Fields& changes = {}) {
    Fields fields = SyscallFields(number);
    for (const auto& [name, value] : changes) fields[name] = value;
    return Add(audit::internal::record_type::kSyscall, std::move(fields));
  }

  AuditRecords& Cwd(const std::string& path) { return Add(audit::internal::record_type::kCwd, {{"cwd", path}}); }

  AuditRecords& Proctitle(const std::string& title) {
    return Add(audit::internal::record_type::kProctitle, {{"proctitle", title}});
  }

  // The next PATH record: the object at `disk_path`, named `name` in the call.
  AuditRecords& Path(const std::string& word, const std::string& name, const std::string& disk_path,
                     const Fields& changes = {}) {
    Fields fields = PathFields(word, name, disk_path);
    fields["item"] = std::to_string(next_item_++);
    for (const auto& [field, value] : changes) fields[field] = value;
    return Add(audit::internal::record_type::kPath, std::move(fields));
  }
  AuditRecords& Path(const std::string& word, const std::string& name) { return Path(word, name, name); }

  static Fields SyscallFields(unsigned number) {
    return {{"arch", "c000003e"}, {"syscall", std::to_string(number)},
            {"success", "yes"},   {"exit", "0"},
            {"a0", "ffffff9c"},   {"a1", "7ffe3a74b430"},
            {"a2", "0"},          {"a3", "0"},
            {"items", "2"},       {"ppid", "97"},
            {"pid", "4711"},      {"auid", "4294967295"},
            {"uid", "0"},         {"euid", "0"},
            {"comm", "\"ops\""},  {"exe", "/bin/ops"},
            {"key", "\"rule-w\""}};
  }

  // Without a word the record has no type at all, as old kernels write it.
  static Fields PathFields(const std::string& word, const std::string& name, const std::string& disk_path) {
    struct stat disk {};
    if (lstat(disk_path.c_str(), &disk) != 0) throw std::runtime_error("no such test file: " + disk_path);
    char mode[32];
    std::snprintf(mode, sizeof mode, "0%o", disk.st_mode);
    Fields fields = {{"item", "0"},
                     {"name", name},
                     {"inode", std::to_string(disk.st_ino)},
                     {"dev", common::util::DeviceText(disk.st_dev)},
                     {"mode", mode},
                     {"ouid", std::to_string(disk.st_uid)},
                     {"ogid", std::to_string(disk.st_gid)}};
    if (!word.empty()) fields["nametype"] = word;
    return fields;
  }

  // The fields as a source hands them out: a name that the kernel does not know is empty. The view lives as long as
  // `fields`; names that no event reads are left out.
  static edr::RecordFields ViewOf(const Fields& fields) {
    edr::RecordFields view;
    for (const auto& [name, value] : fields) {
      if (const auto argument = edr::ArgumentNamed(name)) view.SetArgument(*argument, value);
      const auto field = edr::FieldNames::Find(name);
      if (field) view.Set(*field, name == "name" && value == "(null)" ? std::string_view("") : value);
    }
    return view;
  }

  const audit::internal::Record* Next(audit::internal::RecordKinds wanted) override {
    while (next_ < records_.size()) {
      const auto& [type, fields] = records_[next_++];
      if ((wanted & audit::internal::KindOf(type)) == 0) continue;
      record_ = {type, ViewOf(fields)};
      return &record_;
    }
    return nullptr;
  }
  [[nodiscard]] std::uint32_t Id() const override { return id_; }
  [[nodiscard]] std::int64_t Timestamp() const override { return seconds_ * 1'000'000'000; }

 private:
  std::vector<std::pair<int, Fields>> records_;
  audit::internal::Record record_;
  std::size_t next_ = 0;
  unsigned next_item_ = 0;
  std::uint32_t id_;
  std::int64_t seconds_;
};

}  // namespace zagent::fakes

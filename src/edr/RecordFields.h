#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace zagent::edr {

// The fields of audit records that events read, by the kernel's names in lower case. The arguments of a call or of a
// program (a0, a1 and so on) are counted instead of named.
enum class RecordField : std::uint8_t {
  Arch,
  Argc,
  Auid,
  Cwd,
  Dev,
  Dir,
  Euid,
  Exe,
  Exit,
  Inode,
  Item,
  Items,
  Key,
  Mode,
  Name,
  NameType,
  ObjType,
  OFlag,
  OGid,
  Op,
  OUid,
  Path,
  Pid,
  PPid,
  Proctitle,
  Saddr,
  Success,
  Syscall,
  Uid,
  UringOp,
  Count,
};

// A set of fields.
using RecordFieldSet = std::uint32_t;
static_assert(static_cast<unsigned>(RecordField::Count) <= 32);

constexpr RecordFieldSet SetOf(RecordField field) {
  return RecordFieldSet{1} << static_cast<unsigned>(field);
}

template <typename... Fields>
constexpr RecordFieldSet SetOf(RecordField first, Fields... rest) {
  return SetOf(first) | SetOf(rest...);
}

// The first eight bytes of a field's name, the first one lowest, and its length: most fields of a record are read by
// nobody, and are told apart by it.
struct FieldNameKey {
  std::uint64_t bytes = 0;
  std::size_t length = 0;

  static constexpr FieldNameKey Of(std::string_view name) {
    FieldNameKey key{0, name.size()};
    for (std::size_t at = 0; at < std::min(name.size(), sizeof(key.bytes)); ++at) {
      key.bytes |= static_cast<std::uint64_t>(static_cast<unsigned char>(name[at])) << (8 * at);
    }
    return key;
  }
  constexpr bool operator==(const FieldNameKey&) const = default;
};

// The fields by their names.
class FieldNames {
 public:
  // The field that goes by this name; nothing for a name that no event reads.
  [[nodiscard]] static std::optional<RecordField> Find(std::string_view name) {
    return Find(name, FieldNameKey::Of(name));
  }
  // The same for a name whose key is known.
  [[nodiscard]] static std::optional<RecordField> Find(std::string_view name, const FieldNameKey& key);

 private:
  static constexpr std::array<std::string_view, static_cast<std::size_t>(RecordField::Count)> kNames = {
      "arch", "argc",  "auid", "cwd",  "dev",       "dir",      "euid",    "exe",     "exit", "inode",
      "item", "items", "key",  "mode", "name",      "nametype", "objtype", "oflag",   "ogid", "op",
      "ouid", "path",  "pid",  "ppid", "proctitle", "saddr",    "success", "syscall", "uid",  "uring_op",
  };
  struct Slot {
    FieldNameKey key;
    RecordField field = RecordField::Count;
  };
  // Each name in a slot of its own.
  struct Table {
    std::uint64_t factor = 1;
    std::array<Slot, 128> slots{};

    [[nodiscard]] constexpr std::size_t SlotOf(const FieldNameKey& key) const { return key.bytes * factor >> 57; }
    constexpr bool Fill();
  };
  static constexpr Table MakeTable();
  static const Table kTable;
};

constexpr bool FieldNames::Table::Fill() {
  for (std::size_t field = 0; field < kNames.size(); ++field) {
    const FieldNameKey key = FieldNameKey::Of(kNames[field]);
    Slot& slot = slots[SlotOf(key)];
    if (slot.key.length != 0) return false;
    slot = {key, static_cast<RecordField>(field)};
  }
  return true;
}

// Looks for a factor that gives each name its slot, when it is compiled.
constexpr FieldNames::Table FieldNames::MakeTable() {
  for (std::uint64_t factor = 1;; factor = factor * 6364136223846793005U + 1442695040888963407U) {
    Table table{factor | 1};
    if (table.Fill()) return table;
  }
}

inline constexpr FieldNames::Table FieldNames::kTable = MakeTable();

inline std::optional<RecordField> FieldNames::Find(std::string_view name, const FieldNameKey& key) {
  const Slot& slot = kTable.slots[kTable.SlotOf(key)];
  if (slot.field == RecordField::Count || slot.key != key) return std::nullopt;
  // Of a longer name the key has the beginning only.
  if (key.length > sizeof(key.bytes) && kNames[static_cast<std::size_t>(slot.field)] != name) return std::nullopt;
  return slot.field;
}

// Which argument a name like "a12" counts; nothing for other names and for those that are beyond kMaxArguments.
[[nodiscard]] std::optional<std::size_t> ArgumentNamed(std::string_view name);

// The fields of one audit record as a flat view: the values belong to whoever filled it in and are valid during the
// call that hands the view over. Filling and clearing allocate nothing once the view has seen its longest argument
// list.
class RecordFields {
 public:
  // How many arguments of a program are kept.
  static constexpr std::size_t kMaxArguments = 255;

  // A later value of the same field overwrites.
  void Set(RecordField field, std::string_view value) {
    values_[static_cast<std::size_t>(field)] = value;
    present_ |= SetOf(field);
  }
  void SetArgument(std::size_t index, std::string_view value);
  void Clear() {
    present_ = 0;
    arguments_.clear();
  }

  [[nodiscard]] RecordFieldSet Present() const { return present_; }
  [[nodiscard]] bool Has(RecordField field) const { return (present_ & SetOf(field)) != 0; }
  [[nodiscard]] bool IsEmpty() const { return present_ == 0 && arguments_.empty(); }

  // Empty for an absent field.
  [[nodiscard]] std::string_view Find(RecordField field) const {
    return Has(field) ? values_[static_cast<std::size_t>(field)] : std::string_view();
  }
  // Throws std::out_of_range "_Map_base::at" for an absent field: the words that the loss of a mandatory field is known
  // by.
  [[nodiscard]] std::string_view At(RecordField field) const {
    if (!Has(field)) ThrowMissing();
    return values_[static_cast<std::size_t>(field)];
  }
  // One more than the last argument's number.
  [[nodiscard]] std::size_t ArgumentCount() const { return arguments_.size(); }
  // Nothing when the record has no such argument, or lost it.
  [[nodiscard]] std::optional<std::string_view> Argument(std::size_t index) const {
    if (index >= arguments_.size() || arguments_[index].data() == nullptr) return std::nullopt;
    return arguments_[index];
  }

 private:
  [[noreturn]] static void ThrowMissing();

  std::array<std::string_view, static_cast<std::size_t>(RecordField::Count)> values_;
  RecordFieldSet present_ = 0;
  std::vector<std::string_view> arguments_;  // null: not in the record
};

}  // namespace zagent::edr

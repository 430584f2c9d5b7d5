#pragma once

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

// The field that goes by this name; nothing for a name that no event reads.
[[nodiscard]] std::optional<RecordField> FieldNamed(std::string_view name);

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

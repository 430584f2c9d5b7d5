#include "src/edr/RecordFields.h"

#include <charconv>
#include <stdexcept>

namespace zagent::edr {
namespace {

constexpr std::array<std::string_view, static_cast<std::size_t>(RecordField::Count)> kNames = {
    "arch", "argc",  "auid", "cwd",  "dev",       "dir",      "euid",    "exe",     "exit", "inode",
    "item", "items", "key",  "mode", "name",      "nametype", "objtype", "oflag",   "ogid", "op",
    "ouid", "path",  "pid",  "ppid", "proctitle", "saddr",    "success", "syscall", "uid",  "uring_op",
};

constexpr std::size_t kSlots = 64;
constexpr std::uint8_t kNone = 0xff;

// A hash without collisions over the names above, which the table below proves when it is compiled.
constexpr std::size_t SlotOf(std::string_view name) {
  const auto byte = [](char character) { return static_cast<std::size_t>(static_cast<unsigned char>(character)); };
  return (byte(name[0]) + 14 * byte(name[1]) + 3 * byte(name.back()) + 12 * name.size()) % kSlots;
}

constexpr std::array<std::uint8_t, kSlots> MakeSlots() {
  std::array<std::uint8_t, kSlots> slots{};
  for (std::uint8_t& slot : slots) slot = kNone;
  for (std::size_t field = 0; field < kNames.size(); ++field) {
    std::uint8_t& slot = slots[SlotOf(kNames[field])];
    if (slot != kNone) throw std::logic_error("two names in one slot");  // does not compile
    slot = static_cast<std::uint8_t>(field);
  }
  return slots;
}

constexpr std::array<std::uint8_t, kSlots> kSlotTable = MakeSlots();

}  // namespace

std::optional<RecordField> FieldNamed(std::string_view name) {
  if (name.size() < 2) return std::nullopt;
  const std::uint8_t field = kSlotTable[SlotOf(name)];
  if (field == kNone || kNames[field] != name) return std::nullopt;
  return static_cast<RecordField>(field);
}

std::optional<std::size_t> ArgumentNamed(std::string_view name) {
  if (name.size() < 2 || name.front() != 'a') return std::nullopt;
  std::size_t index = 0;
  const char* end = name.data() + name.size();
  const auto [stopped, error] = std::from_chars(name.data() + 1, end, index);
  if (error != std::errc() || stopped != end || index >= RecordFields::kMaxArguments) return std::nullopt;
  return index;
}

void RecordFields::SetArgument(std::size_t index, std::string_view value) {
  if (index >= kMaxArguments) return;
  if (index >= arguments_.size()) arguments_.resize(index + 1);
  // An empty value is a value: it must not look like an absent one.
  arguments_[index] = value.data() != nullptr ? value : std::string_view("");
}

void RecordFields::ThrowMissing() {
  throw std::out_of_range("_Map_base::at");
}

}  // namespace zagent::edr

#include "src/edr/RecordFields.h"

#include <charconv>
#include <stdexcept>

namespace zagent::edr {
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

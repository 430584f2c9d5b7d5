#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <memory_resource>
#include <string_view>

namespace zagent::audit::internal {

// Where the values of one event's records lie that do not stand in their text as they are told. Few events need more
// than is reserved.
class ValueStore {
 public:
  ValueStore() = default;
  ValueStore(const ValueStore&) = delete;
  ValueStore& operator=(const ValueStore&) = delete;
  ~ValueStore() = default;

  // Valid until Forget, as all that is given out here.
  char* Allocate(std::size_t size) { return static_cast<char*>(values_.allocate(size, 1)); }
  std::string_view Keep(std::string_view value) {
    if (value.empty()) return "";
    char* const copy = Allocate(value.size());
    std::copy(value.begin(), value.end(), copy);
    return {copy, value.size()};
  }
  void Forget() { values_.release(); }

 private:
  std::array<char, 4096> reserved_;
  std::pmr::monotonic_buffer_resource values_{reserved_.data(), reserved_.size()};
};

}  // namespace zagent::audit::internal

#pragma once

#include <memory>
#include <utility>

namespace zagent::common::util {

// Owns at most one object on the heap and copies it when it is copied itself: for what most objects of a class never
// need, so that they do not carry it.
template <typename Value>
class DeepPtr {
 public:
  DeepPtr() = default;
  DeepPtr(const DeepPtr& other) : value_(other.value_ ? std::make_unique<Value>(*other.value_) : nullptr) {}
  DeepPtr(DeepPtr&&) noexcept = default;
  DeepPtr& operator=(const DeepPtr& other) {
    value_ = other.value_ ? std::make_unique<Value>(*other.value_) : nullptr;
    return *this;
  }
  DeepPtr& operator=(DeepPtr&&) noexcept = default;
  ~DeepPtr() = default;

  // The object, made with `arguments` if there is none yet.
  template <typename... Arguments>
  Value& Get(Arguments&&... arguments) {
    if (!value_) value_ = std::make_unique<Value>(std::forward<Arguments>(arguments)...);
    return *value_;
  }
  [[nodiscard]] const Value* Find() const { return value_.get(); }
  void Reset() { value_.reset(); }

 private:
  std::unique_ptr<Value> value_;
};

}  // namespace zagent::common::util

#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

namespace zagent::common {

// A closure on its way to the thread that runs it. It is only ever moved, so it may own what cannot be copied, and one
// of up to kRoom bytes lies in place: bursts bring many, and memory that one thread takes and another gives back is
// dear.
class Task {
 public:
  static constexpr std::size_t kRoom = 64;

  // An empty task, as an empty std::function gives one, throws std::bad_function_call when it is called.
  Task() = default;
  Task(std::nullptr_t) {}  // NOLINT(google-explicit-constructor): nor is that of std::function
  template <typename Closure, typename = std::enable_if_t<!std::is_same_v<std::decay_t<Closure>, Task>>>
  Task(Closure&& closure) {  // NOLINT(google-explicit-constructor)
    using Held = std::decay_t<Closure>;
    if constexpr (std::is_same_v<Held, std::function<void()>>) {
      if (!closure) return;
    }
    if constexpr (kFits<Held>) {
      ::new (static_cast<void*>(room_)) Held(std::forward<Closure>(closure));
      operations_ = &kOperations<Held>;
    } else {
      auto boxed = [held = std::make_unique<Held>(std::forward<Closure>(closure))] { (*held)(); };
      ::new (static_cast<void*>(room_)) decltype(boxed)(std::move(boxed));
      operations_ = &kOperations<decltype(boxed)>;
    }
  }
  Task(Task&& other) noexcept { Take(other); }
  Task& operator=(Task&& other) noexcept {
    if (this != &other) {
      Destroy();
      Take(other);
    }
    return *this;
  }
  Task(const Task&) = delete;
  Task& operator=(const Task&) = delete;
  ~Task() { Destroy(); }

  explicit operator bool() const { return operations_ != nullptr; }

  void operator()() {
    if (operations_ == nullptr) throw std::bad_function_call();
    operations_->call(room_);
  }

 private:
  struct Operations {
    void (*call)(void* closure);
    void (*move)(void* from, void* to) noexcept;  // leaves nothing at `from`
    void (*destroy)(void* closure) noexcept;
  };

  template <typename Held>
  static constexpr bool kFits = sizeof(Held) <= kRoom &&
                                alignof(Held) <= alignof(void*) && std::is_nothrow_move_constructible_v<Held>;

  template <typename Held>
  static constexpr Operations kOperations{
      [](void* closure) { (*static_cast<Held*>(closure))(); },
      [](void* from, void* to) noexcept {
        auto& held = *static_cast<Held*>(from);
        ::new (to) Held(std::move(held));
        held.~Held();
      },
      [](void* closure) noexcept { static_cast<Held*>(closure)->~Held(); },
  };

  void Take(Task& other) noexcept {
    operations_ = std::exchange(other.operations_, nullptr);
    if (operations_ != nullptr) operations_->move(other.room_, room_);
  }
  void Destroy() noexcept {
    const Operations* operations = std::exchange(operations_, nullptr);
    if (operations != nullptr) operations->destroy(room_);
  }

  const Operations* operations_ = nullptr;
  alignas(void*) unsigned char room_[kRoom]{};
};

}  // namespace zagent::common

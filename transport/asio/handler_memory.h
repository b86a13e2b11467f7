#pragma once

#include <cstddef>
#include <new>
#include <utility>

namespace Orbi::Asio {

/// Room for the handler of one pending operation, for those that must not fail for want of memory:
/// an accept loop that cannot go on, an answer that cannot be handed on.
///
/// Outlives the operation, best as a member of what the handler keeps alive. One that is taken, or
/// too small, is no error: the memory then comes from where all memory comes from.
class HandlerMemory {
 public:
  HandlerMemory() = default;
  HandlerMemory(const HandlerMemory&) = delete;
  HandlerMemory& operator=(const HandlerMemory&) = delete;

  [[nodiscard]] void* Allocate(std::size_t size) {
    if (taken_ || size > sizeof room_) return ::operator new(size);
    taken_ = true;
    return room_;
  }
  void Deallocate(void* memory) {
    if (memory != room_) return ::operator delete(memory);
    taken_ = false;
  }

 private:
  static constexpr std::size_t kSize = 192;

  alignas(std::max_align_t) std::byte room_[kSize];
  bool taken_ = false;
};

/// The standard library's view of a HandlerMemory.
template <class T>
class HandlerAllocator {
 public:
  using value_type = T;

  explicit HandlerAllocator(HandlerMemory& memory) : memory_(&memory) {}
  template <class U>
  // NOLINTNEXTLINE(google-explicit-constructor): as the requirements of allocators have it
  HandlerAllocator(const HandlerAllocator<U>& other) : memory_(other.memory_) {}

  T* allocate(std::size_t count) {
    static_assert(alignof(T) <= alignof(std::max_align_t));
    return static_cast<T*>(memory_->Allocate(sizeof(T) * count));
  }
  void deallocate(T* memory, std::size_t) { memory_->Deallocate(memory); }

  bool operator==(const HandlerAllocator&) const = default;

 private:
  template <class U>
  friend class HandlerAllocator;

  HandlerMemory* memory_;
};

/// A handler that lives in a HandlerMemory while its operation is pending.
template <class Handler>
class HeldHandler {
 public:
  using allocator_type = HandlerAllocator<void>;

  HeldHandler(HandlerMemory& memory, Handler handler)
      : memory_(&memory), handler_(std::move(handler)) {}

  // NOLINTNEXTLINE(readability-identifier-naming): Boost.Asio's name
  [[nodiscard]] allocator_type get_allocator() const noexcept { return allocator_type(*memory_); }

  template <class... Args>
  void operator()(Args&&... args) {
    handler_(std::forward<Args>(args)...);
  }

 private:
  HandlerMemory* memory_;
  Handler handler_;
};

/// What to start an operation with in place of `handler`.
template <class Handler>
HeldHandler<Handler> HoldIn(HandlerMemory& memory, Handler handler) {
  return {memory, std::move(handler)};
}

}  // namespace Orbi::Asio

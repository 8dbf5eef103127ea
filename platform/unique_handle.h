// Owns a platform handle of any kind.
#pragma once

#include <utility>

namespace platform {

// Traits: `Value` (the handle type), `kInvalid` (static value or function-like constant),
// `static void Close(Value) noexcept`. Close is called exactly once for every valid value.
template <class Traits>
class UniqueHandle {
 public:
  using Value = typename Traits::Value;

  UniqueHandle() noexcept = default;
  explicit UniqueHandle(Value value) noexcept : value_(value) {}
  UniqueHandle(UniqueHandle&& other) noexcept : value_(other.Release()) {}
  UniqueHandle& operator=(UniqueHandle&& other) noexcept {
    if (this != &other) {
      Reset(other.Release());
    }
    return *this;
  }
  UniqueHandle(const UniqueHandle&) = delete;
  UniqueHandle& operator=(const UniqueHandle&) = delete;
  ~UniqueHandle() { Reset(); }

  [[nodiscard]] Value Get() const noexcept { return value_; }
  [[nodiscard]] bool IsValid() const noexcept { return value_ != Traits::kInvalid; }
  explicit operator bool() const noexcept { return IsValid(); }

  // Releases ownership without closing the handle.
  [[nodiscard]] Value Release() noexcept { return std::exchange(value_, Traits::kInvalid); }

  // Closes the current handle, if any, and takes ownership of another.
  void Reset(Value value = Traits::kInvalid) noexcept {
    const Value old = std::exchange(value_, value);
    if (old != Traits::kInvalid) {
      Traits::Close(old);
    }
  }

 private:
  Value value_ = Traits::kInvalid;
};

}  // namespace platform

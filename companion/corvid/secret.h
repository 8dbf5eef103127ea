// Memory for keys and decrypted text, which is wiped before it is freed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "platform/secret_memory.h"

namespace companion {

/// A standard allocator that wipes every block it frees, including those of a growing vector.
template <typename T>
class SecretAllocator {
 public:
  using value_type = T;

  SecretAllocator() noexcept = default;
  template <typename U>
  SecretAllocator(const SecretAllocator<U>& /*other*/) noexcept {}  // NOLINT: allocators convert

  [[nodiscard]] T* allocate(std::size_t count) { return std::allocator<T>().allocate(count); }

  void deallocate(T* memory, std::size_t count) noexcept {
    platform::Wipe(memory, count * sizeof(T));
    std::allocator<T>().deallocate(memory, count);
  }

  template <typename U>
  bool operator==(const SecretAllocator<U>& /*other*/) const noexcept {
    return true;
  }
  template <typename U>
  bool operator!=(const SecretAllocator<U>& /*other*/) const noexcept {
    return false;
  }
};

template <typename T>
using SecretVector = std::vector<T, SecretAllocator<T>>;
using SecretBytes = SecretVector<std::uint8_t>;

}  // namespace companion

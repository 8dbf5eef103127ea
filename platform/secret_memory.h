// Memory that contained a secret.
#pragma once

#include <cstddef>
#include <cstring>
#include <new>
#include <string>

namespace platform {

// Overwrites memory in a way that the optimizer does not remove (SecureZeroMemory,
// OPENSSL_cleanse).
void Wipe(void* memory, std::size_t bytes) noexcept;

// Wipes the text's whole buffer, including the part past its end, and clears the text.
inline void Wipe(std::wstring& text) noexcept {
  text.clear();
  // The buffer has the size of the capacity plus the terminator.
  Wipe(text.data(), (text.capacity() + 1) * sizeof(wchar_t));
}

// Wipes a text at the end of the block.
class WipeAtEnd {
 public:
  explicit WipeAtEnd(std::wstring& text) noexcept : text_(text) {}
  ~WipeAtEnd() { Wipe(text_); }
  WipeAtEnd(const WipeAtEnd&) = delete;
  WipeAtEnd& operator=(const WipeAtEnd&) = delete;

 private:
  std::wstring& text_;
};

// A RapidJSON allocator (concept Allocator) that wipes the memory it frees.
class WipingAllocator {
 public:
  static constexpr bool kNeedFree = true;

  // Returns null for zero bytes. Throws std::bad_alloc if memory is exhausted.
  [[nodiscard]] void* Malloc(std::size_t bytes) {
    if (bytes == 0) {
      return nullptr;
    }
    auto* const block = static_cast<Header*>(::operator new(sizeof(Header) + bytes));
    block->bytes = bytes;
    return block + 1;
  }

  [[nodiscard]] void* Realloc(void* memory, std::size_t old_bytes, std::size_t new_bytes) {
    void* const moved = Malloc(new_bytes);
    if (memory != nullptr && moved != nullptr) {
      std::memcpy(moved, memory, old_bytes < new_bytes ? old_bytes : new_bytes);
    }
    Free(memory);
    return moved;
  }

  static void Free(void* memory) noexcept {
    if (memory != nullptr) {
      Header* const block = static_cast<Header*>(memory) - 1;
      Wipe(memory, block->bytes);
      ::operator delete(block);
    }
  }

 private:
  struct alignas(std::max_align_t) Header {
    std::size_t bytes;
  };
};

}  // namespace platform

// The test program's own `operator new` and `operator delete`.
#include <malloc.h>

#include <cstdlib>
#include <new>
#include <string>
#include <string_view>
#include <utility>

#include "tests/unit/support/failing_memory.h"
#include "tests/unit/support/released_memory.h"

namespace kyd_test {

namespace {

struct Plan {
  FailingMemory::Throwing what = FailingMemory::Throwing::kBadAlloc;
  std::size_t size = 0;
  unsigned times = 0;
};

thread_local Plan plan;

void FailAsPlanned(std::size_t size) {
  if (plan.times == 0 || size < plan.size) {
    return;
  }
  --plan.times;
  if (plan.what == FailingMemory::Throwing::kNumber) {
    throw 1;
  }
  throw std::bad_alloc();
}

void* Allocate(std::size_t size) {
  FailAsPlanned(size);
  void* const memory = std::malloc(size == 0 ? 1 : size);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}

struct Watch {
  const std::wstring* text = nullptr;
  unsigned found = 0;
};

thread_local Watch watch;

std::size_t SizeOf(void* memory) noexcept {
#ifdef _WIN32
  return _msize(memory);
#else
  return malloc_usable_size(memory);
#endif
}

void Release(void* memory) noexcept {
  if (memory != nullptr && watch.text != nullptr) {
    const std::string_view block(static_cast<const char*>(memory), SizeOf(memory));
    const std::string_view text(reinterpret_cast<const char*>(watch.text->data()),
                                watch.text->size() * sizeof(wchar_t));
    watch.found += block.find(text) != std::string_view::npos ? 1U : 0U;
  }
  std::free(memory);
}

void* AllocateOrNull(std::size_t size) noexcept {
  try {
    return Allocate(size);
  } catch (...) {
    return nullptr;
  }
}

}  // namespace

FailingMemory::FailingMemory(Throwing what, std::size_t size, unsigned times) {
  plan = {what, size, times};
}

FailingMemory::~FailingMemory() {
  plan.times = 0;
}

ReleasedMemory::ReleasedMemory(std::wstring text) {
  watch = {new std::wstring(std::move(text)), 0};
}

ReleasedMemory::~ReleasedMemory() {
  delete std::exchange(watch.text, nullptr);
}

unsigned ReleasedMemory::Found() const noexcept {
  return watch.found;
}

}  // namespace kyd_test

void* operator new(std::size_t size) {
  return kyd_test::Allocate(size);
}
void* operator new[](std::size_t size) {
  return kyd_test::Allocate(size);
}
void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
  return kyd_test::AllocateOrNull(size);
}
void* operator new[](std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
  return kyd_test::AllocateOrNull(size);
}
void operator delete(void* memory) noexcept {
  kyd_test::Release(memory);
}
void operator delete[](void* memory) noexcept {
  kyd_test::Release(memory);
}
void operator delete(void* memory, std::size_t /*size*/) noexcept {
  kyd_test::Release(memory);
}
void operator delete[](void* memory, std::size_t /*size*/) noexcept {
  kyd_test::Release(memory);
}
void operator delete(void* memory, const std::nothrow_t& /*tag*/) noexcept {
  kyd_test::Release(memory);
}
void operator delete[](void* memory, const std::nothrow_t& /*tag*/) noexcept {
  kyd_test::Release(memory);
}

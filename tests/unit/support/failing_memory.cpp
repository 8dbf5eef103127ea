#include "tests/unit/support/failing_memory.h"

#include <cstdlib>
#include <new>

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
  std::free(memory);
}
void operator delete[](void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t /*size*/) noexcept {
  std::free(memory);
}
void operator delete[](void* memory, std::size_t /*size*/) noexcept {
  std::free(memory);
}
void operator delete(void* memory, const std::nothrow_t& /*tag*/) noexcept {
  std::free(memory);
}
void operator delete[](void* memory, const std::nothrow_t& /*tag*/) noexcept {
  std::free(memory);
}

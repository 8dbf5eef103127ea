#include "tests/unit/support/failing_calls_win32.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <cstring>

#include "tests/unit/support/failing_seek.h"

namespace kyd_test {
namespace {

void Put(std::uintptr_t* slot, std::uintptr_t value) {
  DWORD protection = 0;
  ASSERT_TRUE(VirtualProtect(slot, sizeof *slot, PAGE_READWRITE, &protection));
  *slot = value;
  VirtualProtect(slot, sizeof *slot, protection, &protection);
}

// The entries of a function in the program's import table.
std::vector<std::uintptr_t*> SlotsOf(const char* function) {
  auto* const base = reinterpret_cast<std::uint8_t*>(GetModuleHandleW(nullptr));
  const auto* const dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
  const auto* const headers = reinterpret_cast<const IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
  const IMAGE_DATA_DIRECTORY& imports =
      headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
  std::vector<std::uintptr_t*> slots;
  for (const auto* library =
           reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR*>(base + imports.VirtualAddress);
       library->FirstThunk != 0; ++library) {
    const auto* name =
        reinterpret_cast<const IMAGE_THUNK_DATA*>(base + library->OriginalFirstThunk);
    auto* slot = reinterpret_cast<std::uintptr_t*>(base + library->FirstThunk);
    for (; name->u1.AddressOfData != 0; ++name, ++slot) {
      if (IMAGE_SNAP_BY_ORDINAL(name->u1.Ordinal)) {
        continue;
      }
      const auto* const by_name =
          reinterpret_cast<const IMAGE_IMPORT_BY_NAME*>(base + name->u1.AddressOfData);
      if (std::strcmp(reinterpret_cast<const char*>(by_name->Name), function) == 0) {
        slots.push_back(slot);
      }
    }
  }
  return slots;
}

DWORD WINAPI SeekNowhere(HANDLE /*file*/, LONG /*low*/, LONG* /*high*/, DWORD /*method*/) {
  SetLastError(ERROR_SEEK);
  return INVALID_SET_FILE_POINTER;
}

}  // namespace

ReplacedImport::ReplacedImport(const char* function, std::uintptr_t replacement)
    : slots_(SlotsOf(function)) {
  EXPECT_FALSE(slots_.empty()) << function << " is not imported";
  for (std::uintptr_t* const slot : slots_) {
    original_ = *slot;
    Put(slot, replacement);
  }
}

ReplacedImport::~ReplacedImport() {
  for (std::uintptr_t* const slot : slots_) {
    Put(slot, original_);
  }
}

void RunWithoutSeeking(const std::function<void()>& function) {
  const ReplacedImport seek("SetFilePointer", &SeekNowhere);
  function();
}

}  // namespace kyd_test

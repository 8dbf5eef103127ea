// One owner per machine through a named mutex.
#include "platform/single_instance.h"

#include <windows.h>

#include "platform/unique_handle.h"

namespace platform {
namespace {

struct HandleCloser {
  using Value = HANDLE;
  static constexpr Value kInvalid = nullptr;
  static void Close(Value handle) noexcept { CloseHandle(handle); }
};

}  // namespace

struct SingleInstance::Handle {
  UniqueHandle<HandleCloser> mutex;
};

SingleInstance::SingleInstance(const std::wstring& name) {
  auto handle = std::make_unique<Handle>();
  const std::wstring global_name = L"Global\\" + name;
  const HANDLE mutex = CreateMutexW(nullptr, /*bInitialOwner=*/FALSE, global_name.c_str());
  const DWORD error = GetLastError();
  handle->mutex.Reset(mutex);
  if (mutex == nullptr || error == ERROR_ALREADY_EXISTS) {
    return;  // Closes the handle to the other owner's mutex at once.
  }
  handle_ = std::move(handle);
}

SingleInstance::~SingleInstance() = default;

InstanceOwner OwnerOfInstance(const std::wstring& name) {
  // No mutex grants this right: the call is refused after the name lookup. Even a briefly held
  // handle could keep the mutex of an ending run alive until the next run starts.
  constexpr DWORD kNoSuchRight = 0x8000;
  const std::wstring global_name = L"Global\\" + name;
  const HANDLE mutex = OpenMutexW(kNoSuchRight, /*bInheritHandle=*/FALSE, global_name.c_str());
  if (mutex != nullptr) {
    CloseHandle(mutex);  // under Wine, which grants every right
    return InstanceOwner::kAnotherProcess;
  }
  switch (GetLastError()) {
    case ERROR_FILE_NOT_FOUND:
      return InstanceOwner::kNone;
    case ERROR_ACCESS_DENIED:
      return InstanceOwner::kAnotherProcess;
    default:
      return InstanceOwner::kUnknown;
  }
}

}  // namespace platform

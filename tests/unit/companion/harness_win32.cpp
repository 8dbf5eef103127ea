#include <windows.h>

#include <memory>

#include "tests/unit/companion/harness.h"

namespace companion_test {

const char* const kCorvidName = "Corvid.dll";
const char* const kPelhamName = "pelham.dll";
const char* const kSealName = "keyward-seal.exe";
const bool kFilesHaveModes = false;

namespace {

struct CloseAny {
  void operator()(void* handle) const noexcept { CloseHandle(handle); }
};
using Handle = std::unique_ptr<void, CloseAny>;

// Opens a file that the child process inherits. Returns null on failure.
Handle OpenInherited(const std::filesystem::path& file, DWORD access, DWORD disposition) {
  SECURITY_ATTRIBUTES inherited{sizeof inherited, nullptr, TRUE};
  const HANDLE handle = CreateFileW(file.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                    &inherited, disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
  return Handle(handle == INVALID_HANDLE_VALUE ? nullptr : handle);
}

}  // namespace

Library::Library(const std::filesystem::path& file) : handle_(LoadLibraryW(file.c_str())) {}

Library::~Library() {
  if (handle_ != nullptr) {
    FreeLibrary(static_cast<HMODULE>(handle_));
  }
}

Library::Address Library::FindAddress(const char* name) const {
  return reinterpret_cast<Address>(GetProcAddress(static_cast<HMODULE>(handle_), name));
}

int RunProgram(const std::filesystem::path& program,
               const std::vector<std::filesystem::path>& arguments,
               const std::filesystem::path& input, const std::filesystem::path& output,
               const std::filesystem::path& errors) {
  // Quotes are enough: no test argument contains a quote or ends in a backslash.
  std::wstring command = L"\"" + program.native() + L"\"";
  for (const std::filesystem::path& argument : arguments) {
    command += L" \"" + argument.native() + L"\"";
  }
  const Handle in = OpenInherited(input, GENERIC_READ, OPEN_EXISTING);
  const Handle out = OpenInherited(output, GENERIC_WRITE, CREATE_ALWAYS);
  const Handle err = OpenInherited(errors, GENERIC_WRITE, CREATE_ALWAYS);
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdInput = in.get();
  startup.hStdOutput = out.get();
  startup.hStdError = err.get();
  PROCESS_INFORMATION process{};
  if (CreateProcessW(program.c_str(), command.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr,
                     &startup, &process) == FALSE) {
    return -1;
  }
  const Handle thread(process.hThread);
  const Handle started(process.hProcess);
  DWORD code = 0;
  if (WaitForSingleObject(started.get(), INFINITE) != WAIT_OBJECT_0 ||
      GetExitCodeProcess(started.get(), &code) == FALSE) {
    return -1;
  }
  return static_cast<int>(code);
}

}  // namespace companion_test

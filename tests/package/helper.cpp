// Operations for tests on a Windows machine, besides starting programs:
//
//   helper name NAME   holds the mutex of that name
//   helper file PATH   holds the file as a running program is held
//   helper run LINE    runs a command line and prints the whole exit code, of which a POSIX parent
//                      would see eight bits
//
// Started as schtasks, it records its command lines in C:\schtasks and stores definitions where the
// Task Scheduler does. If the file C:\schtasks\fails exists, it does its work, removes the file and
// fails; with C:\schtasks\always-fails it always fails.
//
// Prints "ready" once it holds the object, and holds it until end of input.
#include <windows.h>

#include <cstdio>
#include <string>

namespace {

int Hold(HANDLE held) {
  if (held == nullptr || held == INVALID_HANDLE_VALUE) {
    return 1;
  }
  std::puts("ready");
  std::fflush(stdout);
  while (std::getchar() != EOF) {
  }
  CloseHandle(held);
  return 0;
}

int Run(wchar_t* line) {
  STARTUPINFOW startup = {};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION process = {};
  if (CreateProcessW(nullptr, line, nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                     &process) == 0) {
    return 1;
  }
  WaitForSingleObject(process.hProcess, INFINITE);
  DWORD code = 0;
  GetExitCodeProcess(process.hProcess, &code);
  std::printf("%lu\n", code);
  return 0;
}

bool Exists(const wchar_t* path) {
  return GetFileAttributesW(path) != INVALID_FILE_ATTRIBUTES;
}

constexpr wchar_t kTask[] = L"C:\\windows\\system32\\Tasks\\Veltrane\\KydLogUploader";

void WriteDown(const std::wstring& line) {
  const HANDLE file = CreateFileW(L"C:\\schtasks\\lines.txt", FILE_APPEND_DATA, 0, nullptr,
                                  OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  DWORD written = 0;
  WriteFile(file, line.data(), static_cast<DWORD>(line.size() * sizeof(wchar_t)), &written,
            nullptr);
  CloseHandle(file);
}

int KeepTask(int count, wchar_t** arguments) {
  WriteDown(std::wstring(GetCommandLineW()) + L'\n');
  if (count < 5 || arguments[4] != std::wstring(L"Veltrane\\KydLogUploader")) {
    return 0;  // another task, which is not kept
  }
  bool done = false;
  if (arguments[1] == std::wstring(L"/Create")) {
    CreateDirectoryW(L"C:\\windows\\system32\\Tasks", nullptr);
    CreateDirectoryW(L"C:\\windows\\system32\\Tasks\\Veltrane", nullptr);
    done = CopyFileW(arguments[count - 1], kTask, FALSE) != 0;
  } else {
    done = DeleteFileW(kTask) != 0;
  }
  const bool fails =
      DeleteFileW(L"C:\\schtasks\\fails") != 0 || Exists(L"C:\\schtasks\\always-fails");
  return done && !fails ? 0 : 1;
}

}  // namespace

int wmain(int count, wchar_t** arguments) {
  if (std::wstring(arguments[0]).find(L"schtasks") != std::wstring::npos) {
    return KeepTask(count, arguments);
  }
  const std::wstring what = count == 3 ? arguments[1] : L"";
  if (what == L"name") {
    return Hold(CreateMutexW(nullptr, FALSE, arguments[2]));
  }
  if (what == L"file") {
    return Hold(CreateFileW(arguments[2], GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                            FILE_ATTRIBUTE_NORMAL, nullptr));
  }
  return what == L"run" ? Run(arguments[2]) : 64;
}

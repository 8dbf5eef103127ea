// Holds a file open until end of input: hold-open <path> [for-reading]
//
// The file is opened without sharing, or shared with readers and writers, so that it can be neither
// moved nor removed.
#include <windows.h>

#include <cstdio>

int wmain(int count, wchar_t** arguments) {
  if (count != 2 && count != 3) {
    return 64;
  }
  const bool for_reading = count == 3;
  const DWORD access = for_reading ? GENERIC_READ : GENERIC_READ | GENERIC_WRITE;
  const DWORD share = for_reading ? FILE_SHARE_READ | FILE_SHARE_WRITE : 0;
  const HANDLE file = CreateFileW(arguments[1], access, share, nullptr, OPEN_EXISTING,
                                  FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) {
    return 1;
  }
  while (std::getchar() != EOF) {
  }
  CloseHandle(file);
  return 0;
}

// Holds a file open and shares it with nobody until its own input ends: hold-open <path>
#include <windows.h>

#include <cstdio>

int wmain(int count, wchar_t** arguments) {
  if (count != 2) {
    return 64;
  }
  const HANDLE file = CreateFileW(arguments[1], GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                  OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) {
    return 1;
  }
  while (std::getchar() != EOF) {
  }
  CloseHandle(file);
  return 0;
}

// Standard streams as handles: a console gets wide text, everything else UTF-8.
#include "platform/console.h"

#include <windows.h>

#include <algorithm>
#include <string>

#include "platform/text.h"

namespace platform {
namespace {

// A console accepts a limited number of characters per call.
constexpr std::size_t kLargestConsoleWrite = 8000;
constexpr std::size_t kLargestWrite = std::size_t{1} << 20;

bool IsConsole(HANDLE stream) noexcept {
  DWORD mode = 0;
  return GetConsoleMode(stream, &mode) != FALSE;
}

bool WriteBytes(HANDLE stream, std::string_view bytes) {
  while (!bytes.empty()) {
    DWORD written = 0;
    if (!WriteFile(stream, bytes.data(), static_cast<DWORD>(std::min(bytes.size(), kLargestWrite)),
                   &written, nullptr) ||
        written == 0) {
      return false;
    }
    bytes.remove_prefix(written);
  }
  return true;
}

bool WriteToConsole(HANDLE console, std::wstring_view text) {
  while (!text.empty()) {
    DWORD written = 0;
    if (!WriteConsoleW(console, text.data(),
                       static_cast<DWORD>(std::min(text.size(), kLargestConsoleWrite)), &written,
                       nullptr) ||
        written == 0) {
      return false;
    }
    text.remove_prefix(written);
  }
  return true;
}

bool WriteText(HANDLE stream, std::wstring_view text) {
  std::wstring lines;
  lines.reserve(text.size());
  for (const wchar_t character : text) {
    if (character == L'\n') {
      lines += L'\r';
    }
    lines += character;
  }
  return IsConsole(stream) ? WriteToConsole(stream, lines) : WriteBytes(stream, ToUtf8(lines));
}

}  // namespace

bool WriteOutput(std::wstring_view text) {
  return WriteText(GetStdHandle(STD_OUTPUT_HANDLE), text);
}

bool WriteErrors(std::wstring_view text) {
  return WriteText(GetStdHandle(STD_ERROR_HANDLE), text);
}

bool ErrorsGoToTerminal() noexcept {
  return IsConsole(GetStdHandle(STD_ERROR_HANDLE));
}

}  // namespace platform

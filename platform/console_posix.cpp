// Standard streams as file descriptors.
#include "platform/console.h"

#include <unistd.h>

#include <cerrno>
#include <string>

#include "platform/error.h"
#include "platform/fd_posix.h"
#include "platform/text.h"

namespace platform {
namespace {

bool WriteBytes(int stream, std::string_view bytes) {
  if (WriteAll(stream, bytes.data(), bytes.size())) {
    return true;
  }
  SetLastError(NumberOfErrno(errno));
  return false;
}

}  // namespace

bool WriteOutput(std::wstring_view text) {
  return WriteBytes(STDOUT_FILENO, ToUtf8(text));
}

bool WriteErrors(std::wstring_view text) {
  return WriteBytes(STDERR_FILENO, ToUtf8(text));
}

bool ErrorsGoToTerminal() noexcept {
  return isatty(STDERR_FILENO) == 1;
}

}  // namespace platform

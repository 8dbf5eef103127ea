// Process settings of a program that runs unattended.
#pragma once

namespace platform {

// From then on a damaged library or an empty drive shows no message box (SetErrorMode), and no
// library is loaded from the current directory (SetDllDirectoryW). Must be the first call of a
// program. A program that links this file makes it before any other static object is constructed,
// because those look up folders.
void RunUnattended() noexcept;

}  // namespace platform

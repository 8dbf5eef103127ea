// Process settings of a program that runs unattended.
#pragma once

namespace platform {

// After this call a damaged library or an empty drive shows no message box (SetErrorMode), and no
// library is loaded from the current directory (SetDllDirectoryW). Must be the first call of a
// program. Linking this file is enough: it makes the call before any other static object is
// constructed, because some constructors look up folders.
void RunUnattended() noexcept;

}  // namespace platform

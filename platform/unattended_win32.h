// Process settings of a program that runs unattended.
#pragma once

namespace platform {

// From then on a damaged library or an empty drive shows no message box (SetErrorMode), and no
// library is loaded from the current directory (SetDllDirectoryW). The first call of a program; in
// one that links this file it is made before any other static object is constructed, because those
// look for folders.
void RunUnattended() noexcept;

}  // namespace platform

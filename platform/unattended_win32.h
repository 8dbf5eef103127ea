// A program that runs where no user watches.
#pragma once

namespace platform {

// The first call of a program: from then on no damaged library and no empty drive opens a box for
// the user (SetErrorMode), and no library is loaded from the current directory (SetDllDirectoryW).
void RunUnattended() noexcept;

}  // namespace platform

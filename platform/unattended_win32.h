// A program that runs where no user watches.
#pragma once

namespace platform {

// From then on no damaged library and no empty drive opens a box for the user (SetErrorMode), and
// no library is loaded from the current directory (SetDllDirectoryW). The first call of a program.
// One that contains it has made it already before its static objects are made, which ask for
// folders.
void RunUnattended() noexcept;

}  // namespace platform

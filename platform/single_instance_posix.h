// The kernel's table of locks.
#pragma once

#include <cstdint>
#include <string_view>

namespace platform {

// Whether a process holds an exclusive flock on a file, by the text of /proc/locks (proc(5)).
[[nodiscard]] bool HoldsExclusiveFlock(std::string_view locks, unsigned major_number,
                                       unsigned minor_number, std::uint64_t inode);

}  // namespace platform

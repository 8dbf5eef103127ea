// The beginning of a small file.
#pragma once

#include <cstddef>
#include <filesystem>

namespace companion {

struct FileHead {
  enum class State {
    kRead,
    kAbsent,
    kUnreadable,  ///< not a regular file (or a link to one), or refused by the system
  };
  State state = State::kUnreadable;
  std::size_t size = 0;  ///< bytes read; as many as there was room for when the file is longer
};

/// Reads up to `size` bytes from the start of the file into `buffer`, without a copy of them
/// staying anywhere else. Neither waits for a pipe, nor gets into the way of a process that is just
/// giving the file its name. Rests on CreateFileW and ReadFile, and on open(2) and read(2).
[[nodiscard]] FileHead ReadFileHead(const std::filesystem::path& file, char* buffer,
                                    std::size_t size);

}  // namespace companion

// Where errno becomes one of the program's numbers.
#pragma once

#include <string>

namespace platform {

// The Windows error number of an errno value. ENOENT is a missing file here; see RecordErrno.
[[nodiscard]] unsigned NumberOfErrno(int error_number) noexcept;

// Sets LastError from the errno value of a call that failed for a path, and tells a missing file
// from a missing folder on the way to it.
void RecordErrno(int error_number, const std::string& path);

}  // namespace platform

// Reads the tables of a library file without loading it, so that none of its code runs.
//
// Reads PE32+ (as Microsoft documents the PE format) and 64-bit little-endian ELF (System V ABI
// with the GNU hash table) on every platform.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace platform {

struct LibraryTables {
  enum class Format { kPe, kElf };
  enum class Machine { kX64, kX86, kArm64, kOther };

  Format format = Format::kPe;
  Machine machine = Machine::kOther;
  bool is_library = false;  // false for a program or an object file

  // Both are empty unless the machine is kX64.
  std::vector<std::string> imports;  // names of required libraries, in file order
  std::vector<std::string> exports;  // those of the requested names that it exports
};

// The format of the libraries that this program can load.
#ifdef _WIN32
inline constexpr LibraryTables::Format kLibraryFormat = LibraryTables::Format::kPe;
#else
inline constexpr LibraryTables::Format kLibraryFormat = LibraryTables::Format::kElf;
#endif

// Reads the tables of a file and looks up the given exports like the loader. std::nullopt if the
// file cannot be read; kErrorBadFormat if it is not a library, truncated or damaged. Delayed
// imports and exports without a name are ignored.
[[nodiscard]] std::optional<LibraryTables> ReadLibraryTables(
    const std::wstring& path, const std::vector<std::string>& exports = {});

// Copies up to `size` bytes from an offset in the file and returns their number, which is less only
// at the end of the file.
using ReadFileBytes =
    std::function<std::size_t(std::uint64_t offset, void* buffer, std::size_t size)>;

// The same for bytes from any source; std::nullopt if they are not a complete library. Any file
// takes at most a few thousand calls per name, and memory only for the names.
[[nodiscard]] std::optional<LibraryTables> ReadLibraryTables(
    const ReadFileBytes& read, const std::vector<std::string>& exports);

// C run-times that a module can be built for. Modules that pass each other strings and memory need
// the same one.
enum class RunTime {
  kMsvcrt,        // msvcrt.dll: MinGW
  kUniversal,     // ucrtbase.dll, api-ms-win-crt-*, vcruntime140*.dll, msvcp140*.dll: Visual C++
  kOlderOrDebug,  // Visual C++ before 2015, or its debug run-times
  kTheOnlyOne,    // Linux: the C library, whose heap every module uses
};

// The run-time of this program.
#if !defined(_WIN32)
inline constexpr RunTime kProgramRunTime = RunTime::kTheOnlyOne;
#elif defined(_MSC_VER) || defined(_UCRT)
inline constexpr RunTime kProgramRunTime = RunTime::kUniversal;
#else
inline constexpr RunTime kProgramRunTime = RunTime::kMsvcrt;
#endif

// Returns the imported run-time that shows that a module was built for a run-time other than
// `wanted`; empty if it imports that one, or none because it is linked statically.
[[nodiscard]] std::string ForeignRunTime(const std::vector<std::string>& imports,
                                         RunTime wanted = kProgramRunTime);

}  // namespace platform

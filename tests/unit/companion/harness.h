// Shared by the tests of the stand-ins: a folder with copies of the modules, loaded libraries, and
// the tool as a process. The tests check what a user of the modules sees.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace companion_test {

using Bytes = std::vector<std::uint8_t>;

// File names of the modules on this platform.
extern const char* const kCorvidName;
extern const char* const kPelhamName;
extern const char* const kSealName;
// Whether the platform has file modes.
extern const bool kFilesHaveModes;

// The folder in which the build put the modules.
std::filesystem::path BuiltModules();

Bytes ReadFile(const std::filesystem::path& file);
void WriteFile(const std::filesystem::path& file, const std::string& contents);

// A temporary folder with copies of the modules, so that each test has its own key files.
class ModuleFolder {
 public:
  ModuleFolder();
  ModuleFolder(const ModuleFolder&) = delete;
  ModuleFolder& operator=(const ModuleFolder&) = delete;
  ~ModuleFolder();

  [[nodiscard]] std::filesystem::path operator/(const std::filesystem::path& name) const {
    return folder_ / name;
  }
  // The names of all entries, sorted.
  [[nodiscard]] std::vector<std::string> Names() const;

 private:
  std::filesystem::path folder_;
};

// A library loaded from its full path.
class Library {
 public:
  explicit Library(const std::filesystem::path& file);
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;
  ~Library();

  [[nodiscard]] bool IsLoaded() const { return handle_ != nullptr; }
  // Returns the exported function, or null.
  template <typename Function>
  [[nodiscard]] Function Find(const char* name) const {
    return reinterpret_cast<Function>(FindAddress(name));
  }

 private:
  using Address = void (*)();
  [[nodiscard]] Address FindAddress(const char* name) const;

  void* handle_;
};

struct ToolResult {
  int exit_code = -1;
  std::string output;
  std::string errors;
};

// Runs keyward-seal of that folder and waits for it to end.
ToolResult RunSeal(const ModuleFolder& folder, const std::vector<std::filesystem::path>& arguments,
                   const std::string& input);

// Platform part: runs a program with its standard streams redirected to files. Returns its exit
// code, or -1 if it could not be started.
int RunProgram(const std::filesystem::path& program,
               const std::vector<std::filesystem::path>& arguments,
               const std::filesystem::path& input, const std::filesystem::path& output,
               const std::filesystem::path& errors);

// Returns a path that is unique across calls and processes.
std::filesystem::path UniqueTemporaryPath();

}  // namespace companion_test

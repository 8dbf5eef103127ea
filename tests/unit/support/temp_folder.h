// A folder of a test's own.
#pragma once

#include <string>
#include <string_view>

namespace kyd_test {

// A new, empty folder below the system's temporary folder; removed with everything in it at the
// end.
class TempFolder {
 public:
  TempFolder();
  // Below another folder, which must exist.
  explicit TempFolder(const std::wstring& parent);
  ~TempFolder();
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;

  // Full path without a separator at the end.
  [[nodiscard]] const std::wstring& Path() const noexcept { return path_; }

  // Path of an entry of the folder.
  [[nodiscard]] std::wstring operator/(std::wstring_view name) const;

  // Makes a sub-folder and gives its path.
  std::wstring MakeFolder(std::wstring_view name) const;

 private:
  std::wstring path_;
};

// Writes a whole file, replacing an older one. Throws std::runtime_error.
void WriteFileBytes(const std::wstring& path, std::string_view bytes);

// Reads a whole file. Throws std::runtime_error.
[[nodiscard]] std::string ReadFileBytes(const std::wstring& path);

// True when something has this path, be it a file, a folder or a link to nothing.
[[nodiscard]] bool PathExists(const std::wstring& path);

}  // namespace kyd_test

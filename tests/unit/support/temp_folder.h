// Temporary folders.
#pragma once

#include <string>
#include <string_view>

namespace kyd_test {

// A new, empty folder in the system's temporary folder; removed with its content at the end.
class TempFolder {
 public:
  TempFolder();
  // In another folder, which must exist.
  explicit TempFolder(const std::wstring& parent);
  ~TempFolder();
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;

  // Full path without a trailing separator.
  [[nodiscard]] const std::wstring& Path() const noexcept { return path_; }

  // Path of an entry of the folder.
  [[nodiscard]] std::wstring operator/(std::wstring_view name) const;

  // Creates a subfolder and returns its path.
  std::wstring MakeFolder(std::wstring_view name) const;

 private:
  std::wstring path_;
};

// Writes a whole file, replacing an older one. Throws std::runtime_error.
void WriteFileBytes(const std::wstring& path, std::string_view bytes);

// Reads a whole file. Throws std::runtime_error.
[[nodiscard]] std::string ReadFileBytes(const std::wstring& path);

// Whether the path exists, as a file, a folder or a dangling link.
[[nodiscard]] bool PathExists(const std::wstring& path);

}  // namespace kyd_test

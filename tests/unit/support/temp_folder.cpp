// Temporary folders, and reading and writing of whole files.
#include "tests/unit/support/temp_folder.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>
#include <system_error>

#include "platform/text.h"

namespace kyd_test {
namespace {

namespace fs = std::filesystem;

fs::path NativeOf(const std::wstring& path) {
  return {platform::ToNativePath(path)};
}

std::wstring MakeUniqueFolder(const fs::path& parent) {
  std::random_device random;
  for (int attempt = 0; attempt < 100; ++attempt) {
    const fs::path folder = parent / ("kyd-test-" + std::to_string(random()));
    // Returns false without an error if another process was faster.
    if (fs::create_directory(folder)) {
      return platform::FromNativePath(folder.native());
    }
  }
  throw std::runtime_error("cannot create a temporary folder");
}

}  // namespace

TempFolder::TempFolder() : path_(MakeUniqueFolder(fs::canonical(fs::temp_directory_path()))) {}

TempFolder::TempFolder(const std::wstring& parent) : path_(MakeUniqueFolder(NativeOf(parent))) {}

TempFolder::~TempFolder() {
  std::error_code ignored;
  fs::remove_all(NativeOf(path_), ignored);
}

std::wstring TempFolder::operator/(std::wstring_view name) const {
  return path_ + platform::kPathSeparator + std::wstring(name);
}

std::wstring TempFolder::MakeFolder(std::wstring_view name) const {
  std::wstring path = *this / name;
  fs::create_directories(NativeOf(path));
  return path;
}

void WriteFileBytes(const std::wstring& path, std::string_view bytes) {
  std::ofstream file(NativeOf(path), std::ios::binary | std::ios::trunc);
  file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  file.close();
  if (!file) {
    throw std::runtime_error("cannot write " + platform::ToUtf8(path));
  }
}

std::string ReadFileBytes(const std::wstring& path) {
  std::ifstream file(NativeOf(path), std::ios::binary);
  if (!file) {
    throw std::runtime_error("cannot read " + platform::ToUtf8(path));
  }
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

bool PathExists(const std::wstring& path) {
  return fs::symlink_status(NativeOf(path)).type() != fs::file_type::not_found;
}

}  // namespace kyd_test

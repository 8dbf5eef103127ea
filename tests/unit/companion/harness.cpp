#include "tests/unit/companion/harness.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <random>
#include <system_error>

#include "platform/module.h"

namespace companion_test {

namespace fs = std::filesystem;

fs::path BuiltModules() {
  const fs::path tests = platform::FolderOfModule(reinterpret_cast<const void*>(&BuiltModules));
  return tests.parent_path() / "bin";
}

fs::path UniqueTemporaryPath() {
  std::random_device random;
  return fs::temp_directory_path() /
         ("companion-test-" + std::to_string(random()) + "-" + std::to_string(random()));
}

Bytes ReadFile(const fs::path& file) {
  std::ifstream stream(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

void WriteFile(const fs::path& file, const std::string& contents) {
  std::ofstream stream(file, std::ios::binary);
  stream << contents;
  stream.close();
  if (!stream) {
    throw std::system_error(std::make_error_code(std::errc::io_error), file.u8string());
  }
}

ModuleFolder::ModuleFolder() : folder_(UniqueTemporaryPath()) {
  fs::create_directory(folder_);
  for (const char* name : {kCorvidName, kPelhamName, kSealName}) {
    fs::copy_file(BuiltModules() / name, folder_ / name);
  }
}

ModuleFolder::~ModuleFolder() {
  std::error_code ignored;  // A leftover temporary folder does no harm.
  fs::remove_all(folder_, ignored);
}

std::vector<std::string> ModuleFolder::Names() const {
  std::vector<std::string> names;
  for (const fs::directory_entry& entry : fs::directory_iterator(folder_)) {
    names.push_back(entry.path().filename().u8string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

ToolResult RunSeal(const ModuleFolder& folder, const std::vector<fs::path>& arguments,
                   const std::string& input) {
  const fs::path base = UniqueTemporaryPath();
  const auto name = [&base](const char* suffix) { return fs::path(base).concat(suffix); };
  WriteFile(name(".in"), input);
  ToolResult result;
  result.exit_code =
      RunProgram(folder / kSealName, arguments, name(".in"), name(".out"), name(".err"));
  const Bytes output = ReadFile(name(".out"));
  const Bytes errors = ReadFile(name(".err"));
  result.output.assign(output.begin(), output.end());
  result.errors.assign(errors.begin(), errors.end());
  std::error_code ignored;  // As above.
  for (const char* suffix : {".in", ".out", ".err"}) {
    fs::remove(name(suffix), ignored);
  }
  return result;
}

}  // namespace companion_test

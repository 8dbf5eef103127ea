// The tables of a library file.
#include "platform/library_tables.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "tests/fuzz/input.h"
#include "tests/fuzz/targets.h"

namespace kyd_fuzz {

namespace {

constexpr std::size_t kMostCalls = 300'000;
constexpr std::size_t kMostImports = 4096;

const std::vector<std::string>& Wanted() {
  static const std::vector<std::string> names = {"Corvid_CmpCphr_Decrypt", "Corvid_Write_EventLog"};
  return names;
}

}  // namespace

int FuzzLibraryTables(const std::uint8_t* bytes, std::size_t size) {
  std::size_t calls = 0;
  const platform::ReadFileBytes read = [&](std::uint64_t offset, void* buffer, std::size_t wanted) {
    ++calls;
    if (offset >= size) {
      return std::size_t{0};
    }
    const std::size_t count = std::min(wanted, size - static_cast<std::size_t>(offset));
    std::memcpy(buffer, bytes + offset, count);
    return count;
  };
  const std::optional<platform::LibraryTables> tables = platform::ReadLibraryTables(read, Wanted());
  Require(calls <= kMostCalls, "the number of reads is limited");
  if (!tables) {
    return 0;
  }
  Require(tables->imports.size() <= kMostImports, "the number of imports is limited");
  for (const std::string& name : tables->exports) {
    Require(std::find(Wanted().begin(), Wanted().end(), name) != Wanted().end(),
            "only requested names are found");
  }
  const std::string foreign = platform::ForeignRunTime(tables->imports);
  Require(foreign.empty() || std::find(tables->imports.begin(), tables->imports.end(), foreign) !=
                                 tables->imports.end(),
          "a foreign run-time is one of the imports");
  return 0;
}

}  // namespace kyd_fuzz

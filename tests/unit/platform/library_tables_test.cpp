#include "platform/library_tables.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "platform/error.h"
#include "platform/module.h"
#include "platform/text.h"
#include "tests/unit/support/temp_folder.h"

namespace {

using platform::LibraryTables;
using platform::ReadLibraryTables;
using platform::RunTime;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

using Names = std::vector<std::string>;

// The bytes of a file, written in any order.
class Content {
 public:
  Content& Number(std::size_t offset, std::uint64_t number, std::size_t size) {
    for (std::size_t i = 0; i < size; ++i) {
      Byte(offset + i) = static_cast<char>(number >> (8 * i));
    }
    return *this;
  }
  Content& U16(std::size_t offset, std::uint64_t number) { return Number(offset, number, 2); }
  Content& U32(std::size_t offset, std::uint64_t number) { return Number(offset, number, 4); }
  Content& U64(std::size_t offset, std::uint64_t number) { return Number(offset, number, 8); }
  // Including the NUL.
  Content& Text(std::size_t offset, const std::string& text) {
    Byte(offset + text.size()) = '\0';
    text.copy(&bytes_[offset], text.size());
    return *this;
  }
  [[nodiscard]] const std::string& Bytes() const { return bytes_; }

 private:
  char& Byte(std::size_t offset) {
    bytes_.resize(std::max(bytes_.size(), offset + 1));
    return bytes_[offset];
  }

  std::string bytes_;
};

// One section, at 0x200 in the file and 0x1000 in memory: imports from 0x1000, exports from 0x1400,
// names from 0x1800.
constexpr std::size_t kPeHeader = 0x80;
constexpr std::size_t InPe(std::size_t address) {
  return address - 0x1000 + 0x200;
}

Content Pe(const Names& imports, Names exports) {
  std::sort(exports.begin(), exports.end());
  Content file;
  file.Text(0, "MZ").U32(0x3C, kPeHeader).Text(kPeHeader, "PE");
  file.U16(kPeHeader + 4, 0x8664).U16(kPeHeader + 6, 1).U16(kPeHeader + 20, 240);
  file.U16(kPeHeader + 22, 0x2022);
  const std::size_t optional = kPeHeader + 24;
  file.U16(optional, 0x20B).U32(optional + 108, 16);
  file.U32(optional + 112, exports.empty() ? 0 : 0x1400);
  file.U32(optional + 120, imports.empty() ? 0 : 0x1000);
  const std::size_t section = optional + 240;
  file.U32(section + 12, 0x1000).U32(section + 16, 0x2000).U32(section + 20, 0x200);
  std::size_t name = 0x1800;
  for (std::size_t i = 0; i < imports.size(); ++i) {
    file.U32(InPe(0x1000) + 20 * i + 12, name).Text(InPe(name), imports[i]);
    name += imports[i].size() + 1;
  }
  file.U32(InPe(0x1400) + 24, exports.size()).U32(InPe(0x1400) + 32, 0x1430);
  for (std::size_t i = 0; i < exports.size(); ++i) {
    file.U32(InPe(0x1430) + 4 * i, name).Text(InPe(name), exports[i]);
    name += exports[i].size() + 1;
  }
  return file.Number(InPe(0x2FFF), 0, 1);
}

// One segment, at 0 in the file and 0x10000 in memory: dynamic entries from 0x100, symbols from
// 0x400, hash table from 0x600, names from 0x800.
constexpr std::uint64_t kElfBase = 0x10000;
constexpr std::size_t kElfHash = 0x600;

enum class Hash { kGnu, kSystemV };

Content Elf(const Names& imports, const Names& exports, Hash hash) {
  Content file;
  file.U32(0, 0x464C457F).U16(4, 0x0102).U16(16, 3).U16(18, 62);
  file.U64(32, 64).U16(54, 56).U16(56, 2);
  file.U32(64, 1).U64(64 + 16, kElfBase).U64(64 + 32, 0x1000);
  file.U32(120, 2).U64(120 + 8, 0x100).U64(120 + 16, kElfBase + 0x100).U64(120 + 32, 0x200);
  std::size_t entry = 0x100;
  const auto add_entry = [&](std::uint64_t tag, std::uint64_t value) {
    file.U64(entry, tag).U64(entry + 8, value);
    entry += 16;
  };
  std::size_t name = 1;
  for (const std::string& import : imports) {
    file.Text(0x800 + name, import);
    add_entry(1, name);
    name += import.size() + 1;
  }
  add_entry(5, kElfBase + 0x800);
  add_entry(6, kElfBase + 0x400);
  add_entry(hash == Hash::kGnu ? 0x6FFFFEF5 : 4, kElfBase + kElfHash);
  for (std::size_t i = 1; i <= exports.size(); ++i) {
    file.U32(0x400 + 24 * i, name).U16(0x400 + 24 * i + 6, 1).Text(0x800 + name, exports[i - 1]);
    name += exports[i - 1].size() + 1;
  }
  // One bucket with all symbols.
  if (hash == Hash::kSystemV) {
    file.U32(kElfHash, 1).U32(kElfHash + 4, exports.size() + 1);
    file.U32(kElfHash + 8, exports.size());
    for (std::size_t i = 0; i <= exports.size(); ++i) {
      file.U32(kElfHash + 12 + 4 * i, i == 0 ? 0 : i - 1);
    }
    return file.Number(0xFFF, 0, 1);
  }
  file.U32(kElfHash, 1).U32(kElfHash + 4, 1).U32(kElfHash + 8, 1).U32(kElfHash + 24, 1);
  for (std::size_t i = 0; i < exports.size(); ++i) {
    std::uint32_t value = 5381;
    for (const char character : exports[i]) {
      value = value * 33 + static_cast<std::uint8_t>(character);
    }
    const bool is_last = i + 1 == exports.size();
    file.U32(kElfHash + 28 + 4 * i, is_last ? value | 1U : value & ~1U);
  }
  return file.Number(0xFFF, 0, 1);
}

std::optional<LibraryTables> Read(const std::string& bytes, const Names& exports = {}) {
  const platform::ReadFileBytes read = [&](std::uint64_t offset, void* buffer, std::size_t size) {
    if (offset >= bytes.size()) {
      return std::size_t{0};
    }
    const std::size_t count = std::min(size, bytes.size() - static_cast<std::size_t>(offset));
    std::memcpy(buffer, bytes.data() + offset, count);
    return count;
  };
  return ReadLibraryTables(read, exports);
}

std::optional<LibraryTables> Read(const Content& file, const Names& exports = {}) {
  return Read(file.Bytes(), exports);
}

std::wstring TestModulePath() {
  const std::wstring program = platform::ProgramPath();
  return platform::FolderPrefixOf(program) + L"kyd_test_module" + platform::kLibraryEnding;
}

TEST(LibraryTables, ReadsARealLibrary) {
  const auto tables = ReadLibraryTables(TestModulePath(), {"KydTestNothing", "KydTestAnswer"});
  ASSERT_TRUE(tables);
  EXPECT_EQ(tables->format, platform::kLibraryFormat);
  EXPECT_EQ(tables->machine, LibraryTables::Machine::kX64);
  EXPECT_TRUE(tables->is_library);
  EXPECT_THAT(tables->exports, ElementsAre("KydTestAnswer"));
  EXPECT_EQ(platform::ForeignRunTime(tables->imports), "");
}

TEST(LibraryTables, DistinguishesAProgramFromALibrary) {
  const auto tables = ReadLibraryTables(platform::ProgramPath());
  ASSERT_TRUE(tables);
  EXPECT_FALSE(tables->is_library);
#ifdef _WIN32
  EXPECT_THAT(tables->imports, Contains(testing::StrCaseEq("KERNEL32.dll")));
#else
  EXPECT_THAT(tables->imports, Contains("libc.so.6"));
#endif
  EXPECT_EQ(platform::ForeignRunTime(tables->imports), "");
}

TEST(LibraryTables, ListsImportsAndTheRequestedExports) {
  const Names imports = {"KERNEL32.dll", "odd \xFF name", "msvcrt.dll"};
  const Names exports = {"Zeta", "alpha", "Alpha", "middle", "alphabet"};
  const Names wanted = {"alpha", "alph", "Zeta", "alphabet", "a", "zz", "", "Alpha"};
  const Content files[] = {Pe(imports, exports), Elf(imports, exports, Hash::kGnu),
                           Elf(imports, exports, Hash::kSystemV)};
  for (const Content& file : files) {
    const auto tables = Read(file, wanted);
    ASSERT_TRUE(tables);
    EXPECT_TRUE(tables->is_library);
    EXPECT_EQ(tables->machine, LibraryTables::Machine::kX64);
    EXPECT_EQ(tables->imports, imports);
    EXPECT_THAT(tables->exports, ElementsAre("alpha", "Zeta", "alphabet", "Alpha"));
  }
}

TEST(LibraryTables, AcceptsALibraryWithoutImportsAndExports) {
  for (const Content& file : {Pe({}, {}), Elf({}, {}, Hash::kSystemV)}) {
    const auto tables = Read(file, {"a"});
    ASSERT_TRUE(tables);
    EXPECT_THAT(tables->imports, IsEmpty());
    EXPECT_THAT(tables->exports, IsEmpty());
  }
}

TEST(LibraryTables, UndefinedSymbolIsNotAnExport) {
  for (const Hash hash : {Hash::kGnu, Hash::kSystemV}) {
    Content file = Elf({}, {"used"}, hash);
    ASSERT_THAT(Read(file, {"used"})->exports, ElementsAre("used"));
    file.U16(0x400 + 24 + 6, 0);
    EXPECT_THAT(Read(file, {"used"})->exports, IsEmpty());
  }
}

TEST(LibraryTables, PositionIndependentProgramIsNotALibrary) {
  Content file = Elf({}, {}, Hash::kGnu);
  ASSERT_TRUE(Read(file)->is_library);
  file.U64(0x100 + 48, 0x6FFFFFFB).U64(0x100 + 56, 0x08000000);
  EXPECT_FALSE(Read(file)->is_library);
}

TEST(LibraryTables, NamesOtherMachines) {
  const std::pair<int, LibraryTables::Machine> pe[] = {{0x14C, LibraryTables::Machine::kX86},
                                                       {0xAA64, LibraryTables::Machine::kArm64},
                                                       {0x1C4, LibraryTables::Machine::kOther}};
  for (const auto& [number, machine] : pe) {
    const auto tables = Read(Pe({"a.dll"}, {}).U16(kPeHeader + 4, static_cast<unsigned>(number)));
    ASSERT_TRUE(tables);
    EXPECT_EQ(tables->format, LibraryTables::Format::kPe);
    EXPECT_EQ(tables->machine, machine);
    EXPECT_THAT(tables->imports, IsEmpty());
  }
  const std::pair<int, LibraryTables::Machine> elf[] = {{3, LibraryTables::Machine::kX86},
                                                        {183, LibraryTables::Machine::kArm64},
                                                        {243, LibraryTables::Machine::kOther}};
  for (const auto& [number, machine] : elf) {
    const auto tables =
        Read(Elf({"a"}, {}, Hash::kGnu).U16(18, static_cast<unsigned>(number)).Number(4, 1, 1));
    ASSERT_TRUE(tables);
    EXPECT_EQ(tables->format, LibraryTables::Format::kElf);
    EXPECT_EQ(tables->machine, machine);
  }
  // The x32 ABI: x86-64 with 32-bit addresses.
  EXPECT_EQ(Read(Elf({}, {}, Hash::kGnu).Number(4, 1, 1))->machine, LibraryTables::Machine::kOther);
}

TEST(LibraryTables, RejectsATruncatedFile) {
  const Content files[] = {Pe({"a.dll"}, {"b"}), Elf({"a"}, {"b"}, Hash::kGnu),
                           Elf({"a"}, {"b"}, Hash::kSystemV)};
  for (const Content& file : files) {
    ASSERT_TRUE(Read(file));
    for (std::size_t size = 0; size < file.Bytes().size(); ++size) {
      EXPECT_FALSE(Read(file.Bytes().substr(0, size), {"b"})) << size;
    }
  }
}

TEST(LibraryTables, RejectsOtherFiles) {
  for (const char* const text :
       {"", "M", "MZ", "plain text, and enough of it to be a header", "\177EL", "#!/bin/sh\n"}) {
    EXPECT_FALSE(Read(std::string(text))) << text;
  }
  EXPECT_FALSE(Read(std::string(4096, '\0')));
  EXPECT_FALSE(Read(std::string(4096, '\xFF')));
  EXPECT_FALSE(Read("MZ" + std::string(4096, '\xFF')));
  for (std::string damaged : {Pe({}, {}).Bytes(), Elf({}, {}, Hash::kGnu).Bytes()}) {
    std::fill(damaged.begin() + kPeHeader + 6, damaged.end(), '\xFF');
    EXPECT_FALSE(Read(damaged));
  }
}

// Changes each byte in turn. Any result is accepted, but it must come quickly, and no read may go
// beyond the file.
TEST(LibraryTables, SurvivesAnyDamagedByte) {
  const Content files[] = {Pe({"a.dll", "b.dll"}, {"c", "d"}),
                           Elf({"a", "b"}, {"c", "d"}, Hash::kGnu),
                           Elf({"a", "b"}, {"c", "d"}, Hash::kSystemV)};
  for (const Content& file : files) {
    std::string bytes = file.Bytes();
    for (std::size_t i = 0; i < bytes.size(); ++i) {
      for (const char value : {'\xFF', '\x80', '\x01'}) {
        const char old = std::exchange(bytes[i], value);
        const auto tables = Read(bytes, {"c", "d", "e"});
        EXPECT_TRUE(!tables || tables->exports.size() <= 2) << i;
        bytes[i] = old;
      }
    }
  }
}

TEST(LibraryTables, SurvivesEndlessTables) {
  // Named imports up to the end of the file.
  Content pe = Pe({"a.dll"}, {});
  for (std::size_t entry = InPe(0x1000); entry + 20 <= InPe(0x3000); entry += 20) {
    pe.U32(entry + 12, 0x1001);
  }
  EXPECT_FALSE(Read(pe));
  // A hash chain that loops.
  Content elf = Elf({}, {"a"}, Hash::kSystemV);
  elf.U32(kElfHash + 12 + 4, 1);
  EXPECT_FALSE(Read(elf, {"b"}));
  EXPECT_THAT(Read(elf, {"a"})->exports, ElementsAre("a"));
  // No buckets, to provoke a division by zero.
  EXPECT_THAT(Read(Elf({}, {"a"}, Hash::kSystemV).U32(kElfHash, 0), {"a"})->exports, IsEmpty());
  EXPECT_THAT(Read(Elf({}, {"a"}, Hash::kGnu).U32(kElfHash, 0), {"a"})->exports, IsEmpty());
}

TEST(LibraryTables, ReportsWhyAFileIsNotALibrary) {
  const kyd_test::TempFolder folder;
  EXPECT_FALSE(ReadLibraryTables(folder / L"missing.dll"));
  EXPECT_EQ(platform::LastError(), platform::kErrorFileNotFound);
  EXPECT_FALSE(ReadLibraryTables(folder / L"missing/missing.dll"));
  EXPECT_EQ(platform::LastError(), platform::kErrorPathNotFound);
  EXPECT_FALSE(ReadLibraryTables(folder.MakeFolder(L"folder.dll")));
  EXPECT_EQ(platform::LastError(), platform::kErrorAccessDenied);
  kyd_test::WriteFileBytes(folder / L"text.dll", "no library");
  EXPECT_FALSE(ReadLibraryTables(folder / L"text.dll"));
  EXPECT_EQ(platform::LastError(), platform::kErrorBadFormat);
  kyd_test::WriteFileBytes(folder / L"empty.dll", "");
  EXPECT_FALSE(ReadLibraryTables(folder / L"empty.dll"));
  EXPECT_EQ(platform::LastError(), platform::kErrorBadFormat);
}

TEST(ForeignRunTime, IsTheFirstImportOfAForeignRunTime) {
  struct Case {
    RunTime wanted;
    Names imports;
    const char* foreign;
  };
  const Case cases[] = {
      {RunTime::kMsvcrt, {"KERNEL32.dll", "msvcrt.dll"}, ""},
      {RunTime::kMsvcrt, {"KERNEL32.dll", "MSVCRT.DLL"}, ""},
      {RunTime::kMsvcrt, {"KERNEL32.dll"}, ""},
      {RunTime::kMsvcrt, {}, ""},
      {RunTime::kMsvcrt, {"KERNEL32.dll", "VCRUNTIME140.dll", "ucrtbase.dll"}, "VCRUNTIME140.dll"},
      {RunTime::kMsvcrt, {"api-ms-win-crt-heap-l1-1-0.dll"}, "api-ms-win-crt-heap-l1-1-0.dll"},
      {RunTime::kMsvcrt, {"MSVCP140.dll"}, "MSVCP140.dll"},
      {RunTime::kMsvcrt, {"MSVCR120.dll"}, "MSVCR120.dll"},
      {RunTime::kUniversal, {"VCRUNTIME140_1.dll", "api-ms-win-crt-heap-l1-1-0.dll"}, ""},
      {RunTime::kUniversal, {"ucrtbase.dll"}, ""},
      {RunTime::kUniversal, {"msvcrt.dll", "MSVCP140.dll"}, ""},
      {RunTime::kUniversal, {"msvcrt.dll"}, "msvcrt.dll"},
      {RunTime::kUniversal, {"MSVCP140D.dll", "ucrtbased.dll"}, "MSVCP140D.dll"},
      {RunTime::kUniversal, {"VCRUNTIME140D.dll"}, "VCRUNTIME140D.dll"},
      {RunTime::kUniversal, {"VCRUNTIME140_1D.dll"}, "VCRUNTIME140_1D.dll"},
      {RunTime::kTheOnlyOne, {"libstdc++.so.6", "libc.so.6"}, ""},
      {RunTime::kTheOnlyOne, {"libc++.so.1", "libc.so.6"}, ""},
      {RunTime::kTheOnlyOne, {}, ""},
  };
  for (const Case& one : cases) {
    EXPECT_EQ(platform::ForeignRunTime(one.imports, one.wanted), one.foreign);
  }
}

}  // namespace

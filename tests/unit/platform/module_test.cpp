#include "platform/module.h"

#include <gtest/gtest.h>

#include "platform/text.h"
#include "tests/unit/support/temp_folder.h"

namespace {

std::wstring TestModulePath() {
  const std::wstring program = platform::ProgramPath();
  return platform::FolderPrefixOf(program) + L"kyd_test_module" + platform::kLibraryEnding;
}

int FunctionOfTheProgram() {
  return 1;
}

const void* AddressOfTheProgram() {
  return reinterpret_cast<const void*>(&FunctionOfTheProgram);
}

TEST(Module, ProgramPathIsTheFullPathOfTheProgram) {
  const std::wstring path = platform::ProgramPath();
#ifdef _WIN32
  const std::wstring name = L"\\kyd_platform_tests.exe";
  EXPECT_EQ(path.substr(1, 2), L":\\");
#else
  const std::wstring name = L"/kyd_platform_tests";
  EXPECT_EQ(path.substr(0, 1), L"/");
#endif
  ASSERT_GT(path.size(), name.size());
  EXPECT_EQ(path.substr(path.size() - name.size()), name);
}

TEST(Module, LoadsALibraryAndFindsItsExport) {
  const platform::Library library = platform::LoadLibraryFile(TestModulePath());
  ASSERT_TRUE(library);
  void* const address = platform::FindExport(library, "KydTestAnswer");
  ASSERT_NE(address, nullptr);
  EXPECT_EQ(reinterpret_cast<int (*)()>(address)(), 42);
}

TEST(Module, FindsNoMissingExport) {
  const platform::Library library = platform::LoadLibraryFile(TestModulePath());
  ASSERT_TRUE(library);
  EXPECT_EQ(platform::FindExport(library, "KydTestNothing"), nullptr);
  EXPECT_EQ(platform::FindExport(library, ""), nullptr);
  EXPECT_EQ(platform::FindExport(platform::Library(), "KydTestAnswer"), nullptr);
  // Not even a function that the program itself could find.
  EXPECT_EQ(platform::FindExport(platform::Library(), "malloc"), nullptr);
}

TEST(Module, LoadsNoMissingLibrary) {
  EXPECT_FALSE(platform::LoadLibraryFile(TestModulePath() + L".missing"));
  EXPECT_FALSE(platform::LoadLibraryFile(L"kyd_no_such_library"));
  EXPECT_FALSE(platform::LoadLibraryFile(L""));
}

TEST(Module, OfAnAddressOfTheProgramIsAlwaysTheSame) {
  const platform::Library first = platform::ModuleOfAddress(AddressOfTheProgram());
  const platform::Library second = platform::ModuleOfAddress(AddressOfTheProgram());
  ASSERT_TRUE(first);
  EXPECT_EQ(first.Get(), second.Get());
}

TEST(Module, OfAnAddressOfALibraryIsThatLibrary) {
  const platform::Library library = platform::LoadLibraryFile(TestModulePath());
  ASSERT_TRUE(library);
  const void* const address = platform::FindExport(library, "KydTestAnswer");
  const platform::Library found = platform::ModuleOfAddress(address);
  EXPECT_EQ(found.Get(), library.Get());
  EXPECT_NE(found.Get(), platform::ModuleOfAddress(AddressOfTheProgram()).Get());
}

TEST(Module, OfAnAddressKeepsTheLibraryLoaded) {
  platform::Library library = platform::LoadLibraryFile(TestModulePath());
  ASSERT_TRUE(library);
  const void* const address = platform::FindExport(library, "KydTestAnswer");
  ASSERT_NE(address, nullptr);
  platform::Library reference = platform::ModuleOfAddress(address);
  library.Reset();
  EXPECT_EQ(reinterpret_cast<int (*)()>(const_cast<void*>(address))(), 42);
  reference.Reset();
  EXPECT_FALSE(platform::ModuleOfAddress(address));
}

TEST(Module, FolderIsThatOfTheModuleWithTheAddress) {
  const std::wstring program = platform::ProgramPath();
  const std::wstring folder = program.substr(0, program.rfind(platform::kPathSeparator));
  EXPECT_EQ(platform::FolderOfModule(AddressOfTheProgram()), folder);
  // In a folder other than the program's, to distinguish the two.
  const kyd_test::TempFolder other;
  const std::wstring copy = other / (L"copy" + std::wstring(platform::kLibraryEnding));
  kyd_test::WriteFileBytes(copy, kyd_test::ReadFileBytes(TestModulePath()));
  const platform::Library library = platform::LoadLibraryFile(copy);
  ASSERT_TRUE(library);
  EXPECT_EQ(platform::FolderOfModule(platform::FindExport(library, "KydTestAnswer")), other.Path());
}

TEST(Module, FolderOfAnAddressOutsideAllModulesIsEmpty) {
  const int on_the_stack = 0;
  EXPECT_EQ(platform::FolderOfModule(&on_the_stack), L"");
  EXPECT_EQ(platform::FolderOfModule(nullptr), L"");
}

TEST(Module, OfAnAddressOutsideAllModulesIsInvalid) {
  const int on_the_stack = 0;
  EXPECT_FALSE(platform::ModuleOfAddress(&on_the_stack));
  EXPECT_FALSE(platform::ModuleOfAddress(nullptr));
}

}  // namespace

// Windows functions that do part of their work, or do it and report failure.
#include <gtest/gtest.h>
#include <windows.h>

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <iterator>

#include "platform/error.h"
#include "platform/file.h"
#include "platform/whole_file.h"
#include "tests/unit/support/failing_calls_win32.h"
#include "tests/unit/support/temp_folder.h"

namespace {

using kyd_test::PathExists;
using kyd_test::ReadFileBytes;
using kyd_test::ReplacedImport;
using kyd_test::WriteFileBytes;
using platform::File;

// The replacements call the originals by address, bypassing the patched import.
template <class Function>
Function* Real(const char* name) {
  const HMODULE library = GetModuleHandleW(L"kernel32.dll");
  return reinterpret_cast<Function*>(reinterpret_cast<void*>(GetProcAddress(library, name)));
}

using ReadFunction = BOOL WINAPI(HANDLE, void*, DWORD, DWORD*, OVERLAPPED*);
using WriteFunction = BOOL WINAPI(HANDLE, const void*, DWORD, DWORD*, OVERLAPPED*);
using PathFunction = BOOL WINAPI(const wchar_t*);
using MoveFunction = BOOL WINAPI(const wchar_t*, const wchar_t*);

BOOL Fail(DWORD error) {
  SetLastError(error);
  return FALSE;
}

std::ptrdiff_t EntriesOf(const kyd_test::TempFolder& folder) {
  return std::distance(std::filesystem::directory_iterator(folder.Path()), {});
}

class FileWin32Test : public testing::Test {
 protected:
  // Replaces the file by "new", which has to fail and leave nothing but the file with this content.
  void ExpectFailedReplacement(const char* content) {
    EXPECT_FALSE(platform::ReplaceWholeFile(path_, "new", 3, platform::FileReaders::kEveryone));
    EXPECT_EQ(platform::LastError(), DWORD{ERROR_UNEXP_NET_ERR});
    EXPECT_EQ(ReadFileBytes(path_), content);
    EXPECT_EQ(EntriesOf(folder_), 1);
  }

  kyd_test::TempFolder folder_;
  std::wstring path_ = folder_ / L"entry";
  std::wstring target_ = folder_ / L"target";
};

// ---- Reading and writing

BOOL WINAPI ReadOneByte(HANDLE file, void* buffer, DWORD size, DWORD* count, OVERLAPPED* place) {
  return Real<ReadFunction>("ReadFile")(file, buffer, std::min(size, DWORD{1}), count, place);
}

TEST_F(FileWin32Test, ContinuesAfterAShortRead) {
  WriteFileBytes(path_, "content");
  File file = File::OpenExclusive(path_);
  char bytes[10] = {};
  const ReplacedImport read("ReadFile", &ReadOneByte);
  EXPECT_EQ(file.Read(bytes, sizeof bytes), 7U);
  EXPECT_STREQ(bytes, "content");
}

int reads = 0;

BOOL WINAPI ReadOneByteThenFail(HANDLE file, void* buffer, DWORD size, DWORD* count,
                                OVERLAPPED* place) {
  return ++reads > 1 ? Fail(ERROR_CRC) : ReadOneByte(file, buffer, size, count, place);
}

TEST_F(FileWin32Test, FailureAfterAShortReadIsAFailure) {
  WriteFileBytes(path_, "content");
  File file = File::OpenExclusive(path_);
  char bytes[10] = {};
  reads = 0;
  const ReplacedImport read("ReadFile", &ReadOneByteThenFail);
  EXPECT_EQ(file.Read(bytes, sizeof bytes), std::nullopt);
  EXPECT_EQ(platform::LastError(), DWORD{ERROR_CRC});
}

BOOL WINAPI ReadAndFail(HANDLE file, void* buffer, DWORD size, DWORD* count, OVERLAPPED* place) {
  Real<ReadFunction>("ReadFile")(file, buffer, size, count, place);
  return Fail(ERROR_UNEXP_NET_ERR);
}

TEST_F(FileWin32Test, FailedReadIsAFailureWhateverItRead) {
  WriteFileBytes(path_, "content");
  File file = File::OpenExclusive(path_);
  char bytes[10] = {};
  const ReplacedImport read("ReadFile", &ReadAndFail);
  EXPECT_EQ(file.Read(bytes, sizeof bytes), std::nullopt);
  EXPECT_EQ(platform::LastError(), DWORD{ERROR_UNEXP_NET_ERR});
}

BOOL WINAPI WriteTwoBytes(HANDLE file, const void* bytes, DWORD size, DWORD* count,
                          OVERLAPPED* place) {
  return Real<WriteFunction>("WriteFile")(file, bytes, std::min(size, DWORD{2}), count, place);
}

BOOL WINAPI WriteToFullDisk(HANDLE /*file*/, const void* /*bytes*/, DWORD /*size*/, DWORD* count,
                            OVERLAPPED* /*place*/) {
  *count = 0;
  return Fail(ERROR_DISK_FULL);
}

TEST_F(FileWin32Test, ReportsTheLengthOfAShortWrite) {
  const platform::CFileAccessSecurity security(0);
  File file = File::OpenForWriting(path_, security);
  {
    const ReplacedImport write("WriteFile", &WriteTwoBytes);
    EXPECT_EQ(file.Write("content", 7), 2U);
  }
  const ReplacedImport write("WriteFile", &WriteToFullDisk);
  EXPECT_EQ(file.Write("ntent", 5), std::nullopt);
  EXPECT_EQ(platform::LastError(), platform::kErrorDiskFull);
}

BOOL WINAPI WriteAndFail(HANDLE file, const void* bytes, DWORD size, DWORD* count,
                         OVERLAPPED* place) {
  Real<WriteFunction>("WriteFile")(file, bytes, size, count, place);
  return Fail(ERROR_UNEXP_NET_ERR);
}

TEST_F(FileWin32Test, FailedWriteIsNotRepeated) {
  const platform::CFileAccessSecurity security(0);
  File file = File::OpenForWriting(path_, security);
  {
    const ReplacedImport write("WriteFile", &WriteAndFail);
    EXPECT_FALSE(file.WriteAll("content", 7));
    EXPECT_EQ(platform::LastError(), DWORD{ERROR_UNEXP_NET_ERR});
  }
  file.Close();
  EXPECT_EQ(ReadFileBytes(path_), "content");
}

TEST_F(FileWin32Test, FailedWriteAbandonsTheWholeFile) {
  WriteFileBytes(path_, "old");
  const ReplacedImport write("WriteFile", &WriteAndFail);
  ExpectFailedReplacement("old");
}

// ---- The end of the file

DWORD seek_error = 0;

DWORD WINAPI SeekToLargestPlace(HANDLE /*file*/, LONG /*low*/, LONG* /*high*/, DWORD /*method*/) {
  SetLastError(seek_error);
  return INVALID_SET_FILE_POINTER;  // also the lower half of an offset
}

TEST_F(FileWin32Test, DistinguishesAFailedSeekFromAnOffsetThatLooksLikeOne) {
  const platform::CFileAccessSecurity security(0);
  File file = File::OpenForWriting(path_, security);
  const ReplacedImport seek("SetFilePointer", &SeekToLargestPlace);
  seek_error = ERROR_SUCCESS;
  EXPECT_TRUE(file.SeekToEnd());
  seek_error = ERROR_SEEK;
  EXPECT_FALSE(file.SeekToEnd());
  EXPECT_EQ(platform::LastError(), DWORD{ERROR_SEEK});
}

// ---- Moves

BOOL WINAPI MoveAndFail(const wchar_t* source, const wchar_t* target) {
  Real<MoveFunction>("MoveFileW")(source, target);
  return Fail(ERROR_UNEXP_NET_ERR);
}

BOOL WINAPI FailToMove(const wchar_t* /*source*/, const wchar_t* /*target*/) {
  return Fail(ERROR_UNEXP_NET_ERR);
}

BOOL WINAPI LoseSource(const wchar_t* source, const wchar_t* /*target*/) {
  Real<PathFunction>("DeleteFileW")(source);
  return Fail(ERROR_ALREADY_EXISTS);
}

TEST_F(FileWin32Test, MoveReportedAsFailedCountsAsDone) {
  WriteFileBytes(path_, "content");
  const ReplacedImport move("MoveFileW", &MoveAndFail);
  EXPECT_TRUE(platform::MoveWithoutReplacing(path_, target_));
  EXPECT_EQ(ReadFileBytes(target_), "content");
  EXPECT_FALSE(PathExists(path_));
}

TEST_F(FileWin32Test, FailedMoveKeepsItsErrorNumber) {
  WriteFileBytes(path_, "content");
  const ReplacedImport move("MoveFileW", &FailToMove);
  EXPECT_FALSE(platform::MoveWithoutReplacing(path_, target_));
  EXPECT_EQ(platform::LastError(), DWORD{ERROR_UNEXP_NET_ERR});
  EXPECT_EQ(ReadFileBytes(path_), "content");
  EXPECT_FALSE(PathExists(target_));
}

TEST_F(FileWin32Test, ExistingTargetIsNotMistakenForTheMovedFile) {
  WriteFileBytes(path_, "new");
  WriteFileBytes(target_, "old");
  const ReplacedImport move("MoveFileW", &LoseSource);
  EXPECT_FALSE(platform::MoveWithoutReplacing(path_, target_));
  EXPECT_EQ(platform::LastError(), platform::kErrorAlreadyExists);
  EXPECT_EQ(ReadFileBytes(target_), "old");
}

DWORD WINAPI KnowNothing(const wchar_t* /*path*/) {
  SetLastError(ERROR_BAD_NETPATH);
  return INVALID_FILE_ATTRIBUTES;
}

TEST_F(FileWin32Test, MoveOfUnknownOutcomeFailsAndRemovesNothing) {
  WriteFileBytes(path_, "content");
  {
    const ReplacedImport move("MoveFileW", &MoveAndFail);
    const ReplacedImport look("GetFileAttributesW", &KnowNothing);
    EXPECT_FALSE(platform::MoveWithoutReplacing(path_, target_));
    EXPECT_EQ(platform::LastError(), DWORD{ERROR_UNEXP_NET_ERR});
  }
  EXPECT_EQ(ReadFileBytes(target_), "content");
}

BOOL WINAPI ReplaceAndFail(const wchar_t* source, const wchar_t* target, DWORD flags) {
  Real<BOOL WINAPI(const wchar_t*, const wchar_t*, DWORD)>("MoveFileExW")(source, target, flags);
  return Fail(ERROR_UNEXP_NET_ERR);
}

TEST_F(FileWin32Test, ReplacementReportedAsFailedKeepsTheNewFile) {
  WriteFileBytes(path_, "old");
  const ReplacedImport move("MoveFileExW", &ReplaceAndFail);
  ExpectFailedReplacement("new");
}

BOOL WINAPI RemoveAndFail(const wchar_t* path) {
  Real<PathFunction>("DeleteFileW")(path);
  return Fail(ERROR_UNEXP_NET_ERR);
}

TEST_F(FileWin32Test, FileThatIsGoneCountsAsRemoved) {
  WriteFileBytes(path_, "content");
  const ReplacedImport remove("DeleteFileW", &RemoveAndFail);
  EXPECT_TRUE(platform::RemoveFile(path_));
  EXPECT_FALSE(PathExists(path_));
}

}  // namespace

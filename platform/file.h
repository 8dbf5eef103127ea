// Files: opening, reading, writing, moving and removing. Failures leave their number in LastError.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/file_security.h"

namespace platform {

// Who may read a new file. On Windows the folder's access rules decide.
enum class FileReaders {
  kOwner,     // mode 0600
  kEveryone,  // mode 0666, less the process's umask
};

class File {
 public:
  // For reading, nobody else may have it open (GENERIC_READ, share mode 0, OPEN_EXISTING,
  // FILE_ATTRIBUTE_ARCHIVE); on Linux with a non-blocking exclusive flock, where another's lock is
  // a sharing violation and a file system without locks opens the file all the same. Only a regular
  // file can be opened.
  [[nodiscard]] static File OpenExclusive(const std::wstring& path);

  // For reading beside other readers (GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING).
  [[nodiscard]] static File OpenShared(const std::wstring& path);

  // For reading beside everybody, and in nobody's way: others may open the file as they like, to
  // write to it or to remove it (GENERIC_READ with every share mode, OPEN_EXISTING; no lock on
  // Linux).
  [[nodiscard]] static File OpenUnobtrusive(const std::wstring& path);

  // For writing, made when missing, others may read (GENERIC_WRITE, FILE_SHARE_READ, OPEN_ALWAYS).
  // Writing starts at the beginning of the file.
  [[nodiscard]] static File OpenForWriting(const std::wstring& path,
                                           const CFileAccessSecurity& security);

  // For writing to a file that must not exist yet, kErrorAlreadyExists when it does (GENERIC_WRITE,
  // share mode 0, CREATE_NEW; O_EXCL).
  [[nodiscard]] static File CreateNew(const std::wstring& path, FileReaders readers);

  File() noexcept;
  File(File&&) noexcept;
  File& operator=(File&&) noexcept;
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  ~File();

  [[nodiscard]] bool IsOpen() const noexcept { return handle_ != nullptr; }

  // The size in bytes (GetFileSizeEx).
  [[nodiscard]] std::optional<std::uint64_t> Size() const;

  // Reads up to `size` bytes; gives the number read, less than asked only at the end of the file
  // (ReadFile, synchronous).
  [[nodiscard]] std::optional<std::size_t> Read(void* buffer, std::size_t size);

  // The same from a place in the file, counted from its beginning (ReadFile with an offset, pread).
  // 0 for a place behind the end. Where Read goes on afterwards is left open.
  [[nodiscard]] std::optional<std::size_t> ReadAt(std::uint64_t offset, void* buffer,
                                                  std::size_t size);

  // Moves the file pointer to the end (SetFilePointer, FILE_END).
  [[nodiscard]] bool SeekToEnd();

  // Writes up to `size` bytes; gives the number written, which may be less (WriteFile).
  [[nodiscard]] std::optional<std::size_t> Write(const void* bytes, std::size_t size);

  // Writes all of it: a short write is continued, a failure or a write of nothing ends the writing.
  [[nodiscard]] bool WriteAll(const void* bytes, std::size_t size);

  // Waits until everything written is on the disk (FlushFileBuffers, fsync).
  [[nodiscard]] bool Flush();

  void Close() noexcept;

 private:
  struct Handle;
  explicit File(std::unique_ptr<Handle> handle) noexcept;

  std::unique_ptr<Handle> handle_;
};

// A text file opened for appending in UTF-8: a new or empty file gets a byte-order mark, and a line
// feed lands as CR LF. Others may read and write it meanwhile (_wfsopen with "a, ccs=UTF-8" and
// _SH_DENYNO; the same bytes on Linux).
class Utf8AppendFile {
 public:
  explicit Utf8AppendFile(const std::wstring& path);
  ~Utf8AppendFile();
  Utf8AppendFile(const Utf8AppendFile&) = delete;
  Utf8AppendFile& operator=(const Utf8AppendFile&) = delete;

  [[nodiscard]] bool IsOpen() const noexcept { return handle_ != nullptr; }

  // Writes text up to its first NUL (fputws). An unpaired surrogate becomes U+FFFD.
  void Write(const std::wstring& text);

 private:
  struct Handle;
  std::unique_ptr<Handle> handle_;
};

// Moves a file without ever replacing one: an existing target is kErrorAlreadyExists, a missing
// folder kErrorPathNotFound (MoveFileW). There is no moment in which the content exists nowhere. A
// move that was done counts as done, whatever the system reports; when that is unknown, nothing is
// removed.
[[nodiscard]] bool MoveWithoutReplacing(const std::wstring& source, const std::wstring& target);

// Moves a file over an older one (MoveFileExW with MOVEFILE_REPLACE_EXISTING and
// MOVEFILE_WRITE_THROUGH).
[[nodiscard]] bool MoveReplacing(const std::wstring& source, const std::wstring& target);

// DeleteFileW.
[[nodiscard]] bool RemoveFile(const std::wstring& path);

// PathIsDirectoryW.
[[nodiscard]] bool IsFolder(const std::wstring& path);

// Whether there is a file, or a link to one, that is not a folder; it is not opened
// (GetFileAttributesW, stat). Nothing when that cannot be told (LastError).
[[nodiscard]] std::optional<bool> FileExists(const std::wstring& path);

// Makes a folder with all its missing parents (SHCreateDirectoryExW without security attributes).
// False when it could not be made, and when it was there already.
[[nodiscard]] bool CreateFolders(const std::wstring& path);

}  // namespace platform

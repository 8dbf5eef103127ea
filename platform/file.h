// Files: opening, reading, writing, moving and removing. Failures leave their number in LastError.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/file_security.h"

namespace platform {

// Who may read a new file. On Windows the folder's access rules apply.
enum class FileReaders {
  kOwner,     // mode 0600
  kEveryone,  // mode 0666, less the process's umask
};

class File {
 public:
  // For exclusive reading (GENERIC_READ, share mode 0, OPEN_EXISTING, FILE_ATTRIBUTE_ARCHIVE); on
  // Linux with a non-blocking exclusive flock: a lock of another process is a sharing violation,
  // and on a file system without locks the file is opened anyway. Only a regular file can be
  // opened.
  [[nodiscard]] static File OpenExclusive(const std::wstring& path);

  // For reading, shared with other readers (GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING).
  [[nodiscard]] static File OpenShared(const std::wstring& path);

  // For reading without restricting others, who may write to the file or remove it (GENERIC_READ
  // with every share mode, OPEN_EXISTING; no lock on Linux).
  [[nodiscard]] static File OpenUnobtrusive(const std::wstring& path);

  // For writing, created if missing; others may read (GENERIC_WRITE, FILE_SHARE_READ, OPEN_ALWAYS).
  // Writing starts at the beginning of the file.
  [[nodiscard]] static File OpenForWriting(const std::wstring& path,
                                           const CFileAccessSecurity& security);

  // Creates a file for writing; kErrorAlreadyExists if it exists (GENERIC_WRITE, share mode 0,
  // CREATE_NEW; O_EXCL).
  [[nodiscard]] static File CreateNew(const std::wstring& path, FileReaders readers);

  File() noexcept;
  File(File&&) noexcept;
  File& operator=(File&&) noexcept;
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  ~File();

  [[nodiscard]] bool IsOpen() const noexcept { return handle_ != nullptr; }

  // Returns the size in bytes (GetFileSizeEx).
  [[nodiscard]] std::optional<std::uint64_t> Size() const;

  // Reads up to `size` bytes and returns the number read, which is less only at the end of the file
  // (ReadFile, synchronous).
  [[nodiscard]] std::optional<std::size_t> Read(void* buffer, std::size_t size);

  // The same from an offset (ReadFile with an offset, pread). 0 at or beyond the end. The position
  // of the next Read is unspecified.
  [[nodiscard]] std::optional<std::size_t> ReadAt(std::uint64_t offset, void* buffer,
                                                  std::size_t size);

  // Moves the file pointer to the end (SetFilePointer, FILE_END).
  [[nodiscard]] bool SeekToEnd();

  // Writes up to `size` bytes and returns the number written, which may be less (WriteFile).
  [[nodiscard]] std::optional<std::size_t> Write(const void* bytes, std::size_t size);

  // Writes all bytes, continuing after short writes. False on an error or a write of 0 bytes.
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
// feed is written as CR LF. Other processes may read and write it at the same time (_wfsopen with
// "a, ccs=UTF-8" and _SH_DENYNO; the same bytes on Linux).
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
// folder kErrorPathNotFound (MoveFileW). The content exists under at least one name at any time. A
// completed move counts as done whatever the system reports; if in doubt, nothing is removed.
[[nodiscard]] bool MoveWithoutReplacing(const std::wstring& source, const std::wstring& target);

// Moves a file and replaces an existing target (MoveFileExW with MOVEFILE_REPLACE_EXISTING and
// MOVEFILE_WRITE_THROUGH).
[[nodiscard]] bool MoveReplacing(const std::wstring& source, const std::wstring& target);

// DeleteFileW.
[[nodiscard]] bool RemoveFile(const std::wstring& path);

// PathIsDirectoryW.
[[nodiscard]] bool IsFolder(const std::wstring& path);

// Returns whether there is a file, or a link to one, that is not a folder; it is not opened
// (GetFileAttributesW, stat). std::nullopt if unknown (LastError).
[[nodiscard]] std::optional<bool> FileExists(const std::wstring& path);

// Creates a folder and its missing parents (SHCreateDirectoryExW without security attributes).
// Returns false if it could not be created or already exists.
[[nodiscard]] bool CreateFolders(const std::wstring& path);

}  // namespace platform

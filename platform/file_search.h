// Iterates over the entries of a folder.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/error.h"

namespace platform {

struct FoundEntry {
  std::wstring name;
  bool is_folder = false;  // a link to a folder counts as a folder
};

// Metadata of an entry. It may lag behind while the file is being written.
struct EntryDetails {
  std::uint64_t size = 0;     // bytes
  std::int64_t modified = 0;  // last write, seconds since 1970
};

// FindFirstFileW, FindNextFileW, FindClose. Entries come in the order of the system's search,
// unsorted.
class FileSearch {
 public:
  // An empty search, to be assigned to.
  FileSearch();
  // Finds names with the extension, such as ".log", ignoring case (on Windows also names whose
  // short form has it); with an empty extension every entry, "." and ".." included. The folder is
  // first opened by First.
  FileSearch(std::wstring folder, std::wstring ending);
  ~FileSearch();
  FileSearch(FileSearch&&) noexcept;
  FileSearch& operator=(FileSearch&&) noexcept;
  FileSearch(const FileSearch&) = delete;
  FileSearch& operator=(const FileSearch&) = delete;

  // Starts or restarts the search. False if nothing matches (kErrorFileNotFound) or the folder
  // cannot be searched (kErrorPathNotFound for a missing one).
  [[nodiscard]] bool First();

  // Moves to the next entry. False if there is none (kErrorNoMoreFiles) or reading fails; the
  // current entry then stays.
  [[nodiscard]] bool Next();

  // The current entry; valid after First or Next returned true, until the next call of either.
  [[nodiscard]] const FoundEntry& Current() const noexcept { return entry_; }

  // Call right after First or Next returned false: 0 at the end of the entries, otherwise the error
  // that ended the search early.
  [[nodiscard]] unsigned Failure() const noexcept {
    const unsigned error = LastError();
    return error == (handle_ == nullptr ? kErrorFileNotFound : kErrorNoMoreFiles) ? 0 : error;
  }

  // Size and time of the current entry (WIN32_FIND_DATAW, fstatat). std::nullopt if unavailable:
  // kErrorFileNotFound if the entry has been removed.
  [[nodiscard]] std::optional<EntryDetails> Details() const;

  // Ends the search, as does the destructor.
  void Close() noexcept;

 private:
  struct Handle;
  std::wstring folder_;
  std::wstring ending_;
  std::unique_ptr<Handle> handle_;  // null until the first entry was found
  FoundEntry entry_;
};

}  // namespace platform

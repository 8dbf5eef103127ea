// The entries of a folder, one after the other.
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

// What the folder knows of an entry. While a file is being written it may lag behind.
struct EntryDetails {
  std::uint64_t size = 0;     // bytes
  std::int64_t modified = 0;  // last write, seconds since 1970
};

// FindFirstFileW, FindNextFileW, FindClose. The order is that of the system's search, nothing is
// sorted.
class FileSearch {
 public:
  // Takes the place of a search until one is assigned to it.
  FileSearch();
  // Names that have the ending, such as ".log", without regard to case (on Windows also names whose
  // short form has it); with an empty ending every entry, "." and ".." included. The folder is not
  // touched before First.
  FileSearch(std::wstring folder, std::wstring ending);
  ~FileSearch();
  FileSearch(FileSearch&&) noexcept;
  FileSearch& operator=(FileSearch&&) noexcept;
  FileSearch(const FileSearch&) = delete;
  FileSearch& operator=(const FileSearch&) = delete;

  // Starts the search, or starts it again. False when nothing matches (kErrorFileNotFound) or the
  // folder cannot be searched (kErrorPathNotFound for a missing one).
  [[nodiscard]] bool First();

  // Goes on to the next entry. False when there is none (kErrorNoMoreFiles) or the folder cannot be
  // read on; the current entry then stays.
  [[nodiscard]] bool Next();

  // The current entry; valid after First or Next returned true, until the next call of either.
  [[nodiscard]] const FoundEntry& Current() const noexcept { return entry_; }

  // Right after First or Next gave false: 0 at the end of the entries, otherwise the number of what
  // kept the folder from being read to its end.
  [[nodiscard]] unsigned Failure() const noexcept {
    const unsigned error = LastError();
    return error == (handle_ == nullptr ? kErrorFileNotFound : kErrorNoMoreFiles) ? 0 : error;
  }

  // Size and time of the current entry (WIN32_FIND_DATAW, fstatat). Nothing when they cannot be
  // had: kErrorFileNotFound for an entry that has vanished.
  [[nodiscard]] std::optional<EntryDetails> Details() const;

  // Ends the search; the destructor does it otherwise.
  void Close() noexcept;

 private:
  struct Handle;
  std::wstring folder_;
  std::wstring ending_;
  std::unique_ptr<Handle> handle_;  // null before the first entry was found
  FoundEntry entry_;
};

}  // namespace platform

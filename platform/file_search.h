// The entries of a folder that match a pattern, one after the other.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

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
  FileSearch();
  ~FileSearch();
  FileSearch(const FileSearch&) = delete;
  FileSearch& operator=(const FileSearch&) = delete;

  // Starts the search of folder + separator + "*.*" (every entry, "." and ".." included) or folder
  // + separator + "*.ending" (names that end so, without regard to case; on Windows
  // also a name whose short form ends so). False when nothing matches (kErrorFileNotFound) or the
  // folder cannot be searched (kErrorPathNotFound for a missing one).
  [[nodiscard]] bool First(const std::wstring& pattern);

  // Goes on to the next entry. False when there is none (kErrorNoMoreFiles) or the folder cannot be
  // read on; the current entry then stays.
  [[nodiscard]] bool Next();

  // The current entry; valid after First or Next returned true, until the next call of either.
  [[nodiscard]] const FoundEntry& Current() const noexcept { return entry_; }

  // Size and time of the current entry (WIN32_FIND_DATAW, fstatat). Nothing when they cannot be
  // had: kErrorFileNotFound for an entry that has vanished.
  [[nodiscard]] std::optional<EntryDetails> Details() const;

  // Ends the search; the destructor does it otherwise.
  void Close() noexcept;

 private:
  struct Handle;
  std::unique_ptr<Handle> handle_;
  FoundEntry entry_;
};

}  // namespace platform

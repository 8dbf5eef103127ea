// Writes under a temporary name, then renames.
#include "platform/whole_file.h"

#include "platform/error.h"
#include "platform/process.h"

namespace platform {
namespace {

// The number of names that a process tries. Names that are taken were left behind by killed
// processes with the same id.
constexpr int kMostAttempts = 100;

using Publisher = bool (*)(const std::wstring& draft, const std::wstring& path);

bool WriteDraft(File& draft, const void* bytes, std::size_t size) {
  return draft.WriteAll(bytes, size) && draft.Flush();
}

bool Write(const std::wstring& path, const void* bytes, std::size_t size, FileReaders readers,
           Publisher publish) {
  std::wstring name;
  File draft;
  for (int attempt = 0; attempt < kMostAttempts && !draft.IsOpen(); ++attempt) {
    name = path + L'.' + std::to_wstring(ProcessId()) + L'-' + std::to_wstring(attempt);
    draft = File::CreateNew(name, readers);
    if (!draft.IsOpen() && LastError() != kErrorAlreadyExists) {
      return false;
    }
  }
  if (!draft.IsOpen()) {
    return false;
  }
  const bool written = WriteDraft(draft, bytes, size);
  unsigned error = written ? 0 : LastError();
  draft.Close();  // on Windows an open file cannot be renamed or removed
  if (written && publish(name, path)) {
    return true;
  }
  if (written) {
    error = LastError();
  }
  static_cast<void>(RemoveFile(name));
  SetLastError(error);
  return false;
}

}  // namespace

bool ReplaceWholeFile(const std::wstring& path, const void* bytes, std::size_t size,
                      FileReaders readers) {
  return Write(path, bytes, size, readers, &MoveReplacing);
}

bool WriteWholeFile(const std::wstring& path, const void* bytes, std::size_t size,
                    FileReaders readers) {
  return Write(path, bytes, size, readers, &MoveWithoutReplacing);
}

}  // namespace platform

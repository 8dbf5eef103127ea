// A draft beside the file, which then takes its place.
#include "status/replaced_file.h"

#include <cstddef>
#include <optional>

#include "platform/error.h"
#include "platform/file.h"
#include "platform/process.h"

namespace kyd {

namespace {

bool WriteBytes(const std::wstring& path, const std::string& bytes) {
  platform::CFileAccessSecurity security(platform::CFileAccessSecurity::kDefault);
  security.Build();
  platform::File file = platform::File::OpenForWriting(path, security);
  std::size_t done = 0;
  while (file.IsOpen() && done < bytes.size()) {
    const std::optional<std::size_t> count = file.Write(bytes.data() + done, bytes.size() - done);
    if (!count || *count == 0) {
      return false;
    }
    done += *count;
  }
  return file.IsOpen();
}

// True for a missing file as well; a folder is refused by the move.
bool CanBeReplaced(const std::wstring& path) {
  return !platform::FileExists(path).value_or(false) ||
         platform::File::OpenUnobtrusive(path).IsOpen();
}

}  // namespace

bool ReplaceFile(const std::wstring& path, const std::string& bytes) {
  if (!CanBeReplaced(path)) {
    return false;
  }
  // Each process has a draft of its own: a shared one could be moved while another run writes it.
  const std::wstring draft = path + L"." + std::to_wstring(platform::ProcessId()) + L".new";
  // Left behind by an earlier process with the same number that was killed.
  static_cast<void>(platform::RemoveFile(draft));
  if (WriteBytes(draft, bytes) && platform::MoveReplacing(draft, path)) {
    return true;
  }
  const unsigned error = platform::LastError();
  static_cast<void>(platform::RemoveFile(draft));
  platform::SetLastError(error);
  return false;
}

}  // namespace kyd

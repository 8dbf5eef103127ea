// Records the accounts with failed files.
#include "run/upload_run.h"

#include "debuglog/cdebuglog.h"

namespace kyd {

void AddUploadErrInfo(UploadResultReport& report, const std::wstring& folder,
                      std::uint32_t count) noexcept {
  try {
    report.errors.push_back({folder, count});
  } catch (...) {
    Log().WriteLogA("<AddUploadErrInfo> exception");
  }
}

}  // namespace kyd

// Builds the run's block from the text resources and appends it.
#include "uploader/result_file.h"

#include <vector>

#include "debuglog/cdebuglog.h"
#include "debuglog/format.h"
#include "logtree/log_tree.h"
#include "platform/file.h"
#include "platform/file_security.h"
#include "platform/string_table.h"
#include "platform/text.h"
#include "uploader/result_texts.h"

namespace kyd {

namespace {

constexpr std::size_t kResourceCapacity = 2048;  // characters

template <class... Arguments>
std::wstring FormatResource(const UploadResultReport& report, unsigned id,
                            const Arguments&... arguments) {
  const std::wstring format = platform::LoadText(report.instance, id, kResourceCapacity);
  return FormatBounded(kResourceCapacity, format.c_str(), arguments...);
}

void AppendToFile(const std::wstring& path, const std::wstring& text) {
  // The file takes the default security of its folder.
  platform::CFileAccessSecurity security(platform::CFileAccessSecurity::kDefault);
  security.Build();
  platform::File file = platform::File::OpenForWriting(path, security);
  // At any other position the block would overwrite another one.
  if (!file.IsOpen() || !file.SeekToEnd()) {
    return;
  }
  const std::vector<std::uint8_t> bytes = platform::ToUtf16Le(text);
  // A block that cannot be written is lost; there is no message for it.
  static_cast<void>(file.WriteAll(bytes.data(), bytes.size()));
}

}  // namespace

std::wstring ResultText(const UploadResultReport& report, const std::wstring& logDir,
                        const platform::LocalTime& time, std::uint32_t accountCount,
                        std::uint32_t sendCount, std::uint32_t noSendCount,
                        std::uint32_t fileOkCount, std::uint32_t fileErrorCount) {
  std::wstring text = FormatResource(report, KYD_TEXT_RESULT_TIME, time.year, time.month, time.day,
                                     time.hour, time.minute, time.second);
  text += FormatResource(report, KYD_TEXT_RESULT_COUNTS, accountCount, sendCount, noSendCount,
                         fileOkCount, fileErrorCount);
  if (!report.errors.empty()) {
    text += FormatResource(report, KYD_TEXT_RESULT_ERRORS, logDir);
    for (const UploadErrInfo& error : report.errors) {
      text += FormatBounded(kResultLineCapacity, kResultErrorLine, error.folder, error.count);
    }
  }
  return text + kResultBlockEnd;
}

void OutputResult(const UploadResultReport& report, const std::wstring& logDir,
                  std::uint32_t accountCount, std::uint32_t sendCount, std::uint32_t noSendCount,
                  std::uint32_t fileOkCount, std::uint32_t fileErrorCount,
                  const platform::Clock& clock) {
  try {
    if (fileOkCount == 0 && fileErrorCount == 0) {
      return;
    }
    // Read only once, so that text and file name have the same date.
    const platform::LocalTime now = clock.Local();
    AppendToFile(LogTree(logDir).ResultPath(now),
                 ResultText(report, logDir, now, accountCount, sendCount, noSendCount, fileOkCount,
                            fileErrorCount));
  } catch (...) {
    Log().WriteLogA("<OutputResult> exception");
  }
}

}  // namespace kyd

// The daily result file: LogDir\UploadResult\UploadResultYYYYMMDD.log.
//
// UTF-16LE without a byte-order mark, lines end in CR LF, one block per run, appended. The program
// never creates the folder, and never truncates, rotates or deletes the file.
#pragma once

#include <cstdint>
#include <string>

#include "platform/clock.h"
#include "run/upload_run.h"

namespace kyd {

// Returns the block of one run, from the text resources 101 to 103.
[[nodiscard]] std::wstring ResultText(const UploadResultReport& report, const std::wstring& logDir,
                                      const platform::LocalTime& time, std::uint32_t accountCount,
                                      std::uint32_t sendCount, std::uint32_t noSendCount,
                                      std::uint32_t fileOkCount, std::uint32_t fileErrorCount);

// Appends the run's block to the day's file, unless no file was sent or failed. Failures to open or
// write it are ignored.
void OutputResult(const UploadResultReport& report, const std::wstring& logDir,
                  std::uint32_t accountCount, std::uint32_t sendCount, std::uint32_t noSendCount,
                  std::uint32_t fileOkCount, std::uint32_t fileErrorCount,
                  const platform::Clock& clock = platform::SystemClock());

}  // namespace kyd

// The daily result file: LogDir\UploadResult\UploadResultYYYYMMDD.log.
//
// UTF-16LE without a byte-order mark, lines end in CR LF, one block per run, appended. The program
// never creates the folder, and never truncates, rotates or deletes the file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "run/upload_run.h"

namespace kyd {

// The block of one run, from the text resources 101 to 103.
[[nodiscard]] std::wstring ResultText(const UploadResultReport& report, const std::wstring& logDir,
                                      const platform::LocalTime& time, std::uint32_t accountCount,
                                      std::uint32_t sendCount, std::uint32_t noSendCount,
                                      std::uint32_t fileOkCount, std::uint32_t fileErrorCount);

// Takes bytes and gives how many of them it took, which may be fewer; nothing when it failed.
using ByteWriter = std::function<std::optional<std::size_t>(const void* bytes, std::size_t size)>;

// Writes everything: a short write is continued, a failure or a write of nothing ends the writing.
void WriteAll(const ByteWriter& write, const std::vector<std::uint8_t>& bytes);

// Appends the run's block to the day's file; nothing at all when no file was sent or failed.
// Whatever cannot be opened or written is left, silently.
void OutputResult(const UploadResultReport& report, const std::wstring& logDir,
                  std::uint32_t accountCount, std::uint32_t sendCount, std::uint32_t noSendCount,
                  std::uint32_t fileOkCount, std::uint32_t fileErrorCount,
                  const platform::Clock& clock = platform::SystemClock());

}  // namespace kyd

// The parts of a check; each adds its findings.
#pragma once

#include <cstdint>
#include <string>

#include "status/check.h"

namespace kyd {

// The uploader's libraries, as files.
void CheckLibraries(Check& check);

// The folders below the log directory and the files that wait in them.
void CheckTree(Check& check, Progress& progress);

// Another running copy, and the clock.
void CheckMachine(Check& check, std::int64_t now);

// Settings and folder of the diagnostic log.
void CheckDiagnosticLog(Check& check);

// Bytes; a run writes a few kilobytes.
inline constexpr std::uint64_t kLeastRoom = std::uint64_t{1} << 20;

// Adds a finding if the disk of a folder has too little space for what a run writes there.
void CheckRoom(Check& check, const std::wstring& folder);

// Returns the full path of the uploader in its folder.
[[nodiscard]] std::wstring UploaderPath(const Check& check);

}  // namespace kyd

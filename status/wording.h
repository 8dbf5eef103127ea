// Wording shared by the reports.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "status/survey.h"

namespace kyd {

// Returns a text that is safe to show on a terminal: control and direction characters become
// U+FFFD.
[[nodiscard]] std::wstring Printable(std::wstring_view text);

// Like Printable, but different texts stay different, also in UTF-8: every replaced character,
// U+FFFD itself and an unpaired surrogate become U+FFFD and six hexadecimal digits. A line feed is
// kept.
[[nodiscard]] std::wstring PrintableAndDistinct(std::wstring_view text);

// "1 file", "2 files".
[[nodiscard]] std::wstring Counted(std::uint64_t count, std::wstring_view one,
                                   std::wstring_view more);

// "45 s", "12 min", "3 h 5 min", "2 d 4 h".
[[nodiscard]] std::wstring DurationText(std::int64_t seconds);

// "999 B", "1.5 KiB", "20.0 GiB".
[[nodiscard]] std::wstring SizeText(std::uint64_t bytes);

// "yes", "no", "unknown".
[[nodiscard]] std::wstring CredentialsText(const AccountStatus& account);

// Returns how long the oldest file has waited; "-" if none is waiting or its time is unknown.
[[nodiscard]] std::wstring OldestText(const WaitingFiles& waiting, std::int64_t now);

// Returns "missing", "access denied" or the error number.
[[nodiscard]] std::wstring ErrorText(unsigned error);

// Returns a one-line summary of a survey.
[[nodiscard]] std::wstring SummaryText(const Survey& survey);

}  // namespace kyd

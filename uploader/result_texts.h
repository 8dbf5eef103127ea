// The texts of the result file as wide formats, for code that parses the file or has no text
// resources.
#pragma once

#include <cstddef>

#include "uploader/string_table.h"

namespace kyd {

#define KYD_WIDE_(text) L##text
#define KYD_WIDE(text) KYD_WIDE_(text)

// A block is the concatenation of these; the third one and the account lines are present only if an
// account had errors.
inline constexpr wchar_t kResultTimeText[] = KYD_WIDE(KYD_TEXT_101);
inline constexpr wchar_t kResultCountsText[] = KYD_WIDE(KYD_TEXT_102);
inline constexpr wchar_t kResultErrorsText[] = KYD_WIDE(KYD_TEXT_103);
inline constexpr wchar_t kResultErrorLine[] = L"           [%s / %d]\r\n";
inline constexpr std::size_t kResultLineCapacity = 260;  // characters, including the terminator
inline constexpr wchar_t kResultBlockEnd[] = L"\r\n\r\n";

#undef KYD_WIDE
#undef KYD_WIDE_

}  // namespace kyd

// The text resources as a table, where the platform has no string resources.
#pragma once

#include "platform/string_table.h"
#include "uploader/string_table.h"

namespace kyd {

#define KYD_WIDE_(text) L##text
#define KYD_WIDE(text) KYD_WIDE_(text)

inline constexpr platform::StringResource kTexts[] = {
    {KYD_TEXT_RESULT_TIME, KYD_WIDE(KYD_TEXT_101)},
    {KYD_TEXT_RESULT_COUNTS, KYD_WIDE(KYD_TEXT_102)},
    {KYD_TEXT_RESULT_ERRORS, KYD_WIDE(KYD_TEXT_103)},
    {0, nullptr},
};

#undef KYD_WIDE
#undef KYD_WIDE_

}  // namespace kyd

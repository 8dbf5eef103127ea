// The text resources as a table, where the platform has no string resources.
#pragma once

#include "platform/string_table.h"
#include "uploader/result_texts.h"

namespace kyd {

inline constexpr platform::StringResource kTexts[] = {
    {KYD_TEXT_RESULT_TIME, kResultTimeText},
    {KYD_TEXT_RESULT_COUNTS, kResultCountsText},
    {KYD_TEXT_RESULT_ERRORS, kResultErrorsText},
    {0, nullptr},
};

}  // namespace kyd

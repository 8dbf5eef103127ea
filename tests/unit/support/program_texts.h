// The instance whose text resources the program uses.
#pragma once

#ifdef _WIN32
#include <windows.h>
#else
#include "uploader/text_table_posix.h"
#endif

#include "platform/string_table.h"

namespace kyd_test {

inline platform::InstanceHandle ProgramTexts() {
#ifdef _WIN32
  return GetModuleHandleW(nullptr);
#else
  return kyd::kTexts;
#endif
}

}  // namespace kyd_test

// The one run object of the process.
#pragma once

#include <array>

#include "upload/account_run.h"

namespace kyd {

struct UploadRun : AccountRun {
  platform::InstanceHandle instance = nullptr;
  std::array<wchar_t, 260> workBuffer{};  // belongs to the object's contract; nothing reads it
};

}  // namespace kyd

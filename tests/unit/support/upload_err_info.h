// A matcher for the report's records.
#pragma once

#include <gmock/gmock.h>

#include <cstdint>
#include <string>

#include "run/upload_run.h"

namespace kyd_test {

inline testing::Matcher<kyd::UploadErrInfo> IsRecord(const std::wstring& folder,
                                                     std::uint32_t count) {
  return testing::AllOf(testing::Field("folder", &kyd::UploadErrInfo::folder, folder),
                        testing::Field("count", &kyd::UploadErrInfo::count, count));
}

}  // namespace kyd_test

// Entry on Linux.
#include <optional>
#include <string>
#include <vector>

#include "platform/string_table.h"
#include "platform/text.h"
#include "uploader/run.h"
#include "uploader/string_table.h"

namespace {

#define KYD_WIDE_(text) L##text
#define KYD_WIDE(text) KYD_WIDE_(text)

constexpr platform::StringResource kTexts[] = {
    {KYD_TEXT_RESULT_TIME, KYD_WIDE(KYD_TEXT_101)},
    {KYD_TEXT_RESULT_COUNTS, KYD_WIDE(KYD_TEXT_102)},
    {KYD_TEXT_RESULT_ERRORS, KYD_WIDE(KYD_TEXT_103)},
    {0, nullptr},
};

}  // namespace

int main(int argc, char** argv) {
  return kyd::RunUploader(kTexts, [argc, argv]() -> std::optional<std::vector<std::wstring>> {
    std::vector<std::wstring> arguments;
    for (int i = 0; i < argc; ++i) {
      arguments.push_back(platform::FromNativePath(argv[i]));
    }
    return arguments;
  });
}

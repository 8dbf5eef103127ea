#include "tests/unit/support/log_capture.h"

#include <algorithm>
#include <regex>

#include "debuglog/module_logs.h"
#include "platform/text.h"
#include "tests/unit/support/temp_folder.h"
#include "tests/unit/support/test_registry.h"

namespace kyd_test {

namespace {

// Lives as long as the process, because the logger reads its settings only every 10 seconds.
class CapturedLog {
 public:
  CapturedLog() {
    const std::wstring key = L"SOFTWARE\\Veltrane\\Veltrane Keyward\\Corvid";
    registry_.SetDword(key, L"OutputLog", 16);
    registry_.SetText(key, L"OutputLogDir", folder_.Path());
    corvid::RegisterModuleLog();
  }

  [[nodiscard]] std::string Text() const {
    const std::wstring separator(1, platform::kPathSeparator);
    const std::wstring path = folder_ / (L"DebugSSO" + separator + L"KydLogUploader.log");
    return PathExists(path) ? ReadFileBytes(path) : std::string();
  }

 private:
  TempFolder folder_;
  TestRegistry registry_;
};

const CapturedLog& TheLog() {
  static const CapturedLog log;
  return log;
}

std::string WithoutCarriageReturns(std::string text) {
  text.erase(std::remove(text.begin(), text.end(), '\r'), text.end());
  return text;
}

}  // namespace

LogCapture::LogCapture() : start_(TheLog().Text().size()) {}

std::vector<std::string> LogCapture::Messages() const {
  const std::string text = WithoutCarriageReturns(TheLog().Text().substr(start_));
  static const std::regex prefix(
      R"((\xEF\xBB\xBF)?\d{4}/\d\d/\d\dT\d\d:\d\d:\d\d\.\d{3}, SID:\d{6,}, PID:\d{6,}, TID:\d{6,}, )");
  std::vector<std::string> messages;
  std::sregex_iterator match(text.begin(), text.end(), prefix);
  while (match != std::sregex_iterator()) {
    const auto from = static_cast<std::size_t>(match->position() + match->length());
    ++match;
    const std::size_t to =
        match == std::sregex_iterator() ? text.size() : static_cast<std::size_t>(match->position());
    std::string message = text.substr(from, to - from);
    if (message.size() >= 2 && message.compare(message.size() - 2, 2, ",\n") == 0) {
      message.resize(message.size() - 2);
    }
    messages.push_back(message);
  }
  return messages;
}

}  // namespace kyd_test

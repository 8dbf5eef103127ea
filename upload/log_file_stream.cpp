// Opens and closes log files through the library's file streams.
#include "upload/log_file_stream.h"

#include "platform/text.h"

namespace kyd {

LogFileStream::LogFileStream(const std::wstring& path)
    : stream_(concurrency::streams::file_stream<std::uint8_t>::open_istream(
                  platform::ToNativePath(path), std::ios_base::in)
                  .get()) {}

LogFileStream::~LogFileStream() {
  try {
    Close();
  } catch (...) {
    // Another failure is already being handled, and nothing was written that could be lost.
  }
}

void LogFileStream::Close() {
  if (stream_.is_valid() && stream_.is_open()) {
    stream_.close().wait();
  }
}

}  // namespace kyd

// A log file, opened as the body of a request.
#pragma once

#include <cpprest/filestream.h>

#include <string>

namespace kyd {

// Owns the stream and closes it on every path: on Windows, an open stream keeps a task of the
// library waiting when the process ends.
class LogFileStream {
 public:
  // Opens the file for reading and waits for it. Throws a standard exception on failure.
  explicit LogFileStream(const std::wstring& path);
  ~LogFileStream();
  LogFileStream(const LogFileStream&) = delete;
  LogFileStream& operator=(const LogFileStream&) = delete;

  [[nodiscard]] const concurrency::streams::istream& Get() const noexcept { return stream_; }

  // Closes the stream and waits for it. Throws what the library throws.
  void Close();

 private:
  concurrency::streams::istream stream_;
};

}  // namespace kyd

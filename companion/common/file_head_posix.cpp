// The beginning of a small file, on Linux.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "companion/common/file_head.h"

namespace companion {
namespace {

FileHead ReadDescriptor(int descriptor, char* buffer, std::size_t size) {
  struct stat status = {};
  if (::fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode)) {
    return {};
  }
  FileHead head{FileHead::State::kRead, 0};
  while (head.size < size) {
    const ssize_t count = ::read(descriptor, buffer + head.size, size - head.size);
    if (count == 0) {
      break;
    }
    if (count > 0) {
      head.size += static_cast<std::size_t>(count);
    } else if (errno != EINTR) {
      return {};
    }
  }
  return head;
}

}  // namespace

FileHead ReadFileHead(const std::filesystem::path& file, char* buffer, std::size_t size) {
  // Non-blocking, so that opening a pipe returns at once and can be refused.
  const int descriptor = ::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (descriptor < 0) {
    return {errno == ENOENT ? FileHead::State::kAbsent : FileHead::State::kUnreadable, 0};
  }
  const FileHead head = ReadDescriptor(descriptor, buffer, size);
  ::close(descriptor);
  return head;
}

}  // namespace companion

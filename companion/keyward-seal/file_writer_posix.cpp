// Files that appear whole or not at all, on Linux.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>

#include "companion/keyward-seal/file_writer.h"

namespace companion {
namespace {

std::error_code LastError() {
  return {errno, std::generic_category()};
}

class FileDescriptor {
 public:
  explicit FileDescriptor(int descriptor) noexcept : descriptor_(descriptor) {}
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  ~FileDescriptor() {
    if (descriptor_ >= 0) {
      ::close(descriptor_);
    }
  }

  [[nodiscard]] int Get() const noexcept { return descriptor_; }

 private:
  int descriptor_;
};

// Removes the temporary file on every path on which it has not become the real one.
class TemporaryName {
 public:
  explicit TemporaryName(std::string name) : name_(std::move(name)) {}
  TemporaryName(const TemporaryName&) = delete;
  TemporaryName& operator=(const TemporaryName&) = delete;
  ~TemporaryName() {
    if (!name_.empty()) {
      ::unlink(name_.c_str());
    }
  }

  void Dismiss() noexcept { name_.clear(); }

 private:
  std::string name_;
};

std::error_code WriteAll(int descriptor, ByteView bytes) {
  while (bytes.size > 0) {
    const ssize_t written = ::write(descriptor, bytes.data, bytes.size);
    if (written < 0 && errno != EINTR) {
      return LastError();
    }
    if (written > 0) {
      bytes.data += written;
      bytes.size -= static_cast<std::size_t>(written);
    }
  }
  return ::fsync(descriptor) == 0 ? std::error_code() : LastError();
}

// Gives the temporary file its name only when that name is free.
std::error_code PublishNew(const char* temporary, const char* name) {
  if (::renameat2(AT_FDCWD, temporary, AT_FDCWD, name, RENAME_NOREPLACE) == 0) {
    return {};
  }
  if (errno != EINVAL && errno != ENOSYS) {
    return LastError();
  }
  // The file system cannot rename without replacing; a second name is as exclusive.
  if (::link(temporary, name) != 0) {
    return LastError();
  }
  ::unlink(temporary);
  return {};
}

std::error_code Write(const std::filesystem::path& file, ByteView bytes, bool replace) {
  std::string temporary = file.native() + ".XXXXXX";
  const FileDescriptor descriptor(::mkostemp(temporary.data(), O_CLOEXEC));
  if (descriptor.Get() < 0) {
    return LastError();
  }
  TemporaryName cleanup(temporary);
  // mkostemp makes the file with mode 0600.
  if (const std::error_code error = WriteAll(descriptor.Get(), bytes)) {
    return error;
  }
  if (replace) {
    if (::rename(temporary.c_str(), file.c_str()) != 0) {
      return LastError();
    }
  } else if (const std::error_code error = PublishNew(temporary.c_str(), file.c_str())) {
    return error;
  }
  cleanup.Dismiss();
  return {};
}

}  // namespace

std::error_code WriteReplacing(const std::filesystem::path& file, ByteView bytes) {
  return Write(file, bytes, /*replace=*/true);
}

std::error_code WriteNew(const std::filesystem::path& file, ByteView bytes) {
  return Write(file, bytes, /*replace=*/false);
}

}  // namespace companion

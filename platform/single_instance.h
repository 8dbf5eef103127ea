// One owner of a name per machine, for all logged-on users at once.
#pragma once

#include <memory>
#include <string>

namespace platform {

// Windows: a named mutex "Global\" + name, created and held, never waited on (CreateMutexW). Linux:
// /run/lock/<name>, held with a non-blocking exclusive flock; where that file system has no locks,
// a name of Unix sockets that stands for the file. A process that ends, however, gives the name
// back.
class SingleInstance {
 public:
  explicit SingleInstance(const std::wstring& name);
  ~SingleInstance();
  SingleInstance(const SingleInstance&) = delete;
  SingleInstance& operator=(const SingleInstance&) = delete;

  // False when another process owns the name or the name could not be had.
  [[nodiscard]] bool IsOwner() const noexcept { return handle_ != nullptr; }

 private:
  struct Handle;
  std::unique_ptr<Handle> handle_;
};

enum class InstanceOwner {
  kNone,
  kSomebody,
  kUnknown,      // LastError
  kUnavailable,  // nobody could become the owner (LastError)
};

// Whether a process owns a name, told without ever having a part in it: a program that starts
// meanwhile becomes the owner as if nobody had asked. (OpenMutexW for a right that nobody has, so
// that no handle keeps the mutex; /proc/locks.)
[[nodiscard]] InstanceOwner OwnerOfInstance(const std::wstring& name);

}  // namespace platform

// A name with at most one owner per machine, across all logged-on users.
#pragma once

#include <memory>
#include <string>

namespace platform {

// Windows: a named mutex "Global\" + name, created and held, never waited on (CreateMutexW). Linux:
// /run/lock/<name>, held with a non-blocking exclusive flock; where that file system has no locks,
// an abstract Unix socket instead. The name is released when the process ends, however it ends.
class SingleInstance {
 public:
  explicit SingleInstance(const std::wstring& name);
  ~SingleInstance();
  SingleInstance(const SingleInstance&) = delete;
  SingleInstance& operator=(const SingleInstance&) = delete;

  // False if another process owns the name or the name could not be acquired.
  [[nodiscard]] bool IsOwner() const noexcept { return handle_ != nullptr; }

 private:
  struct Handle;
  std::unique_ptr<Handle> handle_;
};

enum class InstanceOwner {
  kNone,
  kAnotherProcess,
  kUnknown,      // LastError
  kUnavailable,  // no process can become the owner (LastError)
};

// Returns whether a process owns a name. The check never holds the name, so a program that starts
// at the same time can still become the owner. (OpenMutexW for a right that no mutex grants, so
// that no handle keeps the mutex; /proc/locks.)
[[nodiscard]] InstanceOwner OwnerOfInstance(const std::wstring& name);

}  // namespace platform

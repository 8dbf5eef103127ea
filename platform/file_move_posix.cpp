// Moves a file without replacing one, on any kind of file system.
#include "platform/file_move_posix.h"

#include <sys/random.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <memory>

#include "platform/error.h"
#include "platform/fd_posix.h"
#include "platform/file_look_posix.h"

namespace platform {
namespace {

constexpr std::size_t kCopyBytes = std::size_t{256} << 10;

// Returns the folder of a path with its separator; "./" for a bare name.
std::string FolderOf(const std::string& path) {
  const std::size_t separator = path.rfind('/');
  return separator == std::string::npos ? "./" : path.substr(0, separator + 1);
}

bool SameTime(const timespec& a, const timespec& b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

// Returns whether the open file is unchanged since it was opened.
bool IsUnchanged(const UniqueFd& file, const struct stat& before) {
  struct stat now;
  return Fstat(file.Get(), now) == 0 && now.st_size == before.st_size &&
         SameTime(now.st_mtim, before.st_mtim);
}

int Unlink(const std::string& path) noexcept {
  return TakeAway(path, [&] { return unlink(path.c_str()); });
}

// Returns whether a rename that reported failure was performed.
bool WasRenamed(const Entry& file, const std::string& source, const std::string& target) noexcept {
  return HasLost(LookAt(source), file) && IsSame(LookAt(target), file);
}

// The plain rename of a file whose status was `original`. Returns 0 or an errno value.
int RenameOver(const Entry& original, const std::string& source,
               const std::string& target) noexcept {
  const int result = TakeAway(source, [&] { return rename(source.c_str(), target.c_str()); });
  const int error_number = result == 0 ? 0 : errno;
  return result == 0 || WasRenamed(original, source, target) ? 0 : error_number;
}

// Copies everything up to the end. Returns false, with errno set, on failure or if it was not
// `size` bytes.
bool CopyBytes(const UniqueFd& from, const UniqueFd& to, off_t size) {
  const auto buffer = std::make_unique<char[]>(kCopyBytes);
  off_t total = 0;
  for (;;) {
    const ssize_t count = ReadOnce(from.Get(), buffer.get(), kCopyBytes);
    if (count < 0) {
      return false;
    }
    total += count;
    if (total > size || (count == 0 && total < size)) {
      errno = EAGAIN;  // another process is writing to the source
      return false;
    }
    if (count == 0) {
      return true;
    }
    if (!WriteAll(to.Get(), buffer.get(), static_cast<std::size_t>(count))) {
      return false;
    }
  }
}

// Copies the metadata that a rename would keep, as far as possible. A mounted file system may not
// support modes, owners or times; that must not prevent a move.
void CopyAttributes(const UniqueFd& to, const struct stat& from) {
  // Only an administrator can change the owner; other users keep the copy as their own.
  (void)!fchown(to.Get(), from.st_uid, from.st_gid);
  (void)fchmod(to.Get(), from.st_mode & 0777);
  const timespec times[2] = {from.st_atim, from.st_mtim};
  (void)futimens(to.Get(), times);
}

// Also returns 0 if the file system does not support syncing.
int Sync(const UniqueFd& file) {
  return Uninterrupted([&] { return fsync(file.Get()); }) == 0 || IsUnsupported(errno) ? 0 : errno;
}

bool Failed(int error_number, const std::string& path) {
  RecordErrno(error_number, path);
  return false;
}

// Returns a unique name in the target's folder. It is not derived from the target's name, which may
// already have the maximum length.
std::string TemporaryName(const std::string& target) {
  std::uint64_t number = 0;
  if (getrandom(&number, sizeof number, GRND_NONBLOCK) != sizeof number) {
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    number = static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000U +
             static_cast<std::uint64_t>(now.tv_nsec);
  }
  return FolderOf(target) + ".kyd-move-" + std::to_string(number);
}

// The copy while it is made: first under a temporary name, then under the target's.
class Copy {
 public:
  Copy(const std::string& source, const std::string& target) : source_(source), target_(target) {}
  ~Copy();
  Copy(const Copy&) = delete;
  Copy& operator=(const Copy&) = delete;

  // Creates the copy under a temporary name.
  bool Write(const UniqueFd& from, const struct stat& before);
  // Renames it to the target.
  bool Publish();
  // Removes the source, or the copy if the source must stay.
  bool ReplaceSource(const UniqueFd& from, const struct stat& before);

 private:
  bool Make(UniqueFd& to);
  bool Retract(int error_number, const std::string& path, const Entry& original) const;

  const std::string& source_;
  const std::string& target_;
  std::string temporary_;  // empty if there is none
  Entry copy_;
};

// Preserves the error that is being reported.
Copy::~Copy() {
  if (!temporary_.empty()) {
    const int error_number = errno;
    Unlink(temporary_);
    errno = error_number;
  }
}

bool Copy::Make(UniqueFd& to) {
  const auto make = [this] {
    temporary_ = TemporaryName(target_);
    const int raw = open(temporary_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (raw < 0) {
      const int error_number = errno;
      Unlink(temporary_);  // it may exist all the same; the name is unique to this process
      temporary_.clear();
      errno = error_number == EEXIST ? EINTR : error_number;  // tries the next name
    }
    return raw;
  };
  to.Reset(Uninterrupted(make));
  return to || Failed(errno, target_);
}

bool Copy::Write(const UniqueFd& from, const struct stat& before) {
  UniqueFd to;
  if (!Make(to)) {
    return false;
  }
  if (!CopyBytes(from, to, before.st_size)) {
    return Failed(errno, target_);
  }
  CopyAttributes(to, before);
  if (const int error_number = Sync(to)) {
    return Failed(error_number, target_);
  }
  struct stat written;
  if (Fstat(to.Get(), written) != 0 || close(to.Release()) != 0) {
    return Failed(errno, target_);
  }
  copy_ = EntryOf(written);
  return copy_.size == before.st_size || Failed(EIO, target_);
}

bool Copy::Publish() {
  if (const int error_number = MoveOnSameFileSystem(temporary_, target_)) {
    return Failed(error_number, target_);
  }
  temporary_.clear();
  return true;
}

// Removes the published copy, but only while the original is verifiably in place; otherwise the
// copy may be the only one left.
bool Copy::Retract(int error_number, const std::string& path, const Entry& original) const {
  if (IsVerifiedSame(LookAt(source_), original) && IsVerifiedSame(LookAt(target_), copy_)) {
    Unlink(target_);
  }
  return Failed(error_number, path);
}

bool Copy::ReplaceSource(const UniqueFd& from, const struct stat& before) {
  const Entry original = EntryOf(before);
  if (const int error_number = SyncFolderOf(target_)) {
    return Retract(error_number, target_, original);
  }
  const Entry named = LookAt(source_);
  if (HasLost(named, original)) {
    return true;  // another process removed or replaced it: the copy may be the only one left
  }
  if (!named.IsPresent()) {
    return Failed(named.error_number, source_);
  }
  // Checked again at the last moment: data written in the meantime is not in the copy.
  if (!IsUnchanged(from, before)) {
    return Retract(EAGAIN, source_, original);
  }
  if (Unlink(source_) == 0) {
    return true;
  }
  const int error_number = errno;
  return HasLost(LookAt(source_), original) || Retract(error_number, source_, original);
}

// Reserves a free name with an empty entry. Returns 0 or an errno value. A file is also kept open,
// so that its inode number cannot be reused.
int Reserve(const std::string& target, bool as_folder, UniqueFd& held) {
  return MakeNew(target, as_folder ? S_IFDIR : S_IFREG, [&] {
    if (as_folder) {
      return mkdir(target.c_str(), 0700);
    }
    held.Reset(open(target.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
    return held.Get();
  });
}

}  // namespace

int MoveByRename(const std::string& source, const std::string& target) noexcept {
  const Entry original = LookAt(source);
  if (!original.IsPresent()) {
    return original.error_number;
  }
  const int result = Uninterrupted([&] {
    return renameat2(AT_FDCWD, source.c_str(), AT_FDCWD, target.c_str(), RENAME_NOREPLACE);
  });
  const int error_number = result == 0 ? 0 : errno;
  return result == 0 || WasRenamed(original, source, target) ? 0 : error_number;
}

int MoveByLink(const std::string& source, const std::string& target) noexcept {
  const Entry original = LookAt(source);
  if (!original.IsPresent()) {
    return original.error_number;
  }
  // Known to be free, so that our link can be distinguished from an existing file.
  const Entry before = LookAt(target);
  if (!before.IsAbsent()) {
    return before.IsPresent() ? EEXIST : before.error_number;
  }
  if (Uninterrupted([&] { return link(source.c_str(), target.c_str()); }) != 0) {
    const int error_number = errno;
    if (!IsSame(LookAt(target), original)) {
      return error_number;
    }
  }
  if (Unlink(source) == 0) {
    return 0;
  }
  const int error_number = errno;
  const Entry left = LookAt(source);
  const Entry linked = LookAt(target);
  if (HasLost(left, linked)) {
    return 0;
  }
  // If the link count includes both names, the source verifiably exists.
  if (IsVerifiedSame(left, linked) && linked.links > 1) {
    Unlink(target);
  }
  return error_number;
}

int MoveByReservation(const std::string& source, const std::string& target) {
  const Entry original = LookAt(source);
  if (!original.IsPresent()) {
    return original.error_number;
  }
  // Avoids a pointless reservation, whose removal could fail. Compares folders, because files on an
  // overlay show the device of their layer.
  const Entry from = LookAt(FolderOf(source));
  const Entry to = LookAt(FolderOf(target));
  if (!from.IsPresent() || !to.IsPresent()) {
    return from.IsPresent() ? to.error_number : from.error_number;
  }
  if (from.device != to.device) {
    return EXDEV;
  }
  const bool is_folder = S_ISDIR(original.mode);
  UniqueFd held;
  if (const int error_number = Reserve(target, is_folder, held)) {
    return error_number;
  }
  const Entry reserved = LookAt(target);
  // Without checking the source again, which could fail and leave the reservation in place.
  const int error_number = RenameOver(original, source, target);
  if (error_number == 0) {
    return 0;
  }
  // Removes only what is verifiably the reservation, and only if the source is still in place.
  const Entry left = LookAt(target);
  if (IsVerifiedSame(LookAt(source), original) && IsVerifiedSame(left, reserved) &&
      !IsSame(left, original)) {
    if (is_folder) {
      rmdir(target.c_str());
    } else if (left.size == 0) {
      Unlink(target);
    }
  }
  return error_number;
}

int MoveOnSameFileSystem(const std::string& source, const std::string& target) {
  int error_number = MoveByRename(source, target);
  if (!IsUnsupported(error_number)) {
    return error_number;
  }
  error_number = MoveByLink(source, target);
  if (error_number != EPERM && error_number != EMLINK && !IsUnsupported(error_number)) {
    return error_number;
  }
  return MoveByReservation(source, target);
}

bool MoveByCopy(const std::string& source, const std::string& target) {
  const UniqueFd from = OpenRegularFile(source, O_RDONLY | O_NOFOLLOW);
  if (!from) {
    // Links and folders are not moved to another file system.
    if (LastError() == kErrorAccessDenied) {
      const Entry entry = LookAt(source);
      if (entry.IsPresent() && !S_ISREG(entry.mode)) {
        SetLastError(kErrorGeneralFailure);
      }
    }
    return false;
  }
  struct stat before;
  if (Fstat(from.Get(), before) != 0) {
    return Failed(errno, source);
  }
  if (LookAt(target).IsPresent()) {
    return Failed(EEXIST, target);  // Checked now to avoid a long copy for nothing.
  }
  Copy copy(source, target);
  if (!copy.Write(from, before)) {
    return false;
  }
  if (!IsSame(LookAt(source), EntryOf(before)) || !IsUnchanged(from, before)) {
    return Failed(EAGAIN, source);
  }
  return copy.Publish() && copy.ReplaceSource(from, before);
}

int MoveOver(const std::string& source, const std::string& target) noexcept {
  const Entry original = LookAt(source);
  return original.IsPresent() ? RenameOver(original, source, target) : original.error_number;
}

int SyncFolderOf(const std::string& path) {
  const UniqueFd folder(Uninterrupted([folder = FolderOf(path)] {
    return open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  }));
  if (!folder) {
    // The folder may be written to but not read, so it cannot be synced.
    return errno == EACCES || IsUnsupported(errno) ? 0 : errno;
  }
  return Sync(folder);
}

}  // namespace platform

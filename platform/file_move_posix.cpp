// Moving a file without replacing one, step by step, on file systems of every kind.
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

// The folder of a path with its separator; "./" for a bare name.
std::string FolderOf(const std::string& path) {
  const std::size_t separator = path.rfind('/');
  return separator == std::string::npos ? "./" : path.substr(0, separator + 1);
}

bool SameTime(const timespec& a, const timespec& b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

// True when the open file is what it was when it was opened.
bool IsUnchanged(const UniqueFd& file, const struct stat& before) {
  struct stat now;
  return Fstat(file.Get(), now) == 0 && now.st_size == before.st_size &&
         SameTime(now.st_mtim, before.st_mtim);
}

int Unlink(const std::string& path) noexcept {
  return TakeAway(path, [&] { return unlink(path.c_str()); });
}

// Whether a rename that reported failure was done.
bool WasRenamed(const Entry& file, const std::string& source, const std::string& target) noexcept {
  return HasLost(LookAt(source), file) && IsSame(LookAt(target), file);
}

// The plain rename of a file that was `original` before. 0 or an errno value.
int RenameOver(const Entry& original, const std::string& source,
               const std::string& target) noexcept {
  const int result = TakeAway(source, [&] { return rename(source.c_str(), target.c_str()); });
  const int error_number = result == 0 ? 0 : errno;
  return result == 0 || WasRenamed(original, source, target) ? 0 : error_number;
}

// Copies everything up to the end. False, with errno set, when that fails, and when it was not
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
      errno = EAGAIN;  // Somebody is writing to the source.
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

// Gives the copy what a rename would have kept, as far as that is possible. A mounted file system
// may have no modes, owners or times of its own; that must not keep a file from being moved.
void CopyAttributes(const UniqueFd& to, const struct stat& from) {
  // Only an administrator can give files away; for others the copy stays theirs.
  (void)!fchown(to.Get(), from.st_uid, from.st_gid);
  (void)fchmod(to.Get(), from.st_mode & 0777);
  const timespec times[2] = {from.st_atim, from.st_mtim};
  (void)futimens(to.Get(), times);
}

// 0 also where the file system cannot be asked to write to the disk.
int Sync(const UniqueFd& file) {
  return Uninterrupted([&] { return fsync(file.Get()); }) == 0 || IsUnsupported(errno) ? 0 : errno;
}

bool Failed(int error_number, const std::string& path) {
  RecordErrno(error_number, path);
  return false;
}

// A name of its own beside the target, and not derived from the target's name, which may be as long
// as names can be.
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

// The copy on its way: under a temporary name, then under the target's.
class Copy {
 public:
  Copy(const std::string& source, const std::string& target) : source_(source), target_(target) {}
  ~Copy();
  Copy(const Copy&) = delete;
  Copy& operator=(const Copy&) = delete;

  // Makes the copy under a temporary name.
  bool Write(const UniqueFd& from, const struct stat& before);
  // Gives it the target's name.
  bool Publish();
  // Removes the source, or the copy again when the source has to stay.
  bool ReplaceSource(const UniqueFd& from, const struct stat& before);

 private:
  bool Make(UniqueFd& to);
  bool Retract(int error_number, const std::string& path, const Entry& original) const;

  const std::string& source_;
  const std::string& target_;
  std::string temporary_;  // empty while there is none
  Entry copy_;
};

// Never disturbs the error that is being reported.
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
      Unlink(temporary_);  // Made all the same, perhaps: nobody else has a file of this name.
      temporary_.clear();
      errno = error_number == EEXIST ? EINTR : error_number;  // the next name, then
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

// Removes the published copy, but only while the original is verifiably in place; otherwise it may
// be all that is left.
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
    return true;  // Somebody else removed or replaced it: the copy may be all that is left.
  }
  if (!named.IsPresent()) {
    return Failed(named.error_number, source_);
  }
  // Looked at once more in the last moment: what was written meanwhile is not in the copy.
  if (!IsUnchanged(from, before)) {
    return Retract(EAGAIN, source_, original);
  }
  if (Unlink(source_) == 0) {
    return true;
  }
  const int error_number = errno;
  return HasLost(LookAt(source_), original) || Retract(error_number, source_, original);
}

// Reserves a free name by an empty entry. 0 or an errno value. A file is held open as well: so its
// number cannot become that of another one.
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
  // Known to be free, so that a link there can be told from one that was there before.
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
  // With both names counted the source is verifiably there.
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
  // Nothing is reserved in vain: removing the reservation could fail. Folders are compared because
  // layers of an overlay show in their files.
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
  // Without another look at the source, which could fail and keep the reservation in place.
  const int error_number = RenameOver(original, source, target);
  if (error_number == 0) {
    return 0;
  }
  // The reservation goes only when it is verifiably that, and the source where it was.
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
    // Links and folders stay on their file system.
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
    return Failed(EEXIST, target);  // Known before a long copy is made for nothing.
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
    // A folder that may be written to but not read: nothing more can be done.
    return errno == EACCES || IsUnsupported(errno) ? 0 : errno;
  }
  return Sync(folder);
}

}  // namespace platform

// Preloaded into the program: makes selected calls misbehave as kernels and file systems can.
//
// KYD_CALLS names a file that receives a line for each call: function, object and detail, separated
// by tabs. The object is the path that the call refers to, relative to the folder in KYD_ROOT, or
// what a descriptor refers to.
//
// KYD_MISBEHAVED names a file that receives one byte when a rule is first applied: the index of the
// rule, as a digit.
//
// KYD_MISBEHAVIOUR holds the rules, one per line, as fields separated by tabs: function, pattern of
// the object (fnmatch), the first and the last matching call that misbehaves (from 1; a last call
// of 0 means no end), way, number. The ways:
//   fail  does nothing and fails with this errno
//   break ends the connection in both directions and fails with this errno
//   done  does its work and then reports this errno
//   one   transfers one byte
//   half  transfers half of what it could
//   plain gives directory entries without their types
//
// KYD_HURRY multiplies the speed of the clock of the program's time-outs (CLOCK_MONOTONIC).
//
// Only calls from the program's own file count, so libraries are not affected.
#include <dirent.h>
#include <dlfcn.h>
#include <elf.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <link.h>
#include <netdb.h>
#include <sys/auxv.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <deque>
#include <mutex>
#include <sstream>
#include <string>

namespace {

// Reads a setting of this library. The program does not change its environment.
std::string Setting(const char* name) {
  const char* const value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe)
  return value == nullptr ? "" : value;
}

enum class Way { kProper, kFail, kBreak, kDone, kOne, kHalf, kPlain };

struct Misbehaviour {
  Way way = Way::kProper;
  int number = 0;
};

struct Rule {
  std::string function;
  std::string pattern;
  long first = 0;
  long last = 0;
  Misbehaviour misbehaviour;
  std::atomic<long> calls{0};
};

Way WayOf(const std::string& name) {
  if (name == "fail") {
    return Way::kFail;
  }
  if (name == "break") {
    return Way::kBreak;
  }
  if (name == "done") {
    return Way::kDone;
  }
  if (name == "one") {
    return Way::kOne;
  }
  if (name == "half") {
    return Way::kHalf;
  }
  if (name == "plain") {
    return Way::kPlain;
  }
  std::abort();  // an error of the test must not look like a passed run
}

std::deque<Rule> ReadRules() {
  std::deque<Rule> rules;
  std::istringstream lines(Setting("KYD_MISBEHAVIOUR"));
  for (std::string line; std::getline(lines, line);) {
    std::istringstream fields(line);
    std::array<std::string, 6> texts;
    for (std::string& text : texts) {
      std::getline(fields, text, '\t');
    }
    Rule& rule = rules.emplace_back();
    rule.function = texts[0];
    rule.pattern = texts[1];
    rule.first = std::stol(texts[2]);
    rule.last = std::stol(texts[3]);
    rule.misbehaviour = {WayOf(texts[4]), std::stoi(texts[5])};
  }
  return rules;
}

// The address range of the program's own code.
struct Extent {
  std::uintptr_t begin = UINTPTR_MAX;
  std::uintptr_t end = 0;
};

Extent ExtentOfProgram() {
  Extent extent;
  // NOLINTNEXTLINE(performance-no-int-to-ptr): the kernel gives the address as a number
  const auto* const headers = reinterpret_cast<const ElfW(Phdr)*>(getauxval(AT_PHDR));
  const std::size_t count = getauxval(AT_PHNUM);
  std::uintptr_t base = 0;
  for (std::size_t i = 0; i < count; ++i) {
    if (headers[i].p_type == PT_PHDR) {
      base = reinterpret_cast<std::uintptr_t>(headers) - headers[i].p_vaddr;
    }
  }
  for (std::size_t i = 0; i < count; ++i) {
    if (headers[i].p_type == PT_LOAD) {
      extent.begin = std::min<std::uintptr_t>(extent.begin, base + headers[i].p_vaddr);
      extent.end =
          std::max<std::uintptr_t>(extent.end, base + headers[i].p_vaddr + headers[i].p_memsz);
    }
  }
  return extent;
}

bool IsOfTheProgram(const void* caller) {
  static const Extent program = ExtentOfProgram();
  const auto address = reinterpret_cast<std::uintptr_t>(caller);
  return program.begin <= address && address < program.end;
}

// Returns a path without the parts that differ between runs.
std::string NameOf(const char* path) {
  static const std::string& root = *new std::string(Setting("KYD_ROOT") + "/");
  std::string name = path == nullptr ? "itself" : path;
  if (name.rfind(root, 0) == 0) {
    name.erase(0, root.size());
  } else if (const std::size_t separator = name.rfind('/'); separator != std::string::npos) {
    name.erase(0, separator);
  }
  for (const char* const changing : {"/.kyd-move-", "/UploadResult"}) {
    const std::size_t at = name.find(changing);
    if (at != std::string::npos && at + std::string(changing).size() < name.size()) {
      name.replace(at + std::string(changing).size(), std::string::npos, "*");
    }
  }
  return name;
}

// What the descriptors refer to.
class Names {
 public:
  void Set(int file, std::string name) {
    const std::lock_guard<std::mutex> guard(lock_);
    if (file >= 0 && static_cast<std::size_t>(file) < names_.size()) {
      names_.at(static_cast<std::size_t>(file)) = std::move(name);
    }
  }
  std::string Get(int file) {
    const std::lock_guard<std::mutex> guard(lock_);
    return file >= 0 && static_cast<std::size_t>(file) < names_.size()
               ? names_.at(static_cast<std::size_t>(file))
               : "?";
  }

 private:
  std::mutex lock_;
  std::array<std::string, 1024> names_;
};

// Never destroyed: the program closes files during its exit.
Names& Files() {
  static Names& names = *new Names;
  return names;
}

void Append(const std::string& path, const std::string& text) {
  if (path.empty()) {
    return;
  }
  const long file =
      syscall(SYS_openat, AT_FDCWD, path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
  syscall(SYS_write, file, text.data(), text.size());
  syscall(SYS_close, file);
}

void Note(const char* function, const std::string& object, const std::string& detail) {
  static const std::string& path = *new std::string(Setting("KYD_CALLS"));
  Append(path, std::string(function) + "\t" + object + "\t" + detail + "\n");
}

void NoteFirstUse(std::size_t rule) {
  static const std::string& path = *new std::string(Setting("KYD_MISBEHAVED"));
  Append(path, std::to_string(rule));
}

// Returns how this call of the program is to behave. Preserves errno.
Misbehaviour Choose(const char* function, const std::string& object,
                    const std::string& detail = "") {
  static std::deque<Rule>& rules = *new std::deque<Rule>(ReadRules());
  const int kept = errno;
  Note(function, object, detail);
  Misbehaviour chosen;
  for (std::size_t i = 0; i < rules.size(); ++i) {
    Rule& rule = rules.at(i);
    if (rule.function == function && fnmatch(rule.pattern.c_str(), object.c_str(), 0) == 0) {
      const long number = ++rule.calls;
      if (number >= rule.first && (rule.last == 0 || number <= rule.last)) {
        chosen = rule.misbehaviour;
        if (number == rule.first) {
          NoteFirstUse(i);
        }
      }
    }
  }
  errno = kept;
  return chosen;
}

template <typename Function>
Function* Real(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

// Performs a call, or returns its failure.
template <typename Result, typename Function>
Result Perform(const Misbehaviour& how, Result failure, const Function& real) {
  if (how.way == Way::kFail) {
    errno = how.number;
    return failure;
  }
  const Result result = real();
  if (how.way == Way::kDone && result != failure) {
    errno = how.number;
    return failure;
  }
  return result;
}

std::string Both(const char* from, const char* to) {
  return NameOf(from) + " > " + NameOf(to);
}

std::string Below(int folder, const char* path) {
  return *path == '/' || folder == AT_FDCWD ? NameOf(path) : Files().Get(folder) + "/" + path;
}

std::string DetailOf(int flags) {
  if ((flags & O_DIRECTORY) != 0) {
    return "folder";
  }
  std::string detail = "read";
  if ((flags & O_CREAT) != 0) {
    detail = (flags & O_EXCL) != 0 ? "exclusive" : "create";
  }
  return (flags & O_NONBLOCK) != 0 ? detail + " nonblocking" : detail;
}

const char* DetailOfControl(int operation) {
  return operation == EPOLL_CTL_ADD ? "add" : operation == EPOLL_CTL_MOD ? "modify" : "remove";
}

std::size_t Half(std::size_t size) {
  return size > 1 ? size / 2 : size;
}

// Breaks the connection if the rule says so; the call then fails.
Misbehaviour Broken(const Misbehaviour& how, int connection) {
  if (how.way != Way::kBreak) {
    return how;
  }
  syscall(SYS_shutdown, connection, SHUT_RDWR);
  return {Way::kFail, how.number};
}

// Closes a descriptor that a call created but reported as failed.
int Forgotten(int file) {
  syscall(SYS_close, file);
  return -1;
}

int Named(const Misbehaviour& how, int file, std::string name) {
  if (file >= 0 && how.way == Way::kDone) {
    errno = how.number;
    return Forgotten(file);
  }
  Files().Set(file, std::move(name));
  return file;
}

}  // namespace

// The asm label gives each replacement the name of its function without including the function's
// declaration, whose attributes may differ.
#define KYD_CALL(name, Result, failure, parameters, arguments, ...)                              \
  extern "C" Result Stand_in_##name parameters asm(#name);                                       \
  extern "C" Result Stand_in_##name parameters {                                                 \
    static const auto real = Real<Result parameters>(#name);                                     \
    if (!IsOfTheProgram(__builtin_return_address(0))) {                                          \
      return real arguments;                                                                     \
    }                                                                                            \
    return Perform<Result>(Choose(#name, __VA_ARGS__), failure, [&] { return real arguments; }); \
  }

// For calls that create a descriptor.
// NOLINTBEGIN(bugprone-macro-parentheses): the parameters are a list in parentheses
#define KYD_MAKER(name, parameters, arguments, object)    \
  extern "C" int Stand_in_##name parameters asm(#name);   \
  extern "C" int Stand_in_##name parameters {             \
    static const auto real = Real<int parameters>(#name); \
    if (!IsOfTheProgram(__builtin_return_address(0))) {   \
      return real arguments;                              \
    }                                                     \
    const Misbehaviour how = Choose(#name, object);       \
    if (how.way == Way::kFail) {                          \
      errno = how.number;                                 \
      return -1;                                          \
    }                                                     \
    return Named(how, real arguments, object);            \
  }
// NOLINTEND(bugprone-macro-parentheses)

KYD_MAKER(socket, (int family, int type, int protocol), (family, type, protocol), "socket")
KYD_MAKER(epoll_create1, (int flags), (flags), "epoll")
KYD_MAKER(eventfd, (unsigned value, int flags), (value, flags), "eventfd")
KYD_MAKER(timerfd_create, (int clock, int flags), (clock, flags), "timer")

KYD_CALL(connect, int, -1, (int file, const void* address, unsigned size), (file, address, size),
         "socket")
KYD_CALL(epoll_ctl, int, -1, (int epoll, int operation, int file, void* event),
         (epoll, operation, file, event), Files().Get(file), DetailOfControl(operation))
KYD_CALL(epoll_wait, int, -1, (int epoll, void* events, int count, int time),
         (epoll, events, count, time), "epoll")
KYD_CALL(poll, int, -1, (void* files, unsigned long count, int time), (files, count, time),
         "socket")
KYD_CALL(fchmod, int, -1, (int file, unsigned mode), (file, mode), Files().Get(file))
KYD_CALL(fchown, int, -1, (int file, unsigned user, unsigned group), (file, user, group),
         Files().Get(file))
KYD_CALL(flock, int, -1, (int file, int operation), (file, operation), Files().Get(file))
KYD_CALL(fstat, int, -1, (int file, void* status), (file, status), Files().Get(file))
KYD_CALL(fstatat, int, -1, (int folder, const char* path, void* status, int flags),
         (folder, path, status, flags), Below(folder, path))
KYD_CALL(fsync, int, -1, (int file), (file), Files().Get(file))
KYD_CALL(futimens, int, -1, (int file, const void* times), (file, times), Files().Get(file))
KYD_CALL(getsockopt, int, -1, (int file, int level, int name, void* value, void* size),
         (file, level, name, value, size), "socket")
KYD_CALL(link, int, -1, (const char* from, const char* to), (from, to), Both(from, to))
KYD_CALL(lseek, long, -1, (int file, long offset, int whence), (file, offset, whence),
         Files().Get(file))
KYD_CALL(mkdir, int, -1, (const char* path, unsigned mode), (path, mode), NameOf(path))
KYD_CALL(pipe, int, -1, (int* ends), (ends), "pipe")
KYD_CALL(readlink, long, -1, (const char* path, char* to, unsigned long size), (path, to, size),
         NameOf(path))
KYD_CALL(rename, int, -1, (const char* from, const char* to), (from, to), Both(from, to))
KYD_CALL(renameat2, int, -1, (int a, const char* from, int b, const char* to, unsigned flags),
         (a, from, b, to, flags), Both(from, to))
KYD_CALL(rmdir, int, -1, (const char* path), (path), NameOf(path))
KYD_CALL(setsockopt, int, -1, (int file, int level, int name, const void* value, unsigned size),
         (file, level, name, value, size), "socket")
KYD_CALL(shutdown, int, -1, (int file, int how), (file, how), "socket")
KYD_CALL(stat, int, -1, (const char* path, void* status), (path, status), NameOf(path))
KYD_CALL(statx, int, -1, (int folder, const char* path, int flags, unsigned mask, void* status),
         (folder, path, flags, mask, status), Below(folder, path))
KYD_CALL(unlink, int, -1, (const char* path), (path), NameOf(path))

extern "C" int Stand_in_open(const char* path, int flags, unsigned mode) asm("open");
extern "C" int Stand_in_open(const char* path, int flags, unsigned mode) {
  static const auto real = Real<int(const char*, int, unsigned)>("open");
  if (!IsOfTheProgram(__builtin_return_address(0))) {
    return real(path, flags, mode);
  }
  const Misbehaviour how = Choose("open", NameOf(path), DetailOf(flags));
  if (how.way == Way::kFail) {
    errno = how.number;
    return -1;
  }
  return Named(how, real(path, flags, mode), NameOf(path));
}

// The descriptor is closed in any case.
extern "C" int Stand_in_close(int file) asm("close");
extern "C" int Stand_in_close(int file) {
  if (!IsOfTheProgram(__builtin_return_address(0))) {
    return static_cast<int>(syscall(SYS_close, file));
  }
  const std::string name = Files().Get(file);
  Files().Set(file, "");
  return Perform(Choose("close", name), -1,
                 [file] { return static_cast<int>(syscall(SYS_close, file)); });
}

extern "C" DIR* Stand_in_opendir(const char* path) asm("opendir");
extern "C" DIR* Stand_in_opendir(const char* path) {
  static const auto real = Real<DIR*(const char*)>("opendir");
  if (!IsOfTheProgram(__builtin_return_address(0))) {
    return real(path);
  }
  const Misbehaviour how = Choose("opendir", NameOf(path));
  if (how.way == Way::kFail) {
    errno = how.number;
    return nullptr;
  }
  DIR* const folder = real(path);
  if (folder != nullptr) {
    std::string name = NameOf(path);
    if (name.size() > 1 && name.back() == '/') {
      name.pop_back();
    }
    Files().Set(dirfd(folder), std::move(name));
  }
  return folder;
}

extern "C" dirent* Stand_in_readdir(DIR* folder) asm("readdir");
extern "C" dirent* Stand_in_readdir(DIR* folder) {
  static const auto real = Real<dirent*(DIR*)>("readdir");
  if (!IsOfTheProgram(__builtin_return_address(0))) {
    return real(folder);
  }
  const Misbehaviour how = Choose("readdir", Files().Get(dirfd(folder)));
  if (how.way == Way::kFail) {
    errno = how.number;
    return nullptr;
  }
  dirent* const entry = real(folder);
  if (entry != nullptr && how.way == Way::kPlain) {
    entry->d_type = DT_UNKNOWN;
  }
  return entry;
}

// Applies to all callers: the C++ library calls this on the program's behalf.
extern "C" int Stand_in_clock_gettime(clockid_t clock, timespec* now) asm("clock_gettime");
extern "C" int Stand_in_clock_gettime(clockid_t clock, timespec* now) {
  static const auto real = Real<int(clockid_t, timespec*)>("clock_gettime");
  static const std::string hurry = Setting("KYD_HURRY");
  static const long rate = hurry.empty() ? 1 : std::stol(hurry);
  const int result = real(clock, now);
  if (result != 0 || clock != CLOCK_MONOTONIC || rate == 1) {
    return result;
  }
  static const timespec start = *now;
  constexpr long kNanoseconds = 1'000'000'000;
  const long passed = (now->tv_sec - start.tv_sec) * kNanoseconds + now->tv_nsec - start.tv_nsec;
  const long hurried = start.tv_nsec + passed * rate;
  *now = {start.tv_sec + hurried / kNanoseconds, hurried % kNanoseconds};
  return result;
}

// The number of the rule is one of EAI_*.
extern "C" int Stand_in_getaddrinfo(const char* host, const char* service, const addrinfo* hints,
                                    addrinfo** found) asm("getaddrinfo");
extern "C" int Stand_in_getaddrinfo(const char* host, const char* service, const addrinfo* hints,
                                    addrinfo** found) {
  static const auto real =
      Real<int(const char*, const char*, const addrinfo*, addrinfo**)>("getaddrinfo");
  if (IsOfTheProgram(__builtin_return_address(0))) {
    const Misbehaviour how = Choose("getaddrinfo", "name");
    if (how.way == Way::kFail) {
      errno = EIO;  // for EAI_SYSTEM
      return how.number;
    }
  }
  return real(host, service, hints, found);
}

extern "C" long Stand_in_read(int file, void* bytes, std::size_t size) asm("read");
extern "C" long Stand_in_read(int file, void* bytes, std::size_t size) {
  if (!IsOfTheProgram(__builtin_return_address(0))) {
    return syscall(SYS_read, file, bytes, size);
  }
  const Misbehaviour how = Choose("read", Files().Get(file));
  const long count = Perform<long>(how, -1, [&] {
    return syscall(SYS_read, file, bytes, how.way == Way::kOne && size > 1 ? 1 : size);
  });
  if (how.way != Way::kHalf || count < 2) {
    return count;
  }
  syscall(SYS_lseek, file, count / 2 - count, SEEK_CUR);
  return count / 2;
}

extern "C" long Stand_in_pread(int file, void* bytes, std::size_t size, long from) asm("pread");
extern "C" long Stand_in_pread(int file, void* bytes, std::size_t size, long from) {
  if (!IsOfTheProgram(__builtin_return_address(0))) {
    return syscall(SYS_pread64, file, bytes, size, from);
  }
  const Misbehaviour how = Choose("pread", Files().Get(file));
  const long count = Perform<long>(how, -1, [&] {
    return syscall(SYS_pread64, file, bytes, how.way == Way::kOne && size > 1 ? 1 : size, from);
  });
  return how.way == Way::kHalf && count > 1 ? count / 2 : count;
}

extern "C" long Stand_in_recv(int file, void* bytes, std::size_t size, int flags) asm("recv");
extern "C" long Stand_in_recv(int file, void* bytes, std::size_t size, int flags) {
  static const auto real = Real<long(int, void*, std::size_t, int)>("recv");
  if (!IsOfTheProgram(__builtin_return_address(0))) {
    return real(file, bytes, size, flags);
  }
  const Misbehaviour how = Broken(Choose("recv", "socket"), file);
  if (how.way == Way::kOne && size > 1) {
    size = 1;
  } else if (how.way == Way::kHalf) {
    const long there = real(file, bytes, size, flags | MSG_PEEK);
    size = there > 1 ? static_cast<std::size_t>(there) / 2 : size;
  }
  return Perform<long>(how, -1, [&] { return real(file, bytes, size, flags); });
}

extern "C" long Stand_in_send(int file, const void* bytes, std::size_t size, int flags) asm("send");
extern "C" long Stand_in_send(int file, const void* bytes, std::size_t size, int flags) {
  static const auto real = Real<long(int, const void*, std::size_t, int)>("send");
  if (!IsOfTheProgram(__builtin_return_address(0))) {
    return real(file, bytes, size, flags);
  }
  return Perform<long>(Broken(Choose("send", "socket"), file), -1,
                       [&] { return real(file, bytes, size, flags); });
}

extern "C" long Stand_in_write(int file, const void* bytes, std::size_t size) asm("write");
extern "C" long Stand_in_write(int file, const void* bytes, std::size_t size) {
  if (!IsOfTheProgram(__builtin_return_address(0))) {
    return syscall(SYS_write, file, bytes, size);
  }
  const Misbehaviour how = Choose("write", Files().Get(file));
  size = how.way == Way::kOne && size > 1 ? 1 : how.way == Way::kHalf ? Half(size) : size;
  return Perform<long>(how, -1, [&] { return syscall(SYS_write, file, bytes, size); });
}

// The loader's search depends on the caller, so the real function must be reached by a tail call.
extern "C" void* Stand_in_dlopen(const char* name, int flags) asm("dlopen");
extern "C" void* Stand_in_dlopen(const char* name, int flags) {
  static const auto real = Real<void*(const char*, int)>("dlopen");
  if (IsOfTheProgram(__builtin_return_address(0)) &&
      Choose("dlopen", NameOf(name)).way == Way::kFail) {
    return nullptr;
  }
  return real(name, flags);
}

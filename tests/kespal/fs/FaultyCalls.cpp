#include "kespal/fs/FaultyCalls.h"

#include <dirent.h>
#include <fcntl.h>
#include <glob.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <functional>
#include <map>

// The linker's --wrap gives every undefined reference to NAME as __wrap_NAME, and the system's own NAME as
// __real_NAME.

namespace kes::test {

namespace {

struct Failure {
  int errnum;
  int skip;
  int times;
};

std::map<std::string, Failure, std::less<>>& failures() {
  static std::map<std::string, Failure, std::less<>> all;
  return all;
}

std::map<std::string, std::function<void()>, std::less<>>& actions() {
  static std::map<std::string, std::function<void()>, std::less<>> all;
  return all;
}

std::size_t mostWritten = static_cast<std::size_t>(-1);
bool typesAreKnown = true;
std::vector<std::string>* trace = nullptr;

/// Whether this call of `name` is to fail, with errno set. Takes no memory: a test may have left none.
bool fails(const char* name) {
  const int before = errno;
  if (trace != nullptr) trace->push_back(name);
  if (const auto found = actions().find(name); found != actions().end()) {
    const auto action = found->second;
    actions().erase(found);
    action();
  }
  errno = before;
  const auto found = failures().find(name);
  if (found == failures().end()) return false;
  Failure& failure = found->second;
  if (failure.skip > 0) return --failure.skip, false;
  if (failure.times == 0) return false;
  if (failure.times > 0) --failure.times;
  errno = failure.errnum;
  return true;
}

}  // namespace

Failing::Failing(const std::string& call, int errnum, int skip, int times) {
  failures()[call] = {errnum, skip, times};
}
Failing::~Failing() { failures().clear(); }

ShortWrites::ShortWrites(std::size_t most) { mostWritten = most; }
ShortWrites::~ShortWrites() { mostWritten = static_cast<std::size_t>(-1); }

UnknownTypes::UnknownTypes() { typesAreKnown = false; }
UnknownTypes::~UnknownTypes() { typesAreKnown = true; }

Before::Before(const std::string& call, void (*action)(const std::string&), const std::string& argument) {
  actions()[call] = [action, argument] { action(argument); };
}
Before::~Before() { actions().clear(); }

Trace::Trace() { trace = new std::vector<std::string>; }
Trace::~Trace() {
  delete trace;
  trace = nullptr;
}
std::vector<std::string> Trace::calls() const { return *trace; }

}  // namespace kes::test

// NOLINTBEGIN(bugprone-macro-parentheses)
#define WRAPPED(result, name, parameters, arguments, failure) \
  result __real_##name parameters;                            \
  result __wrap_##name parameters {                           \
    if (kes::test::fails(#name)) return failure;              \
    return __real_##name arguments;                           \
  }

extern "C" {
int __real_open(const char* path, int flags, ...);
int __wrap_open(const char* path, int flags, ...) {
  std::va_list more;
  va_start(more, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? static_cast<mode_t>(va_arg(more, unsigned)) : 0;
  va_end(more);
  return kes::test::fails("open") ? -1 : __real_open(path, flags, mode);
}
int __real_openat(int folder, const char* path, int flags, ...);
int __wrap_openat(int folder, const char* path, int flags, ...) {
  std::va_list more;
  va_start(more, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? static_cast<mode_t>(va_arg(more, unsigned)) : 0;
  va_end(more);
  return kes::test::fails("openat") ? -1 : __real_openat(folder, path, flags, mode);
}
ssize_t __real_write(int fd, const void* buffer, size_t size);
ssize_t __wrap_write(int fd, const void* buffer, size_t size) {
  return kes::test::fails("write") ? -1 : __real_write(fd, buffer, std::min(size, kes::test::mostWritten));
}
WRAPPED(int, close, (int fd), (fd), (__real_close(fd), -1))
WRAPPED(ssize_t, read, (int fd, void* buffer, size_t size), (fd, buffer, size), -1)
ssize_t __real_pwrite(int fd, const void* buffer, size_t size, off_t at);
ssize_t __wrap_pwrite(int fd, const void* buffer, size_t size, off_t at) {
  return kes::test::fails("pwrite") ? -1
                                    : __real_pwrite(fd, buffer, std::min(size, kes::test::mostWritten), at);
}
WRAPPED(ssize_t, pread, (int fd, void* buffer, size_t size, off_t at), (fd, buffer, size, at), -1)
WRAPPED(int, renameat, (int from, const char* old, int to, const char* name), (from, old, to, name), -1)
WRAPPED(int, linkat, (int from, const char* old, int to, const char* name, int flags),
        (from, old, to, name, flags), -1)
WRAPPED(int, mkdirat, (int folder, const char* name, mode_t mode), (folder, name, mode), -1)
WRAPPED(int, symlinkat, (const char* target, int folder, const char* name), (target, folder, name), -1)
WRAPPED(int, futimens, (int fd, const timespec* times), (fd, times), -1)
WRAPPED(int, utimensat, (int folder, const char* name, const timespec* times, int flags),
        (folder, name, times, flags), -1)
WRAPPED(int, nanosleep, (const timespec* span, timespec* left), (span, left), -1)
WRAPPED(int, fsync, (int fd), (fd), -1)
WRAPPED(off_t, lseek, (int fd, off_t offset, int base), (fd, offset, base), -1)
WRAPPED(int, ftruncate, (int fd, off_t length), (fd, length), -1)
WRAPPED(int, flock, (int fd, int operation), (fd, operation), -1)
WRAPPED(int, rename, (const char* from, const char* to), (from, to), -1)
WRAPPED(int, unlink, (const char* path), (path), -1)
int __real_unlinkat(int folder, const char* path, int flags);
int __wrap_unlinkat(int folder, const char* path, int flags) {
  const bool fails = kes::test::fails((flags & AT_REMOVEDIR) != 0 ? "unlinkat of a directory" : "unlinkat");
  return fails ? -1 : __real_unlinkat(folder, path, flags);
}
WRAPPED(int, rmdir, (const char* path), (path), -1)
WRAPPED(int, mkdir, (const char* path, mode_t mode), (path, mode), -1)
WRAPPED(int, symlink, (const char* target, const char* path), (target, path), -1)
WRAPPED(int, mkfifo, (const char* path, mode_t mode), (path, mode), -1)
WRAPPED(int, mkostemp, (char* name, int flags), (name, flags), -1)
WRAPPED(char*, mkdtemp, (char* name), (name), nullptr)
WRAPPED(int, chmod, (const char* path, mode_t mode), (path, mode), -1)
WRAPPED(int, fchmod, (int fd, mode_t mode), (fd, mode), -1)
WRAPPED(int, chown, (const char* path, uid_t owner, gid_t group), (path, owner, group), -1)
WRAPPED(int, fchown, (int fd, uid_t owner, gid_t group), (fd, owner, group), -1)
WRAPPED(int, stat, (const char* path, struct stat* status), (path, status), -1)
WRAPPED(int, lstat, (const char* path, struct stat* status), (path, status), -1)
WRAPPED(int, fstat, (int fd, struct stat* status), (fd, status), -1)
WRAPPED(int, fstatat, (int folder, const char* path, struct stat* status, int flags),
        (folder, path, status, flags), -1)
WRAPPED(DIR*, opendir, (const char* path), (path), nullptr)
WRAPPED(DIR*, fdopendir, (int fd), (fd), nullptr)
dirent* __real_readdir(DIR* folder);
dirent* __wrap_readdir(DIR* folder) {
  if (kes::test::fails("readdir")) return nullptr;
  dirent* const entry = __real_readdir(folder);
  if (entry != nullptr && !kes::test::typesAreKnown) entry->d_type = DT_UNKNOWN;
  return entry;
}
WRAPPED(int, closedir, (DIR * folder), (folder), (__real_closedir(folder), -1))
int __real_glob(const char* pattern, int flags, int (*onError)(const char*, int), glob_t* list);
int __wrap_glob(const char* pattern, int flags, int (*onError)(const char*, int), glob_t* list) {
  return kes::test::fails("glob") ? errno : __real_glob(pattern, flags, onError, list);
}
}
// NOLINTEND(bugprone-macro-parentheses)

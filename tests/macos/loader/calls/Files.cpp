#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "Calls.h"
#include "Variadic.h"
#include "calls/Records.h"

namespace loader {

namespace {

struct Flag {
  int mac, host;
};
constexpr Flag openFlags[] = {
    {0x4, O_NONBLOCK},   {0x8, O_APPEND},         {0x80, O_SYNC},         {0x100, O_NOFOLLOW},
    {0x200, O_CREAT},    {0x400, O_TRUNC},        {0x800, O_EXCL},        {0x20000, O_NOCTTY},
    {0x400000, O_DSYNC}, {0x100000, O_DIRECTORY}, {0x1000000, O_CLOEXEC},
};
constexpr int macWorkingDirectory = -2, macRemoveDirectory = 0x80, macNoFollow = 0x20, macFollow = 0x40;

int hostOpenFlags(int flags) {
  int result = flags & O_ACCMODE;
  for (const Flag& flag : openFlags) {
    if ((flags & flag.mac) != 0) result |= flag.host;
  }
  return result;
}
int hostDirectory(int fd) { return fd == macWorkingDirectory ? AT_FDCWD : fd; }

int open(const char* path, int flags, MacList mode) {
  return ::open(path, hostOpenFlags(flags), HostArguments(mode).next<mode_t>());
}
int openAt(int fd, const char* path, int flags, MacList mode) {
  return ::openat(hostDirectory(fd), path, hostOpenFlags(flags), HostArguments(mode).next<mode_t>());
}
int changeModeAt(int fd, const char* path, mode_t mode, int flags) {
  return ::fchmodat(hostDirectory(fd), path, mode, (flags & macNoFollow) != 0 ? AT_SYMLINK_NOFOLLOW : 0);
}
struct Times {
  explicit Times(const timespec* mac) {
    constexpr long macNow = -1, macOmit = -2;
    if (mac == nullptr) return;
    for (int i = 0; i < 2; ++i) {
      const long part = mac[i].tv_nsec;
      values[i] = {mac[i].tv_sec, part == macNow ? UTIME_NOW : part == macOmit ? UTIME_OMIT : part};
    }
  }

  timespec values[2] = {{0, UTIME_NOW}, {0, UTIME_NOW}};
};
int setTimesAt(int fd, const char* path, const timespec* mac, int flags) {
  const int hostFlags = (flags & macNoFollow) != 0 ? AT_SYMLINK_NOFOLLOW : 0;
  return ::utimensat(hostDirectory(fd), path, Times(mac).values, hostFlags);
}
int setTimes(int fd, const timespec* mac) { return ::futimens(fd, Times(mac).values); }

int makeDirectoryAt(int fd, const char* path, mode_t mode) {
  return ::mkdirat(hostDirectory(fd), path, mode);
}
int makeFifoAt(int fd, const char* path, mode_t mode) { return ::mkfifoat(hostDirectory(fd), path, mode); }
int renameAt(int fd, const char* from, int toFd, const char* to) {
  return ::renameat(hostDirectory(fd), from, hostDirectory(toFd), to);
}
int linkAt(int fd, const char* from, int toFd, const char* to, int flags) {
  const int hostFlags = (flags & macFollow) != 0 ? AT_SYMLINK_FOLLOW : 0;
  return ::linkat(hostDirectory(fd), from, hostDirectory(toFd), to, hostFlags);
}
int symlinkAt(const char* target, int fd, const char* path) {
  return ::symlinkat(target, hostDirectory(fd), path);
}
ssize_t readLinkAt(int fd, const char* path, char* text, std::size_t size) {
  return ::readlinkat(hostDirectory(fd), path, text, size);
}
int changeOwnerAt(int fd, const char* path, uid_t user, gid_t group, int flags) {
  const int hostFlags = (flags & macNoFollow) != 0 ? AT_SYMLINK_NOFOLLOW : 0;
  return ::fchownat(hostDirectory(fd), path, user, group, hostFlags);
}
int accessAt(int fd, const char* path, int mode, int flags) {
  constexpr int macEffective = 0x10;
  const int hostFlags =
      ((flags & macEffective) != 0 ? AT_EACCESS : 0) | ((flags & macNoFollow) != 0 ? AT_SYMLINK_NOFOLLOW : 0);
  return ::faccessat(hostDirectory(fd), path, mode, hostFlags);
}

int makePipe(int* ends, int flags) { return ::pipe2(ends, hostOpenFlags(flags)); }
int makeTemporary(char* name, int flags) { return ::mkostemp(name, hostOpenFlags(flags)); }
int unlinkAt(int fd, const char* path, int flags) {
  return ::unlinkat(hostDirectory(fd), path, (flags & macRemoveDirectory) != 0 ? AT_REMOVEDIR : 0);
}

/// The first place on a page of a Mac's.
std::uint8_t* onMacPage(void* place) {
  const auto beyond = reinterpret_cast<std::uintptr_t>(place) % macPage;
  return static_cast<std::uint8_t*>(place) + (macPage - beyond) % macPage;
}
void* map(void* address, std::size_t size, int protection, int flags, int fd, off_t offset) {
  constexpr int macAnonymous = 0x1000, common = MAP_SHARED | MAP_PRIVATE | MAP_FIXED;
  const int hostFlags = (flags & common) | ((flags & macAnonymous) != 0 ? MAP_ANONYMOUS : 0);
  void* const place = ::mmap(address, size, protection, hostFlags, fd, offset);
  if (place == MAP_FAILED || onMacPage(place) == place) return place;
  // The pages of this system are smaller. Around the place that is taken, what is free stays reserved, which
  // harms nobody: what is unmapped is the mapping.
  ::munmap(place, size);
  void* const room = ::mmap(nullptr, size + macPage, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (room == MAP_FAILED) return MAP_FAILED;
  return ::mmap(onMacPage(room), size, protection, hostFlags | MAP_FIXED, fd, offset);
}

int syncMap(void* address, std::size_t size, int flags) {
  constexpr int macSync = 0x10;
  return ::msync(address, size, (flags & ~macSync) | ((flags & macSync) != 0 ? MS_SYNC : 0));
}
// The first few numbers are the same.
int advise(void* address, std::size_t size, int advice) {
  if (advice >= MADV_NORMAL && advice <= MADV_DONTNEED) return ::madvise(address, size, advice);
  errno = EINVAL;
  return -1;
}

off_t seek(int fd, off_t offset, int base) {
  constexpr int macHole = 3, macData = 4;
  return ::lseek(fd, offset, base == macHole ? SEEK_HOLE : base == macData ? SEEK_DATA : base);
}

struct MacStat {
  std::int32_t device;
  std::uint16_t mode, links;
  std::uint64_t inode;
  std::uint32_t user, group;
  std::int32_t specialDevice;
  timespec accessed, modified, changed, born;
  std::int64_t size, blocks;
  std::int32_t blockSize;
  std::uint32_t flags, generation;
  std::int32_t spare;
  std::int64_t spares[2];
};
static_assert(sizeof(MacStat) == 144);

int give(int result, const struct stat& host, MacStat* mac) {
  if (result != 0) return result;
  *mac = MacStat{.device = static_cast<std::int32_t>(host.st_dev),
                 .mode = static_cast<std::uint16_t>(host.st_mode),
                 .links = static_cast<std::uint16_t>(host.st_nlink),
                 .inode = host.st_ino,
                 .user = host.st_uid,
                 .group = host.st_gid,
                 .specialDevice = static_cast<std::int32_t>(host.st_rdev),
                 .accessed = host.st_atim,
                 .modified = host.st_mtim,
                 .changed = host.st_ctim,
                 .born = host.st_ctim,
                 .size = host.st_size,
                 .blocks = host.st_blocks,
                 .blockSize = static_cast<std::int32_t>(host.st_blksize),
                 .flags = 0,
                 .generation = 0,
                 .spare = 0,
                 .spares = {}};
  return 0;
}
int status(const char* path, MacStat* mac) {
  struct stat host {};
  return give(::stat(path, &host), host, mac);
}
int linkStatus(const char* path, MacStat* mac) {
  struct stat host {};
  return give(::lstat(path, &host), host, mac);
}
int openStatus(int fd, MacStat* mac) {
  struct stat host {};
  return give(::fstat(fd, &host), host, mac);
}
int statusAt(int fd, const char* path, MacStat* mac, int flags) {
  struct stat host {};
  const int hostFlags = (flags & macNoFollow) != 0 ? AT_SYMLINK_NOFOLLOW : 0;
  return give(::fstatat(hostDirectory(fd), path, &host, hostFlags), host, mac);
}

struct MacEntry {
  std::uint64_t inode, offset;
  std::uint16_t recordLength, nameLength;
  std::uint8_t type;
  char name[1024];
};

/// A stream has one entry at a time over there as well; here a thread has.
MacEntry* nextEntry(DIR* directory) {
  static thread_local MacEntry mac;
  const dirent* const host = ::readdir(directory);
  if (host == nullptr) return nullptr;
  mac.inode = host->d_ino;
  mac.type = host->d_type;
  mac.nameLength = static_cast<std::uint16_t>(std::strlen(host->d_name));
  mac.recordLength = sizeof mac;
  std::memcpy(mac.name, host->d_name, mac.nameLength + std::size_t{1});
  return &mac;
}

// Kinds of a lock, as both count them.
constexpr int macLocks[] = {1, 2, 3};
constexpr short hostLocks[] = {F_RDLCK, F_UNLCK, F_WRLCK};

int lockRange(int fd, int command, mac::Flock* mac) {
  struct flock host {};
  host.l_start = mac->start;
  host.l_len = mac->length;
  host.l_whence = mac->whence;
  host.l_type = -1;
  for (int i = 0; i < 3; ++i) {
    if (macLocks[i] == mac->type) host.l_type = hostLocks[i];
  }
  const int result = ::fcntl(fd, command, &host);
  if (result != 0 || (command != F_GETLK && command != F_OFD_GETLK)) return result;
  *mac = {host.l_start, host.l_len, host.l_pid, 0, host.l_whence};
  for (int i = 0; i < 3; ++i) {
    if (hostLocks[i] == host.l_type) mac->type = static_cast<std::int16_t>(macLocks[i]);
  }
  return result;
}

int getFlags(int fd) {
  const int host = ::fcntl(fd, F_GETFL);
  if (host == -1) return -1;
  int mac = host & O_ACCMODE;
  for (const Flag& flag : openFlags) {
    if ((host & flag.host) == flag.host) mac |= flag.mac;
  }
  return mac;
}

int control(int fd, int command, MacList rest) {
  const auto argument = HostArguments(rest).next<std::intptr_t>();
  constexpr int lastCommon = F_SETFD, macFullSync = 51, macDuplicateCloseOnExec = 67;
  struct Lock {
    int mac, host;
  };
  constexpr Lock locks[] = {{7, F_GETLK},      {8, F_SETLK},       {9, F_SETLKW},
                            {90, F_OFD_SETLK}, {91, F_OFD_SETLKW}, {92, F_OFD_GETLK}};
  if (command <= lastCommon) return ::fcntl(fd, command, argument);
  if (command == F_GETFL) return getFlags(fd);
  if (command == F_SETFL) return ::fcntl(fd, F_SETFL, hostOpenFlags(static_cast<int>(argument)));
  if (command == macFullSync) return ::fsync(fd);
  if (command == macDuplicateCloseOnExec) return ::fcntl(fd, F_DUPFD_CLOEXEC, argument);
  for (const Lock& lock : locks) {
    if (lock.mac == command) return lockRange(fd, lock.host, reinterpret_cast<mac::Flock*>(argument));
  }
  errno = EINVAL;
  return -1;
}

struct MacTimeval {
  std::int64_t seconds;
  std::int32_t microseconds;
};
int select(int count, fd_set* reads, fd_set* writes, fd_set* others, const MacTimeval* mac) {
  if (mac == nullptr) return ::select(count, reads, writes, others, nullptr);
  timeval host{mac->seconds, mac->microseconds};
  return ::select(count, reads, writes, others, &host);
}
int descriptorFits(int, const void*, int) { return 1; }

const Call calls[] = {
    {"open", variadic<open>},
    {"openat", variadic<openAt>},
    {"fchmodat", changeModeAt},
    {"utimensat", setTimesAt},
    {"futimens", setTimes},
    {"mkdirat", makeDirectoryAt},
    {"mkfifoat", makeFifoAt},
    {"renameat", renameAt},
    {"linkat", linkAt},
    {"symlinkat", symlinkAt},
    {"readlinkat", readLinkAt},
    {"fchownat", changeOwnerAt},
    {"faccessat", accessAt},
    {"lchown", ::lchown},
    {"pwrite", ::pwrite},
    {"getentropy", ::getentropy},
    {"mkostemp", makeTemporary},
    {"pipe2", makePipe},
    {"unlinkat", unlinkAt},
    {"lseek", seek},
    {"fmemopen", ::fmemopen},
    {"mmap", map},
    {"msync", syncMap},
    {"madvise", advise},
    {"stat", status},
    {"lstat", linkStatus},
    {"fstat", openStatus},
    {"fstatat", statusAt},
    {"readdir", nextEntry},
    {"fcntl", variadic<control>},
    {"select", select},
    {"__darwin_check_fd_set_overflow", descriptorFits},
};

}  // namespace

std::span<const Call> fileCalls() { return calls; }

}  // namespace loader

#include <dirent.h>
#include <fcntl.h>
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

namespace loader {

namespace {

struct Flag {
  int mac, host;
};
constexpr Flag openFlags[] = {
    {0x4, O_NONBLOCK}, {0x8, O_APPEND}, {0x100, O_NOFOLLOW},     {0x200, O_CREAT},
    {0x400, O_TRUNC},  {0x800, O_EXCL}, {0x100000, O_DIRECTORY}, {0x1000000, O_CLOEXEC},
};
constexpr int macWorkingDirectory = -2, macRemoveDirectory = 0x80, macNoFollow = 0x20;

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
int setTimesAt(int fd, const char* path, const timespec* mac, int flags) {
  constexpr long macNow = -1, macOmit = -2;
  timespec times[2] = {mac[0], mac[1]};
  for (timespec& time : times) {
    time.tv_nsec = time.tv_nsec == macNow ? UTIME_NOW : time.tv_nsec == macOmit ? UTIME_OMIT : time.tv_nsec;
  }
  const int hostFlags = (flags & macNoFollow) != 0 ? AT_SYMLINK_NOFOLLOW : 0;
  return ::utimensat(hostDirectory(fd), path, times, hostFlags);
}
int makePipe(int* ends, int flags) { return ::pipe2(ends, hostOpenFlags(flags)); }
int makeTemporary(char* name, int flags) { return ::mkostemp(name, hostOpenFlags(flags)); }
int unlinkAt(int fd, const char* path, int flags) {
  return ::unlinkat(hostDirectory(fd), path, (flags & macRemoveDirectory) != 0 ? AT_REMOVEDIR : 0);
}

void* map(void* address, std::size_t size, int protection, int flags, int fd, off_t offset) {
  constexpr int macAnonymous = 0x1000, common = MAP_SHARED | MAP_PRIVATE | MAP_FIXED;
  const int hostFlags = (flags & common) | ((flags & macAnonymous) != 0 ? MAP_ANONYMOUS : 0);
  return ::mmap(address, size, protection, hostFlags, fd, offset);
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

int control(int fd, int command, MacList rest) {
  const auto argument = HostArguments(rest).next<long>();
  constexpr int macDuplicateCloseOnExec = 67, lastCommon = F_SETFD, getFlags = F_GETFL, setFlags = F_SETFL;
  if (command <= lastCommon) return ::fcntl(fd, command, argument);
  if (command == macDuplicateCloseOnExec) return ::fcntl(fd, F_DUPFD_CLOEXEC, argument);
  if (command == setFlags) return ::fcntl(fd, F_SETFL, hostOpenFlags(static_cast<int>(argument)));
  if (command != getFlags) {
    errno = EINVAL;
    return -1;
  }
  const int host = ::fcntl(fd, F_GETFL);
  if (host == -1) return -1;
  int mac = host & O_ACCMODE;
  for (const Flag& flag : openFlags) {
    if ((host & flag.host) != 0) mac |= flag.mac;
  }
  return mac;
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
    {"mkostemp", makeTemporary},
    {"pipe2", makePipe},
    {"unlinkat", unlinkAt},
    {"mmap", map},
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

#include "os/System.h"

#include <link.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

// g++ always defines _GNU_SOURCE, and with it <cstring> declares the GNU strerror_r, which cannot fail.
// The POSIX form has this name in every C library that offers both.
extern "C" int __xpg_strerror_r(int, char*, std::size_t);  // NOLINT(bugprone-reserved-identifier)

namespace kes::os {

char*** environment() noexcept { return &::environ; }

bool errorText(int errnum, char* buffer, std::size_t size) {
  return ::__xpg_strerror_r(errnum, buffer, size) == 0;
}

const char* plainErrorText(int errnum) noexcept { return ::strerrordesc_np(errnum); }

bool nothingToSync(int errnum) noexcept { return errnum == EINVAL; }

unsigned savedUserId() noexcept {
  uid_t real = 0, effective = 0, saved = 0;
  ::getresuid(&real, &effective, &saved);
  return saved;
}

unsigned savedGroupId() noexcept {
  gid_t real = 0, effective = 0, saved = 0;
  ::getresgid(&real, &effective, &saved);
  return saved;
}

std::vector<gid_t> groupList(unsigned /*gid*/, const std::set<unsigned>& groups) {
  return {groups.begin(), groups.end()};
}

namespace {

// The loader answers under a lock that stays as it is in a forked child: another thread of the parent may
// have held it, in dlopen() for one. So such a child does not ask, and names every frame anew, which takes
// only the lock that fork() sets free.
constinit bool forked = false;

const bool watching = ::pthread_atfork(nullptr, nullptr, [] { forked = true; }) == 0;

// Every object reports the same counter, so the first one ends the walk.
int readCounter(dl_phdr_info* info, std::size_t, void* counter) {
  *static_cast<std::uint64_t*>(counter) = info->dlpi_subs;
  return 1;
}

}  // namespace

std::optional<std::uint64_t> unloads() noexcept {
  if (!watching || forked) return std::nullopt;
  std::uint64_t counter = 0;
  ::dl_iterate_phdr(readCounter, &counter);
  return counter;
}

void waitOrLeave(void (*wait)(void*), void (* /*leave*/)(void*), void* argument) { wait(argument); }

}  // namespace kes::os

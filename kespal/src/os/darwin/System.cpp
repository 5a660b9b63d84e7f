#include "os/System.h"

#include <crt_externs.h>
#include <mach-o/dyld.h>
#include <pthread.h>
#include <sys/sysctl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>

#include "kespal/os/thread/Native.h"

namespace kes::os {

// A library cannot name `environ` itself on this system.
char*** environment() noexcept { return ::_NSGetEnviron(); }

bool errorText(int errnum, char* buffer, std::size_t size) { return ::strerror_r(errnum, buffer, size) == 0; }

const char* plainErrorText(int errnum) noexcept {
  return errnum >= 0 && errnum < ::sys_nerr ? ::sys_errlist[errnum] : nullptr;
}

// What has no vnode, such as a pipe, answers ENOTSUP here.
bool nothingToSync(int errnum) noexcept { return errnum == EINVAL || errnum == ENOTSUP; }

namespace {

// No call asks for a saved id alone; the process's own entry in the process table has it.
bool findProcess(kinfo_proc& entry) noexcept {
  int name[] = {CTL_KERN, KERN_PROC, KERN_PROC_PID, ::getpid()};
  std::size_t size = sizeof entry;
  return ::sysctl(name, 4, &entry, &size, nullptr, 0) == 0;
}

}  // namespace

unsigned savedUserId() noexcept {
  kinfo_proc entry{};
  return findProcess(entry) ? entry.kp_eproc.e_pcred.p_svuid : ::geteuid();
}

unsigned savedGroupId() noexcept {
  kinfo_proc entry{};
  return findProcess(entry) ? entry.kp_eproc.e_pcred.p_svgid : ::getegid();
}

// The first of the list is the effective group id here, and an empty list is that of root's group.
std::vector<gid_t> groupList(unsigned gid, const std::set<unsigned>& groups) {
  std::vector<gid_t> list{gid};
  for (const unsigned group : groups) {
    if (group != gid) list.push_back(group);
  }
  return list;
}

namespace {

constinit std::atomic<std::uint64_t> counter{0};

void countRemoval(const mach_header*, std::intptr_t) { counter.fetch_add(1); }

// The loader counts for nobody, but from now on it tells of every removal. Asked before there are threads: a
// child that is forked meanwhile would wait for ever to ask.
const bool listening = (::_dyld_register_func_for_remove_image(countRemoval), true);

}  // namespace

std::optional<std::uint64_t> unloads() noexcept {
  return listening ? std::optional(counter.load()) : std::nullopt;
}

// An error must not pass by the cleanup handler: the system would still know it when its frame is gone.
void waitOrLeave(void (*wait)(void*), void (*leave)(void*), void* argument) {
  std::exception_ptr error;
  pthread_cleanup_push(leave, argument);
  try {
    wait(argument);
  } catch (...) {
    if (isForcedUnwind()) throw;
    error = std::current_exception();
  }
  pthread_cleanup_pop(0);
  if (error) std::rethrow_exception(error);
}

}  // namespace kes::os

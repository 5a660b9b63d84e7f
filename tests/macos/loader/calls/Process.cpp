#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>
#include <vector>

#include "Calls.h"
#include "ThreadLocals.h"
#include "Variadic.h"

extern "C" int __cxa_atexit(void (*)(void*), void*, void*);
extern "C" int __cxa_thread_atexit_impl(void (*)(void*), void*, void*);
extern "C" char __dso_handle;

namespace loader {

namespace {

char*** environment() { return &environ; }
char*** arguments() { return &program.argv; }
int* argumentCount() { return &program.argc; }

int executablePath(char* path, std::uint32_t* size) {
  char* const resolved = ::realpath(program.argv[0], nullptr);
  if (resolved == nullptr) return -1;
  const auto needed = static_cast<std::uint32_t>(std::strlen(resolved) + 1);
  const bool fits = *size >= needed;
  if (fits) {
    std::memcpy(path, resolved, needed);
  } else {
    *size = needed;
  }
  std::free(resolved);
  return fits ? 0 : -1;
}

int atExit(void (*function)()) {
  return ::__cxa_atexit([](void* raw) { reinterpret_cast<void (*)()>(raw)(); },
                        reinterpret_cast<void*>(function), nullptr);
}
void atThreadExit(void (*function)(void*), void* object) {
  ::__cxa_thread_atexit_impl(function, object, &__dso_handle);
}

/// The list ends with a null pointer.
int executeList(const char* path, const char* first, MacList rest) {
  std::vector<char*> all{const_cast<char*>(first)};
  HostArguments arguments(rest);
  while (all.back() != nullptr) all.push_back(arguments.next<char*>());
  return ::execv(path, all.data());
}

int clockTime(int mac, timespec* now) {
  switch (mac) {
    case 0:
      return ::clock_gettime(CLOCK_REALTIME, now);
    case 12:
      return ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, now);
    case 16:
      return ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, now);
    default:
      return ::clock_gettime(CLOCK_MONOTONIC, now);
  }
}

long configuration(int mac) {
  switch (mac) {
    case 4:
      return ::sysconf(_SC_NGROUPS_MAX);
    case 5:
      return ::sysconf(_SC_OPEN_MAX);
    case 70:
      return ::sysconf(_SC_GETGR_R_SIZE_MAX);
    case 71:
      return ::sysconf(_SC_GETPW_R_SIZE_MAX);
    case 93:
      return macSmallestStack;
    case 29:
      return macPage;
    case 57:
      return ::sysconf(_SC_NPROCESSORS_CONF);
    case 58:
      return ::sysconf(_SC_NPROCESSORS_ONLN);
    default:
      errno = EINVAL;
      return -1;
  }
}

/// This system's number of a limit; both count 0 to 4 alike.
int hostLimit(int mac) {
  constexpr int hosts[] = {RLIMIT_CPU, RLIMIT_FSIZE,   RLIMIT_DATA,  RLIMIT_STACK, RLIMIT_CORE,
                           RLIMIT_RSS, RLIMIT_MEMLOCK, RLIMIT_NPROC, RLIMIT_NOFILE};
  return mac >= 0 && mac < static_cast<int>(std::size(hosts)) ? hosts[mac] : -1;
}
int getLimit(int mac, rlimit* limit) {
  return ::getrlimit(static_cast<__rlimit_resource>(hostLimit(mac)), limit);
}
int setLimit(int mac, const rlimit* limit) {
  return ::setrlimit(static_cast<__rlimit_resource>(hostLimit(mac)), limit);
}

void fillPattern(void* target, const void* pattern, std::size_t size) {
  for (std::size_t i = 0; i < size; ++i) {
    static_cast<char*>(target)[i] = static_cast<const char*>(pattern)[i % 16];
  }
}
void fillZeroes(void* target, std::size_t size) { std::memset(target, 0, size); }
/// Google Test only wants to warn of threads when it forks.
int threadsUnknown(std::uint32_t, void*, void*) {
  constexpr int failure = 5;
  return failure;
}
int alwaysNewEnough(std::uint32_t, const void*) { return 1; }

std::uint64_t stackGuard = 0x9E3779B97F4A7C15;
[[noreturn]] void stackSmashed() {
  std::fputs("loader: the program overran a buffer on its stack\n", stderr);
  std::abort();
}

const Call calls[] = {
    {"_NSGetEnviron", environment},
    {"_NSGetArgv", arguments},
    {"_NSGetArgc", argumentCount},
    {"_NSGetExecutablePath", executablePath},
    {"atexit", atExit},
    {"_tlv_atexit", atThreadExit},
    {"_tlv_bootstrap", threadLocalAccess},
    {"execl", variadic<executeList>},
    {"clock_gettime", clockTime},
    {"sysconf", configuration},
    {"task_threads", threadsUnknown},
    {"getrlimit", getLimit},
    {"setrlimit", setLimit},
    {"memset_pattern16", fillPattern},
    {"__bzero", fillZeroes},
    {"_availability_version_check", alwaysNewEnough},
    {"__stack_chk_guard", stackGuard},
    {"__stack_chk_fail", stackSmashed},
    {"__stdinp", stdin},
    {"__stdoutp", stdout},
    {"__stderrp", stderr},
};

}  // namespace

std::span<const Call> processCalls() { return calls; }

}  // namespace loader

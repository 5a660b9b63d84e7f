#include <dlfcn.h>
#include <sys/mman.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <stdexcept>
#include <string_view>

#include "Calls.h"
#include "Stub.h"

namespace loader {

namespace {

// Functions whose types, constants and results are the same on both systems, as far as programs here use
// them.
constexpr std::string_view sameOnBoth = R"(
  abort abs access alarm aligned_alloc atan atan2 atof atoi atol bcmp bsearch btowc bzero calloc catclose
  catgets catopen ceil ceilf chdir chmod chown clearenv clearerr close closedir ctime ctime_r __cxa_atexit
  __cxa_finalize dirfd div dlclose dlerror dlopen dlsym dup dup2 execv execve execvp _exit exit exp
  fchdir fchmod fchown fclose fdopen fdopendir feof ferror fflush fgetc fgets fileno flock flockfile floor
  fmod fopen fork fputc fputs fputwc fread free freelocale frexp fseek fseeko fsync ftell
  ftello ftruncate funlockfile fwrite getc getchar getcwd getegid getenv geteuid getgid getgrgid getgrgid_r
  getgrnam getgrnam_r getgroups gethostname getlogin_r getpgid getpgrp getpid getppid getsid gettid
  gettimeofday getuid getwc gmtime_r isatty ldexp link localtime localtime_r log log10 log2 lseek malloc
  memchr memcmp memcpy memmove memset mkdir mkdtemp mkfifo mkstemp mktime mprotect munmap nanosleep
  nextafter open_memstream opendir pause perror pipe poll posix_memalign pow pread
  pthread_attr_destroy pthread_attr_getstack pthread_attr_getstacksize pthread_attr_init pthread_exit
  pthread_testcancel putc putchar puts qsort rand read readlink realloc realpath remove rename rewind
  rewinddir rmdir round roundf sched_yield setbuf setegid setenv seteuid setgid setpgid setsid setuid
  setvbuf sleep sqrt srand stpcpy strcasecmp strcat strchr strcmp strcoll strcoll_l
  strcpy strcspn strdup strerror strftime strftime_l strlen strncasecmp strncat strncmp strncpy strndup
  strnlen strpbrk strrchr strspn strstr strtod strtof strtok_r strtol strtoll strtoul strtoull
  strxfrm strxfrm_l symlink system tcgetpgrp time toascii tolower toupper trunc truncate tzset umask ungetc
  ungetwc unlink unsetenv uselocale usleep utime utimes
  wcrtomb wcscmp wcscoll_l wcslen wcsstr wcstod wcstof wcstol wcstoll wcstoul wcstoull
  wcsxfrm_l wctob wmemchr wmemcmp wmemcpy wmemset write writev
)";

// Functions with variable arguments, which a Mac passes in its own way.
constexpr std::string_view variable = R"(
  asprintf asprintf_l dprintf err errx execl execle execlp fcntl fprintf fscanf fwprintf ioctl open openat
  printf scanf sem_open semctl snprintf snprintf_l sprintf sscanf sscanf_l swprintf swscanf syslog warn warnx
  wprintf
)";

std::set<std::string_view> wordsOf(std::string_view text) {
  constexpr std::string_view blanks = " \n";
  std::set<std::string_view> words;
  for (std::size_t begin = text.find_first_not_of(blanks); begin != text.npos;) {
    const std::size_t end = text.find_first_of(blanks, begin);
    words.insert(text.substr(begin, end - begin));
    begin = text.find_first_not_of(blanks, end);
  }
  return words;
}

std::map<std::string, void*> gather(const std::set<std::string_view>& variadic) {
  std::map<std::string, void*> all;
  for (const auto group :
       {accountCalls, backtraceCalls,    childCalls, errorCalls,   eventCalls,   fileCalls,
        formatCalls,  globCalls,         ioKitCalls, libraryCalls, lockCalls,    machClockCalls,
        processCalls, processTableCalls, regexCalls, signalCalls,  systemVCalls, terminalCalls,
        textCalls,    threadCalls,       unwindCalls}) {
    for (const Call& call : group()) {
      if (call.isVariadic != variadic.contains(call.name)) {
        throw std::logic_error(std::string(call.name) + " is called in another way over there");
      }
      all[call.name] = call.address;
    }
  }
  return all;
}

[[noreturn]] void reportMissing(const char* name) {
  std::fflush(nullptr);
  std::fprintf(stderr, "loader: the program calls %s, which is not provided\n", name);
  std::_Exit(127);
}

/// Code that calls reportMissing() with a name. As the address of a variable it does no harm either, as long
/// as nobody reads it.
void* stubFor(const std::string& name) {
  constexpr std::size_t room = 1 << 16;
  static std::uint8_t* next = nullptr;
  static std::uint8_t* end = nullptr;
  if (next == end) {
    void* const place =
        ::mmap(nullptr, room, PROT_READ | PROT_WRITE | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (place == MAP_FAILED) throw std::runtime_error("no memory for stubs");
    next = static_cast<std::uint8_t*>(place);
    end = next + room;
  }
  std::uint8_t* const stub = next;
  next += stubRoom;
  writeStub(stub, reportMissing, ::strdup(name.c_str()));
  __builtin___clear_cache(reinterpret_cast<char*>(stub), reinterpret_cast<char*>(next));
  return stub;
}

}  // namespace

void* systemSymbol(const std::string& name) {
  static const std::set<std::string_view> same = wordsOf(sameOnBoth), variadic = wordsOf(variable);
  static std::map<std::string, void*> known = gather(variadic);
  const auto found = known.find(name);
  if (found != known.end()) return found->second;
  void* const host =
      same.contains(name) && !variadic.contains(name) ? ::dlsym(RTLD_DEFAULT, name.c_str()) : nullptr;
  return known[name] = host != nullptr ? host : stubFor(name);
}

}  // namespace loader

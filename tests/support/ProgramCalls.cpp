#include "support/ProgramCalls.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <string_view>
#include <type_traits>

// Preloaded into a program: its calls of the C library are counted, and one of them is refused.

namespace {

using namespace kes::test;

std::atomic<ProgramCalls*> calls{nullptr};
std::atomic<bool> everythingPasses{false};

/// The next definition of a name, past this library's. Its own look-up is in the table, too.
void* next(const char* name) {
  using Look = void* (*)(void*, const char*);
  static std::atomic<Look> look{nullptr};
  if (look == nullptr) {
    void* found = nullptr;
    for (const char* version : {"GLIBC_2.34", "GLIBC_2.17", "GLIBC_2.2.5"}) {
      if (found == nullptr) found = ::dlvsym(RTLD_NEXT, "dlsym", version);
    }
    look = reinterpret_cast<Look>(found);
  }
  return look.load()(RTLD_NEXT, name);
}

/// By bare system calls: nothing of this may pass by itself.
[[gnu::constructor]] void begin() {
  const char* name = nullptr;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    constexpr std::string_view variable = "KES_PROGRAM_CALLS=";
    if (std::string_view(*entry).starts_with(variable)) name = *entry + variable.size();
  }
  if (name == nullptr) return;
  const long fd = ::syscall(SYS_openat, AT_FDCWD, name, O_RDWR | O_CLOEXEC);
  const long at =
      ::syscall(SYS_mmap, nullptr, sizeof(ProgramCalls), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0L);
  ::syscall(SYS_close, fd);
  if (at > 0) calls = reinterpret_cast<ProgramCalls*>(at);  // NOLINT(performance-no-int-to-ptr)
}

/// Whether this call is the one.
bool isStruck(Call call) {
  ProgramCalls* const plan = calls.load(std::memory_order_relaxed);
  if (plan == nullptr || everythingPasses) return false;
  const int number = plan->made[static_cast<std::size_t>(call)].fetch_add(1) + 1;
  if (plan->call != static_cast<int>(call) || number < plan->number) return false;
  if (number > plan->number && !plan->isForGood) return false;
  plan->struck.fetch_add(1);
  return true;
}

template <Call call, typename Result>
Result refused() {
  constexpr Tells tells = Row<call>::tells;
  const int error = calls.load()->error;
  if constexpr (tells == Tells::Code || tells == Tells::CodeDone) {
    return static_cast<Result>(error);
  } else if constexpr (!std::is_void_v<Result>) {
    errno = error;
    if constexpr (tells == Tells::Null || tells == Tells::Nothing) return Result{};
    return (Result)-1;  // NOLINT: MAP_FAILED, SIG_ERR or a number
  }
}

/// Moves one byte.
template <typename Data, typename... Place>
ssize_t cut(ssize_t (*real)(int, Data*, std::size_t, Place...), int fd, Data* data, std::size_t size,
            Place... place) {
  return real(fd, data, size > 0 ? 1 : 0, place...);
}
ssize_t cut(ssize_t (*real)(int, const iovec*, int), int fd, const iovec* pieces, int count) {
  const iovec first{pieces[0].iov_base, pieces[0].iov_len > 0 && count > 0 ? std::size_t{1} : std::size_t{0}};
  return real(fd, &first, 1);
}

/// The way of a call, with the system's own function.
template <Call call, typename Result, typename... Parameters>
struct Passing {
  Result (*real)(Parameters...);

  Result operator()(Parameters... arguments) const {
    constexpr Tells tells = Row<call>::tells;
    if (!isStruck(call)) {
      if constexpr (call == Call::nanosleep) {
        if (calls.load() != nullptr && calls.load()->isSleepless) return 0;
      }
      return real(arguments...);
    }
    if constexpr ((Row<call>::traits & Short) != 0) {
      if (calls.load()->isShort) return cut(real, arguments...);
    }
    if constexpr (tells == Tells::MinusOneDone || tells == Tells::CodeDone) real(arguments...);
    return refused<call, Result>();
  }
};
template <Call call, typename Result, typename... Parameters>
Passing<call, Result, Parameters...> passing(std::atomic<Result (*)(Parameters...)>& real, const char* name) {
  if (real == nullptr) real = reinterpret_cast<Result (*)(Parameters...)>(next(name));
  return {real.load()};
}

}  // namespace

/// Called by what is in the program and no part of it, the counters of a coverage build, around its calls.
extern "C" void kes_let_pass(int everything) { everythingPasses = everything != 0; }

// The functions have names of their own for the compiler, which knows those of the C library with attributes.
// NOLINTBEGIN(bugprone-macro-parentheses)
#define BARE(...) __VA_ARGS__
#define CALL(NAME, result, parameters, arguments, ...)                   \
  extern "C" result passing_##NAME parameters asm(#NAME);                \
  extern "C" result passing_##NAME parameters {                          \
    static constinit std::atomic<result(*) parameters> systems{nullptr}; \
    return passing<Call::NAME>(systems, #NAME) arguments;                \
  }
#define VARIADIC(NAME, result, parameters, last, arguments, ...)                       \
  extern "C" result passing_##NAME(BARE parameters, ...) asm(#NAME);                   \
  extern "C" result passing_##NAME(BARE parameters, ...) {                             \
    std::va_list rest;                                                                 \
    va_start(rest, last);                                                              \
    void* const more = va_arg(rest, void*);                                            \
    va_end(rest);                                                                      \
    static constinit std::atomic<result (*)(BARE parameters, void*)> systems{nullptr}; \
    return passing<Call::NAME>(systems, #NAME)(BARE arguments, more);                  \
  }
#define KES_WHOLE_PROGRAMS
#include "support/Calls.def"
// NOLINTEND(bugprone-macro-parentheses)

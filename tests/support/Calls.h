#pragma once

#include <dirent.h>
#include <glob.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/select.h>
#include <sys/types.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

// The one place where tests come between the program and the C library. In a test program that is made with
// `kes_test(... CALLS name...)`, or `CALLS all`, each of these calls is counted here, can be refused,
// shortened, watched and answered in the system's place, in whichever thread or forked child it is made.
// Nothing here takes memory or a lock while a call passes. What calls there are is said in Calls.def.

namespace kes::test {

/// The calls, each under its own name: Call::open. One more is what operator new asks for.
enum class Call : std::uint8_t {
#define CALL(name, ...) name,
#define VARIADIC(name, ...) name,
#include "support/Calls.def"
#undef CALL
#undef VARIADIC
  operatorNew,
  Last
};

/// How a call tells that it failed.
enum class Tells : std::uint8_t {
  MinusOne,
  MinusOneDone,
  Code,
  CodeDone,
  Null,
  MapFailed,
  SigErr,
  Nothing,
  Never
};

/// What else the manual says of a call.
enum Trait : unsigned {
  Plain = 0,
  Interrupted = 1,
  Cancelled = 2,
  Short = 4,
  Misused = 8,
  SharesMemory = 16
};

struct CallInfo {
  const char* name;
  Tells tells;
  unsigned traits;
  const int* errors;  ///< that its manual gives, EINTR apart; a 0 ends them
};
const CallInfo& infoOf(Call call);
/// "open"; what is no call is Call::Last.
Call callNamed(const std::string& name);

/// How often a call was made since the program started, by any thread.
int made(Call call);

/// Which calls an object is about: `.skip` others are let through first, then so many, or all. With an option
/// only those count whose last argument of type int is that: flags, a command.
struct Which {
  static constexpr int any = -1;
  int skip = 0;
  int times = -1;
  int option = any;
};
inline constexpr Which all{0, -1}, once{0, 1};
constexpr Which nth(int number) { return {number - 1, 1}; }

/// Refuses a call with this error while the object lives. One at a time for each call. Error 0: nothing is
/// done, and the call reports success.
class Refuse {
 public:
  Refuse(Call call, int error, Which which = all);
  ~Refuse();
  Refuse(const Refuse&) = delete;
  Refuse& operator=(const Refuse&) = delete;

  /// How often it was refused by this object.
  int struck() const;

 private:
  const Call call_;
};

/// Lets a call that transfers bytes take or give no more than so many at once, but one if it asks for any.
class Shorten {
 public:
  static constexpr std::size_t half = static_cast<std::size_t>(-1), allButOne = half - 1;

  Shorten(Call call, std::size_t most, Which which = all);
  ~Shorten();
  Shorten(const Shorten&) = delete;
  Shorten& operator=(const Shorten&) = delete;

 private:
  const Call call_;
};

/// Runs something once, in the thread that makes the nth next call, right before or right after it. What it
/// calls itself is neither counted nor refused. errno is kept.
class Interlude {
 public:
  enum Moment { Before, After };
  Interlude(Moment moment, Call call, std::function<void()> play, int number = 1);
  ~Interlude();
  Interlude(const Interlude&) = delete;
  Interlude& operator=(const Interlude&) = delete;

  struct Part {
    Moment moment;
    std::function<void()> play;
    int number;
  };

 private:
  const Call call_;
  const Part part_;
};
struct Before : Interlude {
  Before(Call call, std::function<void()> play, int number = 1)
      : Interlude(Interlude::Before, call, std::move(play), number) {}
};
struct After : Interlude {
  After(Call call, std::function<void()> play, int number = 1)
      : Interlude(Interlude::After, call, std::move(play), number) {}
};

/// Notes the names of the calls made while it lives, in order, from whichever thread; not what operator new
/// asks for. One at a time.
class CallTrace {
 public:
  CallTrace();
  ~CallTrace();
  CallTrace(const CallTrace&) = delete;
  CallTrace& operator=(const CallTrace&) = delete;

  std::vector<std::string> calls() const;
};

/// What is known of a call at compile time: its function type, and the system's own function.
template <Call>
struct Row;

/// Answers a call in the system's place while the object lives:
/// `Instead<Call::close> noted([&](int fd) { seen = fd; return real<Call::close>(fd); });`
/// A variadic call has its last argument as a `void*`.
template <Call call>
class Instead {
 public:
  using Function = std::function<typename Row<call>::Function>;
  explicit Instead(Function answer);
  ~Instead();
  Instead(const Instead&) = delete;
  Instead& operator=(const Instead&) = delete;

 private:
  const Function answer_;
};

/// The system's own call, past everything that is said here.
template <Call call, typename... Arguments>
auto real(Arguments... arguments) {
  return Row<call>::real(arguments...);
}

/// An argument that came as the last of a variadic call.
inline unsigned wordOf(void* last) { return static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(last)); }

}  // namespace kes::test

#include "support/CallRows.h"

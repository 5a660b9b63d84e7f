#pragma once

#include <sys/types.h>

#include <functional>

namespace kes::test {

/// The calls that the test program can make fail or count (linker option --wrap).
enum class Call {
  MutexAttrInit,
  MutexAttrSettype,
  MutexAttrDestroy,
  MutexInit,
  MutexDestroy,
  MutexLock,
  MutexUnlock,
  CondAttrInit,
  CondAttrDestroy,
  CondInit,
  CondDestroy,
  CondSignal,
  CondBroadcast,
  CondWait,
  CondTimedwait,
  AttrInit,
  AttrSetdetachstate,
  AttrSetstacksize,
  AttrDestroy,
  ThreadCreate,
  ThreadJoin,
  ThreadCancel,
  ThreadKill,
  ThreadSetname,
  ThreadSetspecific,
  ThreadGettid,
  SchedYield,
  Sigmask,
  Sigaction,
  Sigwait,
  Kill,
  Last
};

/// How often a call was made since the program started, by any thread.
int made(Call call);

/// Makes calls fail while it lives: the first one, from whichever thread it comes, or every one. A call
/// that tells its errors by errno sets it and returns -1; the others return the number.
class Fault {
 public:
  enum Times { Once, Always };
  Fault(Call call, int error, Times times = Once);
  ~Fault();
  Fault(const Fault&) = delete;
  Fault& operator=(const Fault&) = delete;

  bool struck() const;  ///< whether a call has failed by it

 private:
  const Call call_;
};

/// Runs something once, in the thread that makes the next call of a kind, right after that call.
class Interlude {
 public:
  Interlude(Call call, std::function<void()> play);
  ~Interlude();
  Interlude(const Interlude&) = delete;
  Interlude& operator=(const Interlude&) = delete;

 private:
  const Call call_;
  const std::function<void()> play_;
};

/// What gettid() gives from now on; 0 for the truth.
void pretendThreadId(pid_t id);

}  // namespace kes::test

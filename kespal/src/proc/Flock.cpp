#include "proc/Flock.h"

#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <limits>
#include <new>
#include <optional>

#include "error/Report.h"
#include "kespal/error/OsError.h"
#include "kespal/error/StaticError.h"
#include "kespal/os/thread/Native.h"
#include "kespal/proc/Child.h"
#include "kespal/signal/Sender.h"
#include "sys/AtEnd.h"
#include "sys/NoCancel.h"
#include "sys/Retry.h"

namespace kes::proc {

using thread::CoopThread;

namespace {

/// While SIGCHLD is ignored, or its handler wants no statuses, a child vanishes at its end, and nobody who
/// waits is told. Changes that, and changes it back unless told otherwise.
class Noticing {
 public:
  Noticing() noexcept {
    if (::sigaction(SIGCHLD, nullptr, &before_) != 0) return;
    struct sigaction action = before_;
    action.sa_flags &= ~SA_NOCLDWAIT;
    const bool ignored =
        action.sa_handler == SIG_IGN;  // whatever its flags say: the system, too, asks no more
    if (ignored) action.sa_handler = SIG_DFL;
    changed_ = ignored || action.sa_flags != before_.sa_flags;
    if (changed_) ::sigaction(SIGCHLD, &action, nullptr);
  }
  ~Noticing() {
    if (changed_) ::sigaction(SIGCHLD, &before_, nullptr);
  }
  Noticing(const Noticing&) = delete;
  Noticing& operator=(const Noticing&) = delete;

  void keep() noexcept { changed_ = false; }

 private:
  struct sigaction before_ {};
  bool changed_ = false;
};

/// The moment when a wait is over; none when no clock can tell it.
std::optional<time::RealtimeClock> deadlineAfter(const time::Milliseconds* timeout) {
  if (timeout == nullptr) return std::nullopt;
  time::RealtimeClock deadline;
  const std::chrono::seconds room(std::numeric_limits<std::uint32_t>::max() - deadline.sec());
  if (*timeout >= room) return std::nullopt;
  if (*timeout > time::Milliseconds::zero()) deadline += *timeout;
  return deadline;
}

/// Whether this process has such a child, and it has not ended.
bool runsUnattended(pid_t pid) noexcept {
  siginfo_t ended{};
  const auto look = [&] {
    return ::waitid(P_PID, static_cast<id_t>(pid), &ended, WEXITED | WNOHANG | WNOWAIT);
  };
  return sys::retry(look) == 0 && ended.si_pid == 0;
}

}  // namespace

Flock::Flock(Shepherd& shepherd)
    : lock_(thread::Normal), cond_(lock_), thread_("process collector", &shepherd) {
  records_.reserve();
}

std::shared_ptr<Flock> Flock::make(Shepherd& shepherd) {
  return {new Flock(shepherd), [](Flock* flock) {
            if (!flock->isOfAnotherProcess()) delete flock;
          }};
}

/// The lock is held until the thread runs: to stop() there is either no run, or one that it can end.
void Flock::start() {
  Noticing noticing;
  const Guard guard(cond_);
  // Of a stop() that came when the last run was over.
  if (phase_ == Phase::Idle || phase_ == Phase::Ended) thread_.requestRun();
  thread_.run();
  phase_ = Phase::Serving;
  childless_ = false;
  noticing.keep();
}

/// Not cancelled in the middle: nobody else would reap the sentinel.
void Flock::stop() {
  const sys::NoCancel untilReaped;
  const Noticing untilEnded;
  Sentinel sentinel;
  try {
    std::uint64_t run = 0;
    {
      const Guard guard(cond_);
      run = thread_.burials();  // a run that begins later is not this call's business
      if (isBuried()) return;
      if (phase_ == Phase::Serving) {
        phase_ = Phase::Stopping;
        sentinel = makeSentinel();
      }
      thread_.requestReturn();
      cond_.signalAll();
    }
    thread_.joinRun(run);
  } catch (const Exception& error) {
    reportStack({"Error joining ", thread_.name(), " thread:\n"}, error, /*end=*/"");
  }
  reapSentinel(sentinel);
}

/// The collector may sit in waitid() until the next child ends: one that ends at once is made for it, which
/// nobody will ask for. Should that be refused, the next real child has to do.
Flock::Sentinel Flock::makeSentinel() {
  if (!records_.anyRuns()) return {};
  try {
    records_.reserve();
  } catch (const std::bad_alloc&) {
    return {};
  }
  const pid_t pid = ::fork();
  if (pid == 0) ::_exit(0);
  if (pid == -1) return {};
  const std::uint64_t number = records_.add(pid, nullptr);
  records_.forget(pid, number);
  return {pid, number};
}

/// The collector may have left for another child's sake.
void Flock::reapSentinel(const Sentinel& sentinel) {
  const Guard guard(cond_);
  if (sentinel.pid == -1 || !records_.runs(sentinel.pid, sentinel.number)) return;
  sys::retry([&] { return ::waitpid(sentinel.pid, nullptr, 0); });
  records_.end(sentinel.pid, 0);
}

std::uint64_t Flock::addNoLock(pid_t pid, Child* child) {
  newest_ = records_.add(pid, child);
  childless_ = false;
  cond_.signalAll();
  thread_.requestRun();
  return newest_;
}

bool Flock::runsHere() const noexcept {
  try {
    return ::pthread_equal(::pthread_self(), thread_.id().handle) != 0;
  } catch (const RuntimeError&) {
    return false;  // there is no such thread
  }
}

bool Flock::wait(pid_t pid, int& status, const time::Milliseconds* timeout, std::uint64_t number) {
  const bool isCollector = runsHere();
  const Guard guard(cond_);
  const auto deadline = deadlineAfter(timeout);
  while (!records_.fetch(pid, number, status)) {
    if (isCollector) {
      raiseAt({"src/proc/Shepherd", 124, "wait"}, RuntimeError("need no lock but my result's not there?!"));
    }
    if (phase_ == Phase::Ended) raiseAt(KES_HERE, RuntimeError("The process collector has ended"));
    if (number != Records::latest && !records_.runs(pid, number)) {
      raiseAt(KES_HERE, RuntimeError("The process collector does not know this child"));
    }
    const Waiter waiter(records_, lock_, pid, number);
    if (!deadline) {
      waiter.arrived().wait();
    } else if (!waiter.arrived().waitTimed(*deadline)) {
      return false;
    }
  }
  return true;
}

void Flock::collect() {
  const sys::AtEnd finishing([this] { finish(); });
  while (awaitWork()) reapSome();
  releaseChildren();
}

/// Pauses until there is a child to wait for. False when the thread is to end.
bool Flock::awaitWork() {
  while (thread_.request() == CoopThread::Run) {
    Guard guard(cond_);
    while (childless_ && phase_ != Phase::Stopping) cond_.wait();
    if (phase_ == Phase::Stopping) return false;
    if (records_.anyRuns()) {
      waitedFor_ = newest_;
      return true;
    }
    thread_.requestPauseIfRun();
    guard.unlock();
    thread_.pause();
  }
  return false;
}

void Flock::reapSome() {
  // Only looks: a child that is reaped without the lock would leave its number to the next one before its
  // own status is filed.
  siginfo_t ended{};
  if (::waitid(P_ALL, 0, &ended, WEXITED | WNOWAIT) == -1) {
    waitFailed(errno);
  } else {
    reap(ended.si_pid);
  }
}

/// Without any child left (somebody else collected ours) the next wait would fail again, and again: the
/// thread then waits for the next registration instead.
void Flock::waitFailed(int errnum) {
  {
    const Guard guard(cond_);
    if (phase_ == Phase::Stopping) return;
    childless_ = errnum == ECHILD && waitedFor_ == newest_;
  }
  report({thread_.name(), ": Error waiting for childs ...\n"});
}

// The analysis of locks does not follow a guard that is handed on, or may be none.

/// Children often end close together: whoever else has ended by now is taken along, without another look and
/// another locking. Only so many, as meanwhile nobody can start a child.
void Flock::reap(pid_t first) KES_UNCHECKED {
  Guard guard(cond_);
  int status = 0;
  pid_t pid = ::waitpid(first, &status, WNOHANG);  // somebody else may have been faster
  for (int others = 15; pid > 0 && file(pid, status, guard) && records_.anyRuns() && others > 0; --others) {
    pid = ::waitpid(-1, &status, WNOHANG);
  }
}

/// False when that took the lock away.
bool Flock::file(pid_t pid, int status, Guard& guard) KES_UNCHECKED {
  const Records::End end = records_.end(pid, status);
  if (end.number == 0) {
    guard.unlock();
    report({thread_.name(), ": Got info for not registered child: ", Decimal(static_cast<std::uint64_t>(pid)),
            "\n"});
    return false;
  }
  if (!end.isToBeTold) return true;
  checkCB(pid, guard);
  const Guard again(cond_);
  records_.wake(pid, end.number);
  return false;
}

void Flock::checkCB(pid_t pid, Guard& guard) KES_UNCHECKED {
  if (Child* const child = records_.takeChild(pid)) notify(*child, &Child::exited, guard);
}

/// Whoever would be told of an end that nobody will see learns that instead.
void Flock::releaseChildren() KES_UNCHECKED {
  for (;;) {
    Guard guard(cond_);
    Child* const child = records_.takeRunningChild();
    if (child == nullptr) return;
    notify(*child, &Child::released, guard);
  }
}

/// Called without the lock, which is released through the guard; the child may be gone afterwards.
void Flock::notify(Child& child, void (Child::*tell)(), Guard& guard) KES_UNCHECKED {
  notifying_ = &child;
  guard.unlock();
  const sys::AtEnd done([this] {
    const Guard again(cond_);
    notifying_ = nullptr;
    cond_.signalAll();
  });
  constexpr std::string_view headline = "checkCB: callback has thrown an exception:\n";
  try {
    (child.*tell)();
  } catch (const Exception& error) {
    reportStack({headline}, error, /*end=*/"");
  } catch (const std::exception& error) {
    reportWhat({headline}, error);
  } catch (...) {
    if (os::isForcedUnwind()) throw;
    report({headline, "an unknown exception\n"});
  }
}

/// Holding the lock, a child that runs cannot be reaped, and its id not become another's. What a collector
/// left when it ended may have been reaped by anybody since.
void Flock::signal(const Site& site, int signal, pid_t pid, std::uint64_t number,
                   Flock* present) KES_UNCHECKED {
  const Guard guard(cond_);
  if (!records_.runs(pid, number)) raiseAt(site, NoSuchProcessError(ESRCH));
  if (phase_ != Phase::Ended) return signal::Sender::signalProc(signal, pid);
  std::optional<Guard> keepingIt;
  if (present != nullptr && present != this) keepingIt.emplace(present->cond_);
  const bool isAnothers = keepingIt && present->records_.runs(pid, Records::latest);
  if (isAnothers || !runsUnattended(pid)) raiseAt(site, NoSuchProcessError(ESRCH));
  signal::Sender::signalProc(signal, pid);
}

void Flock::forget(pid_t pid, std::uint64_t number) {
  const Guard guard(cond_);
  records_.forget(pid, number);
}

void Flock::awaitNotification(const Child& child) const {
  if (runsHere()) return;  // from within it, say to delete the child
  const Guard guard(cond_);
  while (notifying_ == &child) cond_.wait();
}

/// However the body is left: whoever waits would wait for ever.
void Flock::finish() {
  const Guard guard(cond_);
  phase_ = Phase::Ended;
  records_.wakeAll();
  cond_.signalAll();
}

}  // namespace kes::proc

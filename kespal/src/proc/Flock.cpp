#include "proc/Flock.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <limits>
#include <optional>
#include <utility>

#include "error/Report.h"
#include "kespal/error/OsError.h"
#include "kespal/error/StaticError.h"
#include "kespal/proc/Child.h"
#include "kespal/signal/Sender.h"
#include "proc/Noticing.h"
#include "sys/NoCancel.h"
#include "sys/Retry.h"

namespace kes::proc {

namespace {

/// The moment when a wait is over; none when no clock can tell it.
std::optional<time::RealtimeClock> deadlineAfter(const time::Milliseconds* timeout) {
  if (timeout == nullptr) return std::nullopt;
  time::RealtimeClock deadline;
  const std::chrono::seconds room(std::numeric_limits<std::uint32_t>::max() - deadline.sec());
  if (*timeout >= room) return std::nullopt;
  if (*timeout > time::Milliseconds::zero()) deadline += *timeout;
  return deadline;
}

/// Waits until the waiter is woken; false when the moment came before.
bool await(Waiter& waiter, const time::MonotonicClock& deadline) {
  while (!waiter.isWoken()) {
    if (!waiter.waitTimed(deadline)) return waiter.isWoken();
  }
  return true;
}

/// Whether this process has such a child, and it has not ended.
bool runsUnattended(pid_t pid) noexcept {
  const sys::NoCancel untilKnown;
  siginfo_t ended{};
  const auto look = [&] {
    return ::waitid(P_PID, static_cast<id_t>(pid), &ended, WEXITED | WNOHANG | WNOWAIT);
  };
  return sys::retry(look) == 0 && ended.si_pid == 0;
}

}  // namespace

Flock::Flock(Shepherd& shepherd, Reaping reaping)
    : lock_(thread::Normal),
      cond_(lock_),
      watch_(Watch::make(reaping)),
      thread_("process collector", &shepherd) {
  records_.reserve();
}

std::shared_ptr<Flock> Flock::make(Shepherd& shepherd, Reaping reaping) {
  return {new Flock(shepherd, reaping), [](Flock* flock) {
            if (!flock->isInherited()) delete flock;
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
  noticing.keep();
}

/// Not cancelled in the middle: nobody else would reap the sentinel.
void Flock::stop() {
  const sys::NoCancel untilReaped;
  const Noticing untilEnded;
  const auto reporting = [this](auto step) {
    try {
      step();
    } catch (const Exception& error) {
      reportStack({"Error joining ", thread_.name(), " thread:\n"}, error, /*end=*/"");
    }
  };
  pid_t sentinel = -1;
  reporting([&] { tellToEnd(sentinel).join(); });
  reporting([&] { reapSentinel(sentinel); });
}

/// Gives the run to join: one that begins later is not the caller's business. The collector may sit in its
/// look until the next child ends, which has to do if it cannot be interrupted.
thread::Run Flock::tellToEnd(pid_t& sentinel) {
  const Guard guard(cond_);
  if (isBuried()) return {};
  if (phase_ == Phase::Serving) {
    phase_ = Phase::Stopping;
    if (records_.anyRuns()) sentinel = sentinel_ = watch_->interrupt();
  }
  thread_.requestReturn();
  return thread::Run::of(thread_);
}

/// The collector may have left for another child's sake.
void Flock::reapSentinel(pid_t sentinel) {
  const Guard guard(cond_);
  if (sentinel == -1 || sentinel_ != sentinel) return;
  sys::retry([sentinel] { return ::waitpid(sentinel, nullptr, 0); });
  sentinel_ = -1;
}

void Flock::expectNoLock() {
  records_.reserve();
  thread_.requestRun();
}

std::uint64_t Flock::addNoLock(pid_t pid, Child* child) {
  sys::Descriptor handle;
  watch_->add(pid, handle, /*alone=*/!records_.anyRuns());
  return records_.add(pid, child, std::move(handle));
}

bool Flock::wait(pid_t pid, int& status, const time::Milliseconds* timeout, std::uint64_t number) {
  const bool isCollector = runsHere();
  const Guard guard(cond_);
  const auto deadline = deadlineAfter(timeout);
  while (!records_.fetch(pid, number, status)) {
    requireEndInSight(pid, number, isCollector);
    Waiter waiter(records_, lock_, pid, number);
    if (!deadline) {
      waiter.wait();
    } else if (!waiter.waitTimed(*deadline)) {
      return false;
    }
    if (take(waiter, pid, status, number)) break;
  }
  return true;
}

bool Flock::waitFor(pid_t pid, int& status, const time::Milliseconds& timeout, std::uint64_t number) {
  const bool isCollector = runsHere();
  const Guard guard(cond_);
  const auto deadline = time::MonotonicClock() + time::boundedWait(timeout);
  while (!records_.fetch(pid, number, status)) {
    requireEndInSight(pid, number, isCollector);
    Waiter waiter(records_, lock_, pid, number);
    if (!await(waiter, deadline)) return false;
    if (take(waiter, pid, status, number)) break;
  }
  return true;
}

/// The waiter is there from before the first signal, so that another one cannot take the status away unseen.
int Flock::terminate(pid_t pid, const time::Milliseconds& grace, std::uint64_t number) {
  const bool isCollector = runsHere();
  int status = 0;
  const Guard guard(cond_);
  const auto deadline = time::MonotonicClock() + time::boundedWait(grace);
  if (records_.fetch(pid, number, status)) return status;
  requireEndInSight(pid, number, isCollector);
  Waiter waiter(records_, lock_, pid, number);
  signal::Sender::signalProc(SIGTERM, pid);
  const bool hasEnded = await(waiter, deadline) || !records_.runs(pid, number);
  if (!hasEnded) signal::Sender::signalProc(SIGKILL, pid);
  while (!waiter.isWoken()) waiter.wait();
  if (!take(waiter, pid, status, number)) requireEndInSight(pid, number, isCollector);
  return status;
}

/// Raises an error where nobody will see this child's end.
void Flock::requireEndInSight(pid_t pid, std::uint64_t number, bool isCollector) {
  if (isCollector) {
    raiseAt({"src/proc/Shepherd", 124, "wait"}, RuntimeError("need no lock but my result's not there?!"));
  }
  if (phase_ == Phase::Ended) raiseAt(KES_HERE, RuntimeError("The process collector has ended"));
  if (number != Records::latest && !records_.runs(pid, number)) {
    raiseAt(KES_HERE, RuntimeError("The process collector does not know this child"));
  }
}

/// A child's status is for all who wait for it; that of a number is for one.
bool Flock::take(const Waiter& waiter, pid_t pid, int& status, std::uint64_t number) {
  if (number == Records::latest || !waiter.status()) return false;
  status = *waiter.status();
  int sameHere = 0;
  records_.fetch(pid, number, sameHere);
  return true;
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

}  // namespace kes::proc

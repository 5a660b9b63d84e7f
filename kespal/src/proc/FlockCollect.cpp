#include <sys/wait.h>

#include <cerrno>

#include "error/Report.h"
#include "kespal/os/thread/Native.h"
#include "kespal/proc/Child.h"
#include "proc/Flock.h"
#include "sys/AtEnd.h"
#include "sys/NoCancel.h"
#include "sys/Retry.h"

namespace kes::proc {

using thread::CoopThread;

namespace {

/// Asks the system for this child, as waitid() does.
int ask(pid_t pid, siginfo_t& state) noexcept {
  const sys::NoCancel untilKnown;
  const auto look = [&] {
    return ::waitid(P_PID, static_cast<id_t>(pid), &state, WEXITED | WNOHANG | WNOWAIT);
  };
  return sys::retry(look);
}

/// Whether the system tells nothing of this child.
bool isLost(pid_t pid) noexcept {
  siginfo_t state{};
  return ask(pid, state) == -1;
}

/// Whether it has ended, and how.
bool hasEnded(pid_t pid, siginfo_t& ended) noexcept {
  ended.si_pid = 0;
  return ask(pid, ended) == 0 && ended.si_pid != 0;
}

/// The status as waitpid() tells it.
int statusOf(const siginfo_t& ended) noexcept {
  if (ended.si_code == CLD_EXITED) return (ended.si_status & 0xff) << 8;
  return ended.si_code == CLD_DUMPED ? ended.si_status | WCOREFLAG : ended.si_status;
}

}  // namespace

/// A notification may fork, and come back in the child as well. There the thread just ends: nobody knows who
/// held the lock, and the children are the parent's. Hence everything behind a notification asks whose
/// process this is.
void Flock::collect() {
  const sys::AtEnd finishing([this] { finish(); });
  while (awaitWork()) reapSome();
  releaseChildren();
}

/// Pauses until there is a child to wait for. False when the thread is to end.
bool Flock::awaitWork() {
  while (!isInherited() && thread_.request() == CoopThread::Run) {
    Guard guard(cond_);
    if (phase_ == Phase::Stopping) return false;
    if (records_.anyRuns()) return true;
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
  if (watch_->look(ended) == -1) {
    waitFailed(errno);
  } else if (ended.si_pid != 0) {
    reap(ended);
  } else {
    sweep();
  }
}

/// Without any child left the next wait would fail again, and again, and whoever waits would do so for ever.
void Flock::waitFailed(int errnum) {
  {
    const Guard guard(cond_);
    if (phase_ == Phase::Stopping) return;
  }
  report({thread_.name(), ": Error waiting for childs ...\n"});
  if (errnum != EINTR) releaseLost();
}

/// Of children that somebody else has reaped nobody will see the end.
void Flock::releaseLost() KES_UNCHECKED {
  while (!isInherited()) {
    Guard guard(cond_);
    Child* child = nullptr;
    if (!records_.takeLost(&isLost, child)) return;
    if (child != nullptr) notify(*child, &Child::released, guard);
  }
}

/// Asks for each child that runs.
void Flock::sweep() {
  {
    const Guard guard(cond_);
    if (phase_ == Phase::Stopping) return;
  }
  releaseLost();
  for (siginfo_t ended{}; !isInherited() && findEnded(ended);) reap(ended);
}

bool Flock::findEnded(siginfo_t& ended) {
  const Guard guard(cond_);
  return records_.anyRuns([&ended](pid_t pid) { return hasEnded(pid, ended); });
}

// The analysis of locks does not follow a guard that is handed on, or may be none.

/// Children often end close together: whoever else has ended by now is taken along, without another look and
/// another locking. Only so many, as meanwhile nobody can start a child.
void Flock::reap(const siginfo_t& ended) KES_UNCHECKED {
  Guard guard(cond_);
  if (!watch_->takesStrangers() && !isOurs(ended.si_pid)) return;
  int status = 0;
  pid_t pid = sys::retry([&] { return ::waitpid(ended.si_pid, &status, WNOHANG); });
  if (pid == 0) return;  // somebody else was faster, and the number is a new child's
  if (pid == -1) {       // somebody else was faster, but it may have been our child that ended
    if (isOurs(ended.si_pid)) file(ended.si_pid, statusOf(ended), guard);
    return;
  }
  int others = watch_->takesStrangers() ? 15 : 0;
  for (; pid > 0 && file(pid, status, guard) && records_.anyRuns() && others > 0; --others) {
    pid = ::waitpid(-1, &status, WNOHANG);
  }
}

bool Flock::isOurs(pid_t pid) { return pid == sentinel_ || records_.runs(pid, Records::latest); }

/// False when that took the lock away.
bool Flock::file(pid_t pid, int status, Guard& guard) KES_UNCHECKED {
  if (pid == sentinel_) {
    sentinel_ = -1;
    return true;
  }
  const Records::End end = records_.end(pid, status);
  if (end.number == 0) {
    guard.unlock();
    report({thread_.name(), ": Got info for not registered child: ", Decimal(static_cast<std::uint64_t>(pid)),
            "\n"});
    return false;
  }
  if (!end.isToBeTold) return true;
  checkCB(pid, guard);
  if (isInherited()) return false;
  const Guard again(cond_);
  records_.wake(pid, end.number);
  return false;
}

void Flock::checkCB(pid_t pid, Guard& guard) KES_UNCHECKED {
  if (Child* const child = records_.takeChild(pid)) notify(*child, &Child::exited, guard);
}

/// Whoever would be told of an end that nobody will see learns that instead.
void Flock::releaseChildren() KES_UNCHECKED {
  while (!isInherited()) {
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
    if (isInherited()) return;
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

/// However the body is left: whoever waits would wait for ever.
void Flock::finish() {
  if (isInherited()) return;
  const Guard guard(cond_);
  phase_ = Phase::Ended;
  records_.wakeAll();
  cond_.signalAll();
}

}  // namespace kes::proc

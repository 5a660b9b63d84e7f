#pragma once

#include <signal.h>
#include <sys/types.h>

#include <cstdint>
#include <memory>

#include "kespal/error/Site.h"
#include "kespal/proc/Shepherd.h"
#include "kespal/thread/Annotations.h"
#include "kespal/thread/Condition.h"
#include "kespal/thread/Thread.h"
#include "kespal/time/Milliseconds.h"
#include "proc/Records.h"
#include "proc/Watch.h"
#include "thread/PerProcess.h"
#include "thread/Run.h"

namespace kes::proc {

/// What a shepherd looks after, and its thread. Owned by the shepherd, by each child that was registered
/// here, and by whoever is just inside, so that it outlives them all. It belongs to the process that made it:
/// a fork has a copy without the thread, and with locks that nobody may hold there. Nothing of that copy is
/// touched, and it is never destroyed.
class Flock : public thread::ProcessBound {
 public:
  using Guard = Shepherd::Guard;

  static std::shared_ptr<Flock> make(Shepherd& shepherd, Reaping reaping);
  static const std::shared_ptr<Flock>& of(const Shepherd& shepherd) noexcept { return shepherd.flock_; }

  const thread::Condition& condition() const noexcept KES_RETURNS_LOCK(cond_) { return cond_; }
  bool isBuried() const { return thread_.state() == thread::CoopThread::BURIED; }

  // As Shepherd has them.
  void start();
  void stop();
  std::uint64_t addNoLock(pid_t pid, Child* child) KES_REQUIRES(cond_);
  bool wait(pid_t pid, int& status, const time::Milliseconds* timeout, std::uint64_t number);
  void checkCB(pid_t pid, Guard& guard);
  // As Child has them.
  bool waitFor(pid_t pid, int& status, const time::Milliseconds& timeout, std::uint64_t number);
  int terminate(pid_t pid, const time::Milliseconds& grace, std::uint64_t number);
  /// The collector's body.
  void collect();

  // With the lock held.

  /// Makes ready for one child: takes the memory for its record, and wakes the collector, which waits for the
  /// lock then. After that nothing can fail in addNoLock().
  void expectNoLock() KES_REQUIRES(cond_);
  /// Whether children that are registered will be reaped.
  bool isServingNoLock() const noexcept KES_REQUIRES(cond_) { return phase_ == Phase::Serving; }
  /// Whether this child has not been reaped here.
  bool runsNoLock(pid_t pid, std::uint64_t number) KES_REQUIRES(cond_) { return records_.runs(pid, number); }

  /// Sends a child a signal. Raises NoSuchProcessError from the site when it does not run any more. `present`
  /// is the collector of today, which may have reaped what this one left; null when there is none.
  void signal(const Site& site, int signal, pid_t pid, std::uint64_t number, Flock* present);
  /// Nobody will ask about this child any more, or wants to be told of its end.
  void forget(pid_t pid, std::uint64_t number);
  /// Waits while the notification of this child runs on another thread.
  void awaitNotification(const Child& child) const;
  /// Waits until a thread that was started runs. RuntimeError when there is none.
  void awaitThread() const { (void)thread_.id(); }
  /// Whether the calling thread is the collector's.
  bool runsHere() const { return thread::Run::of(thread_).isCaller(); }

 private:
  /// A collector can be started again once it was stopped.
  enum class Phase { Idle, Serving, Stopping, Ended };

  /// The collector's thread, which pauses by itself when there is nothing to do.
  class Thread : public thread::CoopThread {
   public:
    using CoopThread::CoopThread;
    using CoopThread::requestPauseIfRun;
  };

  Flock(Shepherd& shepherd, Reaping reaping);
  ~Flock() = default;

  void requireEndInSight(pid_t pid, std::uint64_t number, bool isCollector) KES_REQUIRES(cond_);
  bool take(const Waiter& waiter, pid_t pid, int& status, std::uint64_t number) KES_REQUIRES(cond_);

  thread::Run tellToEnd(pid_t& sentinel);
  void reapSentinel(pid_t sentinel);
  bool awaitWork();
  void reapSome();
  void waitFailed(int errnum);
  void sweep();
  bool findEnded(siginfo_t& ended) KES_EXCLUDES(cond_);
  void reap(const siginfo_t& ended) KES_EXCLUDES(cond_);
  bool isOurs(pid_t pid) KES_REQUIRES(cond_);
  bool file(pid_t pid, int status, Guard& guard);
  void releaseChildren();
  void releaseLost();

  void notify(Child& child, void (Child::*tell)(), Guard& guard);
  void finish();

  thread::Lock lock_;
  thread::Condition cond_;
  const std::unique_ptr<Watch> watch_;

  // Guarded by the lock.
  Records records_ KES_GUARDED_BY(cond_);
  Phase phase_ KES_GUARDED_BY(cond_) = Phase::Idle;
  /// A child whose only purpose is to end the collector's wait; -1 when there is none.
  pid_t sentinel_ KES_GUARDED_BY(cond_) = -1;
  const Child* notifying_ KES_GUARDED_BY(cond_) = nullptr;  ///< whose notification runs

  Thread thread_;
};

}  // namespace kes::proc

#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <set>
#include <utility>

#include "kespal/NoCopy.h"
#include "kespal/thread/Condition.h"
#include "kespal/thread/LockGuard.h"
#include "kespal/thread/Thread.h"
#include "kespal/time/Milliseconds.h"

namespace kes::proc {

class Child;

/// The process collector: the one place that reaps children. Its thread waits for any child of this process
/// while children are registered; one that nobody registered is reaped and reported. Any thread may call.
/// Lock order: the collector's lock, then its thread's own, never the other way round.
class Shepherd final : public ::kes::thread::CoopThread::ICoopThread, NoCopy {
 public:
  using Guard = ::kes::thread::LockGuardT<::kes::thread::Condition>;

  Shepherd();
  /// Stop it first. Waits for those who are still inside.
  ~Shepherd();  // NOLINT(bugprone-exception-escape): ends the program then

  void start();
  /// Ends the thread within moments, even while children run, and sends whoever waits away with a
  /// RuntimeError. An error is reported on standard error and goes no further.
  void stop();

  /// The condition whose lock has to be held from before the fork until the child is registered, so that
  /// the child cannot be reaped unknown.
  const ::kes::thread::Condition& condition() const noexcept { return cond_; }
  /// Registers a child that was just forked, with the lock held; `child`, when not null, is told its end.
  /// Gives the registration's number: process ids are used again, these are not.
  std::uint64_t addNoLock(const int& pid, Child* child);
  /// Whether a registered child has not been reaped yet, with the lock held.
  bool isRegisteredNoLock(int pid, std::uint64_t registration) const {
    return registered_.contains({pid, registration});
  }
  /// Whether children that are registered will be reaped, with the lock held.
  bool isServingNoLock() const { return !stopping_ && !ended_; }

  /// Waits for a child's end, without limit when `timeout` is null. True: `status` is its wait status,
  /// which is forgotten here. False: the time has passed. Of several children that had the id, the last one
  /// is meant unless `registration` names one. RuntimeError on the collector's own thread when the status is
  /// not there, for a registration that is not known (any more), when the collector was never started, and
  /// when it ends meanwhile.
  bool wait(const int& pid, int& status, const time::Milliseconds* timeout = nullptr,
            std::uint64_t registration = latest);

  /// Calls the notification of a child that was reaped, if it has one, after the lock was released through
  /// `guard`. A kes::Exception from it is reported on standard error.
  void checkCB(const int& pid, Guard& guard);

  /// Nobody will ask about this child any more: its object is being destroyed. Waits while its notification
  /// runs on another thread.
  void forget(const Child& child, int pid, std::uint64_t registration);
  /// Waits while the notification of this child runs on another thread.
  void awaitNotification(const Child& child) const;

  /// Whether the calling thread is the collector's. RuntimeError when that thread does not exist.
  bool isCaller() const;
  /// The same; false when that thread does not exist.
  bool runsHere() const noexcept;

  /// Whether this process is a fork of the one that the object was made in: it has no thread here.
  bool isOfAnotherProcess() const noexcept { return process_ != ::getpid(); }

  /// Keeps the object from being destroyed until leave().
  void enter() noexcept { ++visitors_; }
  void leave();

  /// The collector's body.
  void thread(::kes::thread::CoopThread& self) override;

 private:
  struct Waiter;

  /// Wait statuses by process id and registration.
  using Statuses = std::map<std::pair<int, std::uint64_t>, int>;

  static constexpr std::uint64_t latest = 0;          ///< stands for an id's last registration
  static std::atomic<std::uint64_t> m_registrations;  ///< how many there were, of all collectors

  bool awaitWork(::kes::thread::CoopThread& self);
  void reapOne();
  void waitFailed(int error);
  void reap(pid_t pid);
  Statuses::const_iterator registeredAs(int pid) const;
  Statuses::const_iterator resultOf(int pid, std::uint64_t registration) const;
  bool fetch(int pid, std::uint64_t registration, int& status);
  void wakeWaiters(int pid) const;
  void endWait();
  void reapSentinel();
  void finish();

  const pid_t process_ = ::getpid();

  ::kes::thread::Lock lock_;
  ::kes::thread::Condition cond_;

  // Guarded by the lock.
  Statuses registered_;  ///< without a status yet; one for each id
  Statuses results_;
  std::map<int, Child*> callbacks_;
  std::multimap<int, const Waiter*> waiters_;
  std::set<int> abandoned_;           ///< registered, but nobody will ask for the result
  const Child* notifying_ = nullptr;  ///< whose notification runs
  pid_t sentinel_ = -1;               ///< a child whose only purpose is to end the collector's wait
  std::uint64_t newest_ = 0;          ///< the last registration
  std::uint64_t waitedFor_ = 0;       ///< the last one when the collector began to wait
  bool childless_ = false;            ///< the system knows no child although some are registered
  bool stopping_ = false;
  bool ended_ = false;  ///< the body is left: nothing will be reaped any more

  std::atomic<unsigned> visitors_{0};

  ::kes::thread::CoopThread thread_;
};

}  // namespace kes::proc

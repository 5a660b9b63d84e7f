#pragma once

#include <atomic>
#include <utility>

#include "kespal/thread/Condition.h"
#include "kespal/thread/LockGuard.h"
#include "kespal/thread/Thread.h"

namespace kes::thread {

/// What a thread object and its native thread share. Both own it, and so does, for the time of the call,
/// whoever signals its condition after unlocking it: the object may be gone as soon as the lock is free.
struct BasicThread::Control {
  Control(void (*body)(void*), std::string threadName, void* bodyArgument, bool isDetached)
      : name(std::move(threadName)), function(body), argument(bodyArgument), detached(isDetached) {}

  // --- fixed at construction
  const std::string name;
  void (*const function)(void*);
  void* const argument;
  const bool detached;

  // --- guarded by the condition's lock
  Condition cond;
  State state = BURIED;
  ::pthread_t handle{};
  std::uint64_t nativeId = 0;  ///< unknownId until the native thread has looked
  bool alive = false;          ///< the native thread has not done its last step: its handle may be used
  bool joining = false;        ///< somebody waits in pthread_join, which only one thread may do
  bool abandoned = false;      ///< the object is gone and nobody will join
  std::uint64_t burials = 0;   ///< tells the waiters of an earlier run that it is over
  std::shared_ptr<Control> nativeShare;  ///< the native thread's ownership of this block
  CoopThread::CoopState coopState = CoopThread::Running;
  CoopThread::Request request = CoopThread::Run;

  static constinit std::atomic<std::int64_t> m_active_threads;
  static constexpr std::uint64_t unknownId = ~std::uint64_t{0};

  // --- the native thread's own steps
  void entry(std::uint64_t ownId);
  void finish() noexcept;  // NOLINT(bugprone-exception-escape): ends the program then

  // --- the rest is called with the lock held
  void setCoopState(CoopThread::CoopState next) {
    if (std::exchange(coopState, next) != next) cond.signalAll();
  }
  void awaitStart() const {
    while (state == STARTING) cond.wait();
  }
  bool prepareJoin();
  bool claimJoin();
  bool mustBury();
  bool outlast(CoopThread::CoopState passing) const;

  // --- and these without it
  int awaitEnd();
  void endJoin(bool buried);

 private:
  bool pickUpGo(std::uint64_t ownId);
};

}  // namespace kes::thread

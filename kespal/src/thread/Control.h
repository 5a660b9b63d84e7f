#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <utility>

#include "kespal/thread/Condition.h"
#include "kespal/thread/LockGuard.h"
#include "kespal/thread/Thread.h"

namespace kes::thread {

/// What a thread object and its native thread share. Both own it, and so does, for the time of the call,
/// whoever signals its condition after unlocking it: the object may be gone as soon as the lock is free.
/// The body is in here, too: the native thread never looks at the object.
struct BasicThread::Control : ProcessBound {
  Control(std::string threadName, bool isDetached) : name(std::move(threadName)), detached(isDetached) {}
  virtual ~Control() = default;

  // --- fixed at construction
  const std::string name;
  const bool detached;

  // --- guarded by the condition's lock
  Condition cond;
  State state = BURIED;
  ::pthread_t handle{};
  std::uint64_t nativeId = 0;  ///< unknownId until the native thread has looked
  bool alive = false;          ///< the native thread has not done its last step: its handle may be used
  bool joining = false;        ///< somebody waits in pthread_join, which only one thread may do
  bool released = false;       ///< the system was told that nobody will join
  std::uint64_t burials = 0;   ///< how many runs are over; so it names the present one
  std::shared_ptr<Control> nativeShare;  ///< the native thread's ownership of this block

  static std::atomic<std::int64_t> m_active_threads;
  static constexpr std::uint64_t unknownId = ~std::uint64_t{0};

  // --- what the kinds of threads differ in
  virtual bool hasBody() const noexcept = 0;
  virtual void runBody() = 0;
  /// The block of a buried thread with the same name and body, for the object in a forked child.
  virtual std::shared_ptr<Control> inChild() const = 0;
  /// The native thread does its last step, however it came to that; the lock is held.
  virtual void noteEnd() noexcept {}
  /// The run is buried; the lock is held.
  virtual void noteBurial() noexcept {}

  // --- the native thread's own steps
  void entry(std::uint64_t ownId);
  void finish() noexcept;  // NOLINT(bugprone-exception-escape): ends the program then

  // --- with the lock held
  void awaitStart() const {
    while (state == STARTING) cond.wait();
  }
  bool prepareJoin();
  bool claimJoin();

  // --- without it
  int awaitEnd();
  void endJoin(bool buried);
  void revokeGo();
  bool outliveObject();

 private:
  static const int m_fork_handler;  ///< the system's answer: the threads that are counted stay behind

  bool pickUpGo(std::uint64_t ownId);
  void release();
};

}  // namespace kes::thread

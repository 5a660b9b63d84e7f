#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <utility>

#include "kespal/thread/Condition.h"
#include "kespal/thread/LockGuard.h"
#include "kespal/thread/Thread.h"
#include "thread/PerProcess.h"

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

  Condition cond;
  State state KES_GUARDED_BY(cond) = BURIED;
  ::pthread_t handle KES_GUARDED_BY(cond){};
  /// unknownId until the native thread has looked
  std::uint64_t nativeId KES_GUARDED_BY(cond) = 0;
  /// The native thread has not done its last step: its handle may be used.
  bool alive KES_GUARDED_BY(cond) = false;
  /// Somebody waits in pthread_join, which only one thread may do.
  bool joining KES_GUARDED_BY(cond) = false;
  /// The system was told that nobody will join.
  bool released KES_GUARDED_BY(cond) = false;
  /// How many runs are over; so it names the present one.
  std::uint64_t burials KES_GUARDED_BY(cond) = 0;
  /// The native thread's ownership of this block.
  std::shared_ptr<Control> nativeShare KES_GUARDED_BY(cond);

  static std::atomic<std::int64_t> m_active_threads;
  static constexpr std::uint64_t unknownId = ~std::uint64_t{0};

  // --- what the kinds of threads differ in
  virtual bool hasBody() const noexcept = 0;
  virtual void runBody() = 0;
  /// The block of a buried thread with the same name and body, for the object in a forked child.
  virtual std::shared_ptr<Control> inChild() const = 0;
  /// The native thread does its last step, however it came to that.
  virtual void noteEnd() noexcept KES_REQUIRES(cond) {}
  /// The run is buried.
  virtual void noteBurial() noexcept KES_REQUIRES(cond) {}

  // --- the native thread's own steps
  static void* nativeEntry(void* control);

  // --- those of others
  /// Whether the calling thread is this one. The system may have given the handle of one that has ended to
  /// the next.
  bool isSelf() const noexcept KES_REQUIRES(cond) {
    return alive && ::pthread_equal(::pthread_self(), handle) != 0;
  }
  void awaitStart() const KES_REQUIRES(cond) {
    while (state == STARTING) cond.wait();
  }
  /// The thread may not have heard of its go: as if that had not been given, unless it was picked up.
  void holdAgain() KES_EXCLUDES(cond);
  bool prepareJoin() KES_REQUIRES(cond);
  /// Joins the run that this number of burials names; returns at once when it is buried.
  void join(std::uint64_t run) KES_EXCLUDES(cond);
  void revokeGo() KES_EXCLUDES(cond);
  bool outliveObject() KES_EXCLUDES(cond);

 private:
  class LastStep;

  static const int m_fork_handler;  ///< the system's answer: the threads that are counted stay behind

  void live() KES_EXCLUDES(cond);
  bool pickUpGo(std::uint64_t ownId) KES_EXCLUDES(cond);
  void finish() noexcept KES_EXCLUDES(cond);  // NOLINT(bugprone-exception-escape): ends the program then

  bool claimJoin() KES_REQUIRES(cond);
  int awaitEnd(::pthread_t thread) KES_EXCLUDES(cond);
  void endJoin(bool buried) KES_EXCLUDES(cond);
  void noteJoin(bool buried) noexcept KES_EXCLUDES(cond);  // NOLINT(bugprone-exception-escape): as finish()
  void setJoined(bool buried) KES_EXCLUDES(cond);
  void release() KES_REQUIRES(cond);
};

}  // namespace kes::thread

#include "thread/Control.h"

#include "error/Report.h"
#include "kespal/error/StaticError.h"
#include "kespal/os/thread/Native.h"

namespace kes::thread {

constinit std::atomic<std::int64_t> BasicThread::Control::m_active_threads{0};

/// The thread's way through its life, from being held to its last step but one; finish() is the last.
void BasicThread::Control::entry(std::uint64_t ownId) {
  m_active_threads.fetch_add(1);
  if (!pickUpGo(ownId)) return;
  cond.signalAll();
  try {
    function(argument);
  } catch (const Exception& error) {
    reportStack({"Thread ", name, " (", Decimal(nativeId), ")", " died with KES exception:\n"}, error);
  } catch (const std::exception& error) {
    reportWhat({"Thread ", name, " (", Decimal(nativeId), ")", " died with std::exception: "}, error);
  } catch (...) {
    if (os::isForcedUnwind()) throw;
    report({"Thread ", name, " (", Decimal(nativeId), ")", " died with an unknown exception\n"});
  }
}

/// False when the thread is to leave without running its body.
bool BasicThread::Control::pickUpGo(std::uint64_t ownId) {
  const LockGuardT<Condition> guard(cond);
  nativeId = ownId;
  while (state == CREATED) cond.wait();
  if (state != STARTING) return false;
  state = detached ? RUNNING_DETACHED : RUNNING;
  return true;
}

/// What is left to do for a native thread that ends, however it came to that. A waiter of any kind is
/// woken: a cancelled thread would never get to what they wait for. The state of a detached thread whose
/// body ran stays as it is.
void BasicThread::Control::finish() noexcept {  // NOLINT(bugprone-exception-escape)
  std::shared_ptr<Control> own;                 // may be the last owner: outlives the lock and the signal
  m_active_threads.fetch_sub(1);
  {
    const LockGuardT<Condition> guard(cond);
    own = std::move(nativeShare);
    alive = false;
    if (state != RUNNING_DETACHED) state = FINISHED;
    coopState = CoopThread::Returned;
  }
  cond.signalAll();
}

bool BasicThread::Control::prepareJoin() {
  switch (state) {
    case RUNNING_DETACHED:
      raiseAt({"src/thread/Thread", 199, "prepareJoin"}, UsageError("Tried to join a detached thread"));
    case BURIED:
      return false;
    case CREATED:
      state = FINISHED;
      cond.signalAll();
      return true;
    default:
      return true;
  }
}

/// Waits while another thread joins. False when that one has buried the thread.
bool BasicThread::Control::claimJoin() {
  const std::uint64_t before = burials;
  while (joining && burials == before) cond.wait();
  if (burials != before) return false;
  joining = true;
  return true;
}

/// Ends what claimJoin() began. What was asked of the thread dies with it: a request that is made from now
/// on is meant for the next run.
void BasicThread::Control::endJoin(bool buried) {
  {
    const LockGuardT<Condition> guard(cond);
    joining = false;
    if (buried) {
      ++burials;
      state = BURIED;
      handle = {};
      coopState = CoopThread::Running;
      request = CoopThread::Run;
    }
  }
  cond.signalAll();
}

/// Waits while the thread is in a state that passes. False when its body has returned, in this run or in
/// one that is buried by now.
bool BasicThread::Control::outlast(CoopThread::CoopState passing) const {
  const std::uint64_t run = burials;
  while (coopState == passing && burials == run) cond.wait();
  return coopState != CoopThread::Returned && burials == run;
}

}  // namespace kes::thread

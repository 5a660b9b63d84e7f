#include "thread/Control.h"

#include "error/Report.h"
#include "kespal/error/StaticError.h"
#include "kespal/os/thread/Native.h"

namespace kes::thread {

constinit std::atomic<std::int64_t> BasicThread::Control::m_active_threads{0};

const int BasicThread::Control::m_fork_handler =
    ::pthread_atfork(nullptr, nullptr, [] { m_active_threads = 0; });

/// The thread's way through its life, from being held to its last step but one; finish() is the last.
void BasicThread::Control::entry(std::uint64_t ownId) {
  m_active_threads.fetch_add(1);
  if (!pickUpGo(ownId)) return;
  cond.signalAll();
  try {
    runBody();
  } catch (const Exception& error) {
    reportStack({"Thread ", name, " (", Decimal(ownId), ")", " died with KES exception:\n"}, error);
  } catch (const std::exception& error) {
    reportWhat({"Thread ", name, " (", Decimal(ownId), ")", " died with std::exception: "}, error);
  } catch (...) {
    if (os::isForcedUnwind()) throw;
    report({"Thread ", name, " (", Decimal(ownId), ")", " died with an unknown exception\n"});
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
/// body ran stays as it is. A thread that forked goes on in the child without anything to do here.
void BasicThread::Control::finish() noexcept {  // NOLINT(bugprone-exception-escape)
  if (isInherited()) return;
  std::shared_ptr<Control> own;  // may be the last owner: outlives the lock and the signal
  m_active_threads.fetch_sub(1);
  {
    const LockGuardT<Condition> guard(cond);
    own = std::move(nativeShare);
    alive = false;
    if (state != RUNNING_DETACHED) state = FINISHED;
    noteEnd();
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
  const std::uint64_t run = burials;
  while (joining && burials == run) cond.wait();
  if (burials != run) return false;
  joining = true;
  return true;
}

int BasicThread::Control::awaitEnd(::pthread_t thread) {
  int result = 0;
  const auto giveUp = [](void* control) { static_cast<Control*>(control)->endJoin(/*buried=*/false); };
  pthread_cleanup_push(giveUp, this);
  result = ::pthread_join(thread, nullptr);
  pthread_cleanup_pop(0);
  return result;
}

/// Ends what claimJoin() began.
void BasicThread::Control::endJoin(bool buried) {
  {
    const LockGuardT<Condition> guard(cond);
    joining = false;
    if (buried) {
      ++burials;
      state = BURIED;
      handle = {};
      noteBurial();
    }
  }
  cond.signalAll();
}

/// Tells the system that nobody will join, once. Who joins already still may.
void BasicThread::Control::release() {
  if (!detached && !joining && !std::exchange(released, true)) ::pthread_detach(handle);
}

/// Takes back the go of a thread that has not picked it up: its object is about to die.
void BasicThread::Control::revokeGo() {
  const LockGuardT<Condition> guard(cond);
  if (state != STARTING || joining) return;
  release();
  state = FINISHED;
  cond.signalAll();
}

/// The object dies. A thread whose body runs is left to itself; a detached one that does not run is awaited,
/// as it cannot be joined. True when the caller has to join.
bool BasicThread::Control::outliveObject() {
  const LockGuardT<Condition> guard(cond);
  if (state == STARTING || state == RUNNING) release();
  if (state != FINISHED && state != CREATED) return false;
  if (!detached) return !released;
  prepareJoin();
  while (alive) cond.wait();
  return false;
}

}  // namespace kes::thread

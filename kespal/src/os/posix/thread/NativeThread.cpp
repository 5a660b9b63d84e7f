#include <pthread.h>

#include <atomic>

#include "error/Report.h"
#include "kespal/error/OsError.h"
#include "kespal/error/StaticError.h"
#include "kespal/os/thread/Native.h"
#include "thread/Control.h"

namespace kes::thread {

/// The last step of every native thread, taken by the destructor of a thread-specific value: it runs on
/// every system after a return, an exit and a cancellation alike.
class BasicThread::Control::LastStep {
 public:
  /// False when the system has no key or no memory for it; then a cleanup handler has to take the step.
  static bool willBeTaken(Control& control) {
    return m_usable.load(std::memory_order_acquire) && ::pthread_setspecific(m_key, &control) == 0;
  }
  static void take(void* control) { static_cast<Control*>(control)->finish(); }

 private:
  static bool makeKey() {
    m_usable = ::pthread_key_create(&m_key, &take) == 0;
    return m_usable;
  }

  static ::pthread_key_t m_key;
  static std::atomic<bool> m_usable;
  static const bool m_made;
};

// The key is made when the program is initialised, not at the first use: a fork in the middle of that would
// leave the child waiting for its end. A thread that a static object has started before does without it.
constinit ::pthread_key_t BasicThread::Control::LastStep::m_key{};
constinit std::atomic<bool> BasicThread::Control::LastStep::m_usable{false};
const bool BasicThread::Control::LastStep::m_made = makeKey();

// Not noexcept: a cancellation unwinds through it.
void* BasicThread::Control::nativeEntry(void* control) {
  auto& shared = *static_cast<Control*>(control);
  if (LastStep::willBeTaken(shared)) {
    shared.live();
  } else {
    pthread_cleanup_push(&LastStep::take, control);
    shared.live();
    pthread_cleanup_pop(1);
  }
  return nullptr;
}

/// The thread's way through its life, from being held to its last step but one; finish() is the last.
void BasicThread::Control::live() {
  os::nameThread(name.c_str());
  std::uint64_t ownId = unknownId;
  if (os::nativeThreadId(ownId) != 0) {
    ownId = unknownId;
    report({"Failed to get native thread ID\n"});
  }
  m_active_threads.fetch_add(1);
  try {
    if (!pickUpGo(ownId)) return;
    cond.signalAll();
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

}  // namespace kes::thread

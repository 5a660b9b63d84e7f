#include "thread/Control.h"

#include <cerrno>

#include "kespal/error/OsError.h"
#include "kespal/error/StaticError.h"
#include "sys/AtEnd.h"

namespace kes::thread {

constinit std::atomic<std::int64_t> BasicThread::Control::m_active_threads{0};

const int BasicThread::Control::m_fork_handler =
    ::pthread_atfork(nullptr, nullptr, [] { m_active_threads = 0; });

void BasicThread::Control::holdAgain() {
  const LockGuardT<Condition> guard(cond);
  if (state == STARTING) state = CREATED;
}

bool BasicThread::Control::prepareJoin() {
  switch (state) {
    case RUNNING_DETACHED:
      raiseAt({"src/thread/Thread", 199, "prepareJoin"}, UsageError("Tried to join a detached thread"));
    case BURIED:
      return false;
    case CREATED: {
      sys::AtEnd holding([this]() KES_UNCHECKED { state = CREATED; });
      state = FINISHED;
      cond.signalAll();
      holding.dismiss();
      return true;
    }
    default:
      return true;
  }
}

void BasicThread::Control::join(std::uint64_t run) {
  constexpr Site site{"src/os/posix/thread/Thread", 190, "join"};
  ::pthread_t native{};
  {
    const LockGuardT<Condition> guard(cond);
    if (burials != run || !prepareJoin()) return;
    // What the system would say: of a detached thread that has ended it must not be asked, and a thread
    // that joins itself must not first wait for another that joins it.
    if (detached) raiseAt(site, OsError(EINVAL));
    if (isSelf()) raiseAt(site, OsError(EDEADLK));
    if (!claimJoin()) return;
    native = handle;
  }
  const int result = awaitEnd(native);
  endJoin(/*buried=*/result == 0);
  checkCode(site, result);
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
  noteJoin(buried);
  cond.signalAll();
}

/// Asks once more for a lock that is refused, and then ends the program: others would wait for this join for
/// ever.
void BasicThread::Control::noteJoin(bool buried) noexcept {  // NOLINT(bugprone-exception-escape)
  try {
    setJoined(buried);
  } catch (const OsError&) {
    setJoined(buried);
  }
}

void BasicThread::Control::setJoined(bool buried) {
  const LockGuardT<Condition> guard(cond);
  joining = false;
  if (!buried) return;
  ++burials;
  state = BURIED;
  handle = {};
  noteBurial();
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

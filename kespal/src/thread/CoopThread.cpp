#include "kespal/thread/CoopThread.h"

#include "kespal/error/StaticError.h"
#include "thread/Control.h"

namespace kes::thread {

// While the lock is held, whoever waits is a co-owner of the control block, because the thread object may
// be destroyed as soon as its owner sees the state that was waited for.

CoopThread::CoopThread(const std::string& name, ICoopThread* user, ICoopThread* self)
    : CppThread(name, nullptr, user != nullptr || self != nullptr ? this : nullptr),
      user_(user),
      self_(self) {}

CoopThread::~CoopThread() { revokeGo(); }

void CoopThread::thread(CppThread&) {
  Control& shared = *control();  // the native thread is an owner of it
  ICoopThread* body = user_ != nullptr ? user_ : self_;
  if (body == nullptr) raiseAt(KES_HERE, UsageError("Tried to run a thread that has no body"));
  body->thread(*this);
  {
    const LockGuardT<Condition> guard(shared.cond);
    shared.coopState = Returned;
  }
  shared.cond.signalAll();
}

void CoopThread::requestRun() { ask(Run); }

void CoopThread::requestReturn() { ask(Return); }

void CoopThread::requestPause() {
  const LockGuardT<Condition> guard(control()->cond);
  control()->request = Pause;
}

bool CoopThread::requestPauseIfRun() {
  const LockGuardT<Condition> guard(control()->cond);
  if (control()->request == Run) control()->request = Pause;
  return control()->request == Pause;
}

void CoopThread::ask(Request request) {
  const std::shared_ptr<Control> shared = control();
  bool isPaused = false;
  {
    const LockGuardT<Condition> guard(shared->cond);
    shared->request = request;
    isPaused = shared->coopState == Paused;
  }
  if (isPaused) shared->cond.signalAll();
}

void CoopThread::waitRunning() const {
  const std::shared_ptr<Control> shared = control();
  const LockGuardT<Condition> guard(shared->cond);
  if (shared->state == BURIED) {
    raiseAt({"src/thread/Thread", 260, "waitRunning"}, UsageError("Thread is already buried"));
  }
  if (isCaller()) {
    raiseAt({"src/thread/Thread", 265, "waitRunning"},
            UsageError("Can't wait on myself to enter running state"));
  }
  if (!shared->outlast(Paused)) {
    raiseAt({"src/thread/Thread", 277, "waitRunning"}, UsageError("CoopThread has returned"));
  }
}

void CoopThread::waitReturned() const {
  const std::shared_ptr<Control> shared = control();
  const LockGuardT<Condition> guard(shared->cond);
  if (shared->state == BURIED) return;
  if (isCaller()) {
    raiseAt({"src/thread/Thread", 289, "waitReturned"}, UsageError("Can't wait on myself to return"));
  }
  const std::uint64_t run = shared->burials;
  while (shared->coopState != Returned && shared->burials == run) shared->cond.wait();
}

void CoopThread::waitPaused() const {
  const std::shared_ptr<Control> shared = control();
  const LockGuardT<Condition> guard(shared->cond);
  if (shared->state == BURIED) {
    raiseAt({"src/thread/Thread", 304, "waitPaused"}, UsageError("Thread is already buried"));
  }
  if (isCaller()) {
    raiseAt({"src/thread/Thread", 309, "waitPaused"}, UsageError("Can't wait on myself to pause"));
  }
  if (!shared->outlast(Running)) {
    raiseAt({"src/thread/Thread", 321, "waitPaused"}, UsageError("CoopThread has returned"));
  }
}

void CoopThread::pause() {
  Control& shared = *control();
  bool wasPaused = false;
  {
    const LockGuardT<Condition> guard(shared.cond);
    if (!isCaller()) {
      raiseAt({"src/thread/Thread", 330, "pause"}, UsageError("Pause called from foreign thread"));
    }
    while (shared.request == Pause) {
      shared.setCoopState(Paused);
      shared.cond.wait();
    }
    wasPaused = std::exchange(shared.coopState, Running) == Paused;
  }
  if (wasPaused) shared.cond.signalAll();
}

bool CoopThread::sleep(const time::RealtimeClock& deadline) {
  Control& shared = *control();
  bool woken = false;
  {
    const LockGuardT<Condition> guard(shared.cond);
    if (!isCaller()) {
      raiseAt({"src/thread/Thread", 354, "sleep"}, UsageError("Pause called from foreign thread"));
    }
    while (shared.request == Run) {
      shared.setCoopState(Paused);
      woken = shared.cond.waitTimed(deadline);
      if (!woken) break;
    }
    shared.coopState = Running;
  }
  shared.cond.signalAll();
  return woken;
}

CoopThread::Request CoopThread::request() const {
  const LockGuardT<Condition> guard(control()->cond);
  return control()->request;
}

CoopThread::CoopState CoopThread::coopState() const {
  const LockGuardT<Condition> guard(control()->cond);
  return control()->coopState;
}

}  // namespace kes::thread

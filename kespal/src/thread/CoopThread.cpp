#include "kespal/thread/CoopThread.h"

#include "kespal/error/StaticError.h"
#include "thread/Control.h"

namespace kes::thread {

// While the lock is held, whoever waits is a co-owner of the control block, because the thread object may
// be destroyed as soon as its owner sees the state that was waited for.

struct CoopThread::Control final : BasicThread::Control {
  Control(std::string threadName, CoopThread& threadObject, ICoopThread* threadBody)
      : BasicThread::Control(std::move(threadName), /*isDetached=*/false),
        object(threadObject),
        body(threadBody) {}

  CoopThread& object;  // only handed to the body, which outlives it if it is not a part of it
  ICoopThread* const body;

  CoopState coopState KES_GUARDED_BY(cond) = Running;
  Request request KES_GUARDED_BY(cond) = Run;

  bool hasBody() const noexcept override { return body != nullptr; }
  void runBody() override {
    body->thread(object);
    if (isInherited()) return;  // the body forked: in the child nobody may hold the lock, or wait
    {
      const LockGuardT<Condition> guard(cond);
      coopState = Returned;
    }
    cond.signalAll();
  }
  std::shared_ptr<BasicThread::Control> inChild() const override {
    return std::make_shared<Control>(name, object, body);
  }
  void noteEnd() noexcept override KES_REQUIRES(cond) { coopState = Returned; }
  /// What was asked of the thread dies with its run: a request that is made from now on is meant for the
  /// next.
  void noteBurial() noexcept override KES_REQUIRES(cond) {
    coopState = Running;
    request = Run;
  }

  void enter(CoopState next) KES_REQUIRES(cond) {
    if (std::exchange(coopState, next) != next) cond.signalAll();
  }
  /// Waits while the thread does this in this run. False when the body has returned, or the run is over.
  bool awaitEndOf(CoopState doing, std::uint64_t run) const KES_REQUIRES(cond) {
    while (coopState == doing && burials == run) cond.wait();
    return coopState != Returned && burials == run;
  }
};

std::shared_ptr<CoopThread::Control> CoopThread::control() const {
  return std::static_pointer_cast<Control>(CppThread::control());
}

CoopThread::CoopThread(const std::string& name, ICoopThread* user, ICoopThread* self)
    : CppThread(std::make_shared<Control>(name, *this, user != nullptr ? user : self)) {}

CoopThread::~CoopThread() { revokeGo(); }

void CoopThread::thread(CppThread&) {
  const std::shared_ptr<Control> shared = control();
  if (!shared->hasBody()) raiseAt(KES_HERE, UsageError("Tried to run a thread that has no body"));
  shared->runBody();
}

void CoopThread::requestRun() { ask(Run); }

void CoopThread::requestReturn() { ask(Return); }

void CoopThread::requestPause() {
  const std::shared_ptr<Control> shared = control();
  const LockGuardT<Condition> guard(shared->cond);
  shared->request = Pause;
}

bool CoopThread::requestPauseIfRun() {
  const std::shared_ptr<Control> shared = control();
  const LockGuardT<Condition> guard(shared->cond);
  if (shared->request == Run) shared->request = Pause;
  return shared->request == Pause;
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
  const std::uint64_t run = shared->burials;
  if (isCaller()) {
    raiseAt({"src/thread/Thread", 265, "waitRunning"},
            UsageError("Can't wait on myself to enter running state"));
  }
  if (!shared->awaitEndOf(Paused, run)) {
    raiseAt({"src/thread/Thread", 277, "waitRunning"}, UsageError("CoopThread has returned"));
  }
}

void CoopThread::waitReturned() const {
  const std::shared_ptr<Control> shared = control();
  const LockGuardT<Condition> guard(shared->cond);
  if (shared->state == BURIED) return;
  const std::uint64_t run = shared->burials;
  if (isCaller()) {
    raiseAt({"src/thread/Thread", 289, "waitReturned"}, UsageError("Can't wait on myself to return"));
  }
  while (shared->coopState != Returned && shared->burials == run) shared->cond.wait();
}

void CoopThread::waitPaused() const {
  const std::shared_ptr<Control> shared = control();
  const LockGuardT<Condition> guard(shared->cond);
  if (shared->state == BURIED) {
    raiseAt({"src/thread/Thread", 304, "waitPaused"}, UsageError("Thread is already buried"));
  }
  const std::uint64_t run = shared->burials;
  if (isCaller()) {
    raiseAt({"src/thread/Thread", 309, "waitPaused"}, UsageError("Can't wait on myself to pause"));
  }
  if (!shared->awaitEndOf(Running, run)) {
    raiseAt({"src/thread/Thread", 321, "waitPaused"}, UsageError("CoopThread has returned"));
  }
}

void CoopThread::pause() {
  const std::shared_ptr<Control> shared = control();
  bool wasPaused = false;
  {
    const LockGuardT<Condition> guard(shared->cond);
    if (!isCaller()) {
      raiseAt({"src/thread/Thread", 330, "pause"}, UsageError("Pause called from foreign thread"));
    }
    while (shared->request == Pause) {
      shared->enter(Paused);
      shared->cond.wait();
    }
    wasPaused = std::exchange(shared->coopState, Running) == Paused;
  }
  if (wasPaused) shared->cond.signalAll();
}

bool CoopThread::sleep(const time::RealtimeClock& deadline) {
  const std::shared_ptr<Control> shared = control();
  bool woken = false;
  {
    const LockGuardT<Condition> guard(shared->cond);
    if (!isCaller()) {
      raiseAt({"src/thread/Thread", 354, "sleep"}, UsageError("Pause called from foreign thread"));
    }
    while (shared->request == Run) {
      shared->enter(Paused);
      woken = shared->cond.waitTimed(deadline);
      if (!woken) break;
    }
    shared->coopState = Running;
  }
  shared->cond.signalAll();
  return woken;
}

CoopThread::Request CoopThread::request() const {
  const std::shared_ptr<Control> shared = control();
  const LockGuardT<Condition> guard(shared->cond);
  return shared->request;
}

CoopThread::CoopState CoopThread::coopState() const {
  const std::shared_ptr<Control> shared = control();
  const LockGuardT<Condition> guard(shared->cond);
  return shared->coopState;
}

}  // namespace kes::thread

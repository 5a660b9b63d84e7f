#include "kespal/thread/Thread.h"

#include <csignal>

#include "kespal/error/StaticError.h"
#include "sys/AtEnd.h"
#include "thread/Control.h"
#include "thread/Run.h"

namespace kes::thread {

const std::shared_ptr<BasicThread::Control>& BasicThread::control() const { return control_->get(); }

const std::string& BasicThread::name() const noexcept { return control_->peek().name; }

std::int64_t BasicThread::activeThreads() noexcept { return Control::m_active_threads.load(); }

BasicThread::State BasicThread::state() const {
  const std::shared_ptr<Control>& shared = control();
  const LockGuardT<Condition> guard(shared->cond);
  return shared->state;
}

void BasicThread::run() {
  const std::shared_ptr<Control> shared = control();
  create();
  {
    const LockGuardT<Condition> guard(shared->cond);
    if (shared->state != CREATED) {
      raiseAt({"src/thread/Thread", 175, "run"},
              UsageError("Tried to start a thread that has already been started"));
    }
    shared->state = STARTING;
  }
  sys::AtEnd holding([&] { shared->holdAgain(); });
  shared->cond.signalAll();
  holding.dismiss();
}

void BasicThread::join() { Run::of(*this).join(); }

bool BasicThread::prepareJoin() {
  const std::shared_ptr<Control>& shared = control();
  const LockGuardT<Condition> guard(shared->cond);
  return shared->prepareJoin();
}

void BasicThread::waitStartOver() const {
  const std::shared_ptr<Control> shared = control();
  const LockGuardT<Condition> guard(shared->cond);
  shared->awaitStart();
}

BasicThread::Id BasicThread::id() const {
  const std::shared_ptr<Control> shared = control();
  const LockGuardT<Condition> guard(shared->cond);
  shared->awaitStart();
  if (shared->state == BURIED || shared->state == CREATED) throwGetIdError();
  return Id(shared->handle, shared->nativeId);
}

// Its caller holds the lock, which the header cannot name.
bool BasicThread::isCaller() const KES_UNCHECKED {
  const Control& shared = *control();
  const std::uint64_t run = shared.burials;
  shared.awaitStart();
  if (shared.burials != run) return false;
  if (shared.state == BURIED || shared.state == CREATED) throwGetIdError();
  return shared.isSelf();
}

void BasicThread::throwGetIdError() const {
  raiseAt({"src/thread/Thread", 145, "throwGetIdError"},
          RuntimeError("Can't get ID for non-existing thread"));
}

Run Run::of(const BasicThread& thread) {
  Run run;
  if (thread.control_->isInherited()) return run;
  const std::shared_ptr<BasicThread::Control>& shared = thread.control();
  const LockGuardT<Condition> guard(shared->cond);
  if (shared->state == BasicThread::BURIED) return run;
  run.control_ = shared;
  run.number_ = shared->burials;
  return run;
}

void Run::join() const {
  if (control_ && !control_->isInherited()) control_->join(number_);
}

int Run::wake(int signal) const {
  if (!control_) return 0;
  const LockGuardT<Condition> guard(control_->cond);  // keeps the native thread from its last step
  const bool runs = control_->alive && control_->burials == number_;
  return runs ? ::pthread_kill(control_->handle, signal) : 0;
}

bool Run::isCaller() const {
  if (!control_) return false;
  const LockGuardT<Condition> guard(control_->cond);
  return control_->burials == number_ && control_->isSelf();
}

struct CppThread::Control final : BasicThread::Control {
  Control(std::string threadName, CppThread& threadObject, IThread* threadBody)
      : BasicThread::Control(std::move(threadName), /*isDetached=*/false),
        object(threadObject),
        body(threadBody) {}

  CppThread& object;  // only handed to the body, which outlives it if it is not a part of it
  IThread* const body;

  bool hasBody() const noexcept override { return body != nullptr; }
  void runBody() override { body->thread(object); }
  std::shared_ptr<BasicThread::Control> inChild() const override {
    return std::make_shared<Control>(name, object, body);
  }
};

CppThread::CppThread(const std::string& name, IThread* user, IThread* self)
    : CppThread(std::make_shared<Control>(name, *this, user != nullptr ? user : self)) {}

CppThread::CppThread(std::shared_ptr<BasicThread::Control> control)
    : BasicThread(std::move(control), /*stackSize=*/0) {}

CppThread::~CppThread() { revokeGo(); }

}  // namespace kes::thread

#include "kespal/thread/Thread.h"

#include "kespal/error/StaticError.h"
#include "thread/Control.h"

namespace kes::thread {

const std::string& BasicThread::name() const noexcept { return control_->name; }

std::int64_t BasicThread::activeThreads() noexcept { return Control::m_active_threads.load(); }

BasicThread::State BasicThread::state() const {
  const LockGuardT<Condition> guard(control_->cond);
  return control_->state;
}

void BasicThread::run() {
  const std::shared_ptr<Control> shared = control_;
  create();
  {
    const LockGuardT<Condition> guard(shared->cond);
    if (shared->state != CREATED) {
      raiseAt({"src/thread/Thread", 175, "run"},
              UsageError("Tried to start a thread that has already been started"));
    }
    shared->state = STARTING;
  }
  shared->cond.signalAll();
}

bool BasicThread::prepareJoin() {
  const LockGuardT<Condition> guard(control_->cond);
  return control_->prepareJoin();
}

void BasicThread::waitStartOver() const {
  const std::shared_ptr<Control> shared = control_;
  const LockGuardT<Condition> guard(shared->cond);
  shared->awaitStart();
}

BasicThread::Id BasicThread::id() const {
  const std::shared_ptr<Control> shared = control_;
  const LockGuardT<Condition> guard(shared->cond);
  shared->awaitStart();
  if (shared->state == BURIED || shared->state == CREATED) throwGetIdError();
  return Id(shared->handle, shared->nativeId);
}

bool BasicThread::isCaller() const {
  control_->awaitStart();
  if (control_->state == BURIED || control_->state == CREATED) throwGetIdError();
  return ::pthread_equal(::pthread_self(), control_->handle) != 0;
}

void BasicThread::throwGetIdError() const {
  raiseAt({"src/thread/Thread", 145, "throwGetIdError"},
          RuntimeError("Can't get ID for non-existing thread"));
}

CppThread::CppThread(const std::string& name, IThread* user, IThread* self)
    : BasicThread(user != nullptr || self != nullptr ? &threadRelay : nullptr, name, this,
                  /*detached=*/false, /*stackSize=*/0),
      user_(user),
      self_(self) {}

CppThread::~CppThread() { revokeGo(); }

void CppThread::threadRelay(void* thread) {
  auto& self = *static_cast<CppThread*>(thread);
  (self.user_ != nullptr ? self.user_ : self.self_)->thread(self);
}

}  // namespace kes::thread

#include "kespal/thread/Thread.h"

#include "kespal/error/StaticError.h"
#include "thread/Control.h"

namespace kes::thread {

const std::shared_ptr<BasicThread::Control>& BasicThread::control() const { return control_.get(); }

const std::string& BasicThread::name() const noexcept { return control_.peek().name; }

std::int64_t BasicThread::activeThreads() noexcept { return Control::m_active_threads.load(); }

BasicThread::State BasicThread::state() const {
  const std::shared_ptr<Control>& shared = control();
  const LockGuardT<Condition> guard(shared->cond);
  return shared->state;
}

std::uint64_t BasicThread::burials() const {
  const std::shared_ptr<Control>& shared = control();
  const LockGuardT<Condition> guard(shared->cond);
  return shared->burials;
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
  shared->cond.signalAll();
}

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

#include "kespal/thread/Thread.h"

#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <limits>
#include <ostream>

#include "error/Report.h"
#include "kespal/State.h"
#include "kespal/error/StaticError.h"
#include "sys/NoCancel.h"
#include "thread/Control.h"

namespace kes::thread {

namespace {

constexpr std::size_t defaultStackSize = 524288;

/// What the system accepts: whole pages, and not fewer than its minimum.
std::size_t acceptableStackSize(std::size_t wanted) {
  const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
  const std::size_t size = std::max(wanted, static_cast<std::size_t>(PTHREAD_STACK_MIN));
  const std::size_t rest = size % page;
  if (rest == 0) return size;
  return size > std::numeric_limits<std::size_t>::max() - page ? size - rest : size + page - rest;
}

}  // namespace

/// The last step of every native thread, taken by the destructor of a thread-specific value: it runs on
/// every system after a return, an exit and a cancellation alike.
class BasicThread::LastStep {
 public:
  /// False when the system refuses; then the native thread takes the step itself, if it gets to that.
  static bool willBeTaken(Control& control) {
    static const LastStep step;
    return step.usable_ && ::pthread_setspecific(step.key_, &control) == 0;
  }

 private:
  LastStep()
      : usable_(::pthread_key_create(&key_,
                                     [](void* control) { static_cast<Control*>(control)->finish(); }) == 0) {}

  ::pthread_key_t key_{};
  bool usable_;
};

BasicThread::BasicThread(void (*function)(void*), const std::string& name, void* argument, bool detached,
                         unsigned long stackSize)
    : control_(std::make_shared<Control>(function, name, argument, detached)) {
  if (const int result = ::pthread_attr_init(&attributes_); result != 0) raiseAt(KES_HERE, OsError(result));
  int result = detached ? ::pthread_attr_setdetachstate(&attributes_, PTHREAD_CREATE_DETACHED) : 0;
  if (result == 0) {
    const std::size_t wanted = stackSize != 0 ? stackSize : defaultStackSize;
    result = ::pthread_attr_setstacksize(&attributes_, acceptableStackSize(wanted));
  }
  if (result != 0) {
    ::pthread_attr_destroy(&attributes_);
    raiseAt(KES_HERE, OsError(result));
  }
}

// A thread whose lock or end the system refuses ends the program: nothing could go on safely.
BasicThread::~BasicThread() {  // NOLINT(bugprone-exception-escape)
  const sys::NoCancel untilBuried;
  const std::shared_ptr<Control> shared = control_;
  LockGuardT<Condition> guard(shared->cond);
  if (shared->mustBury()) {
    guard.unlock();
    join();
  }
  ::pthread_attr_destroy(&attributes_);
}

/// Called when the object dies. A thread whose body runs is left to itself, and so is its stack; a detached
/// one cannot be joined, so its end is waited for here.
bool BasicThread::Control::mustBury() {
  const bool idle = state == FINISHED || state == CREATED;
  if (detached) {
    if (idle) prepareJoin();
    while (idle && alive) cond.wait();
    return false;
  }
  if ((state == STARTING || state == RUNNING) && !joining && !std::exchange(abandoned, true)) {
    ::pthread_detach(handle);
  }
  return idle && !abandoned;
}

void BasicThread::revokeGo() noexcept {  // NOLINT(bugprone-exception-escape)
  const LockGuardT<Condition> guard(control_->cond);
  if (control_->state != STARTING || control_->joining) return;
  control_->state = FINISHED;
  control_->abandoned = true;
  ::pthread_detach(control_->handle);
  control_->cond.signalAll();
}

void BasicThread::create() {
  const LockGuardT<Condition> guard(control_->cond);
  Control& shared = *control_;
  if (shared.state != BURIED) {
    raiseAt({"src/os/posix/thread/Thread", 154, "create"},
            UsageError("Tried to start a thread that is not BURIED"));
  }
  if (kes::State::m_fork_pending) {
    raiseAt({"src/os/posix/thread/Thread", 161, "create"},
            RuntimeError("Tried to create a thread before forking!"));
  }
  if (shared.function == nullptr) raiseAt(KES_HERE, UsageError("Tried to start a thread that has no body"));
  shared.nativeId = Control::unknownId;
  shared.nativeShare = control_;
  if (const int result = ::pthread_create(&shared.handle, &attributes_, &nativeEntry, &shared); result != 0) {
    shared.nativeShare.reset();
    raiseAt({"src/os/posix/thread/Thread", 173, "create"}, OsError(result));
  }
  shared.state = CREATED;
  shared.alive = true;
}

// Not noexcept: a cancellation unwinds through it.
void* BasicThread::nativeEntry(void* control) {
  auto& shared = *static_cast<Control*>(control);
  const bool willFinish = LastStep::willBeTaken(shared);
  os::nameThread(shared.name.c_str());
  std::uint64_t ownId = Control::unknownId;
  try {
    ownId = getNativeThreadId();
  } catch (const OsError&) {
    report({"Failed to get native thread ID\n"});
  }
  shared.entry(ownId);
  if (!willFinish) shared.finish();
  return nullptr;
}

void BasicThread::join() {
  constexpr Site site{"src/os/posix/thread/Thread", 190, "join"};
  const std::shared_ptr<Control> shared = control_;
  {
    const LockGuardT<Condition> guard(shared->cond);
    if (!shared->prepareJoin()) return;
    // What the system would say: of a detached thread that has ended it must not be asked, and a thread
    // that joins itself must not first wait for another that joins it.
    if (shared->detached) raiseAt(site, OsError(EINVAL));
    if (::pthread_equal(::pthread_self(), shared->handle) != 0) raiseAt(site, OsError(EDEADLK));
    if (!shared->claimJoin()) return;
  }
  const int result = shared->awaitEnd();
  shared->endJoin(/*buried=*/result == 0);
  if (result != 0) raiseAt(site, OsError(result));
}

int BasicThread::Control::awaitEnd() {
  int result = 0;
  const auto giveUp = [](void* control) { static_cast<Control*>(control)->endJoin(/*buried=*/false); };
  pthread_cleanup_push(giveUp, this);
  result = ::pthread_join(handle, nullptr);
  pthread_cleanup_pop(0);
  return result;
}

void BasicThread::kill() {
  constexpr Site site{"src/os/posix/thread/Thread", 225, "kill"};
  const std::shared_ptr<Control> shared = control_;
  {
    // The lock keeps the native thread from its last step, so that its handle stays valid meanwhile. It is
    // free again before joining, which takes it too.
    const LockGuardT<Condition> guard(shared->cond);
    if (shared->state == BURIED) return;
    if (shared->state != FINISHED) {
      if (!shared->alive) raiseAt(site, OsError(ESRCH));
      if (const int result = ::pthread_cancel(shared->handle); result != 0) raiseAt(site, OsError(result));
    }
  }
  join();
}

void BasicThread::yield() {
  if (::sched_yield() != 0) raiseAt({"src/os/posix/thread/Thread", 236, "yield"}, OsError(errno));
}

std::uint64_t getNativeThreadId() {
  std::uint64_t id = 0;
  if (const int result = os::nativeThreadId(id); result != 0) {
    raiseAt({"src/os/posix/thread/Thread", 248, "getNativeThreadId"}, OsError(result));
  }
  return id;
}

BasicThread::Id::Id(const std::string& friendly) {
  const std::size_t start = std::min(friendly.find_first_not_of(" \t\n\v\f\r"), friendly.size());
  const char* const end = friendly.data() + friendly.size();
  if (std::from_chars(friendly.data() + start, end, nativeId).ec != std::errc()) {
    raiseAt({"src/os/posix/thread/Thread", 266, "Id"}, RuntimeError("non-numeric friendly thread ID"));
  }
}

std::string BasicThread::Id::friendly() const { return std::to_string(nativeId); }

std::ostream& operator<<(std::ostream& stream, const BasicThread::Id& id) { return stream << id.friendly(); }

}  // namespace kes::thread

#include "kespal/thread/Thread.h"

#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <csignal>
#include <limits>
#include <ostream>

#include "error/Report.h"
#include "kespal/ForkPending.h"
#include "kespal/error/StaticError.h"
#include "kespal/os/thread/Native.h"
#include "sys/AtEnd.h"
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
constinit ::pthread_key_t BasicThread::LastStep::m_key{};
constinit std::atomic<bool> BasicThread::LastStep::m_usable{false};
const bool BasicThread::LastStep::m_made = makeKey();

/// The control block of a thread whose body is a function.
struct BasicThread::PlainControl final : Control {
  PlainControl(std::string threadName, bool isDetached, void (*body)(void*), void* bodyArgument)
      : Control(std::move(threadName), isDetached), function(body), argument(bodyArgument) {}

  void (*const function)(void*);
  void* const argument;

  bool hasBody() const noexcept override { return function != nullptr; }
  void runBody() override { function(argument); }
  std::shared_ptr<Control> inChild() const override {
    return std::make_shared<PlainControl>(name, detached, function, argument);
  }
};

BasicThread::BasicThread(void (*function)(void*), const std::string& name, void* argument, bool detached,
                         unsigned long stackSize)
    : BasicThread(std::make_shared<PlainControl>(name, detached, function, argument), stackSize) {}

BasicThread::BasicThread(std::shared_ptr<Control> control, unsigned long stackSize)
    : control_(std::move(control)) {
  checkCode(KES_HERE, ::pthread_attr_init(&attributes_));
  sys::AtEnd undo([this] { ::pthread_attr_destroy(&attributes_); });
  if (control_.peek().detached) {
    checkCode(KES_HERE, ::pthread_attr_setdetachstate(&attributes_, PTHREAD_CREATE_DETACHED));
  }
  const std::size_t wanted = stackSize != 0 ? stackSize : defaultStackSize;
  checkCode(KES_HERE, ::pthread_attr_setstacksize(&attributes_, acceptableStackSize(wanted)));
  undo.dismiss();
}

// A thread whose lock or end the system refuses ends the program: nothing could go on safely.
BasicThread::~BasicThread() {  // NOLINT(bugprone-exception-escape)
  const sys::NoCancel untilBuried;
  if (!control_.isInherited() && control()->outliveObject()) join();
  ::pthread_attr_destroy(&attributes_);
}

void BasicThread::revokeGo() noexcept {  // NOLINT(bugprone-exception-escape)
  if (!control_.isInherited()) control()->revokeGo();
}

void BasicThread::create() {
  const std::shared_ptr<Control>& own = control();
  Control& shared = *own;
  const LockGuardT<Condition> guard(shared.cond);
  if (shared.state != BURIED) {
    raiseAt({"src/os/posix/thread/Thread", 154, "create"},
            UsageError("Tried to start a thread that is not BURIED"));
  }
  if (ForkPending::m_pending) {
    raiseAt({"src/os/posix/thread/Thread", 161, "create"},
            RuntimeError("Tried to create a thread before forking!"));
  }
  if (!shared.hasBody()) raiseAt(KES_HERE, UsageError("Tried to start a thread that has no body"));
  shared.nativeId = Control::unknownId;
  shared.nativeShare = own;
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
  if (LastStep::willBeTaken(shared)) {
    live(shared);
  } else {
    pthread_cleanup_push(&LastStep::take, control);
    live(shared);
    pthread_cleanup_pop(1);
  }
  return nullptr;
}

void BasicThread::live(Control& shared) {
  os::nameThread(shared.name.c_str());
  std::uint64_t ownId = Control::unknownId;
  try {
    ownId = getNativeThreadId();
  } catch (const OsError&) {
    report({"Failed to get native thread ID\n"});
  }
  shared.entry(ownId);
}

void BasicThread::join() {
  if (!control_.isInherited()) joinRun(burials());
}

void BasicThread::joinRun(std::uint64_t burials) {
  constexpr Site site{"src/os/posix/thread/Thread", 190, "join"};
  if (control_.isInherited()) return;
  const std::shared_ptr<Control> shared = control();
  ::pthread_t native{};
  {
    const LockGuardT<Condition> guard(shared->cond);
    if (shared->burials != burials || !shared->prepareJoin()) return;
    // What the system would say: of a detached thread that has ended it must not be asked, and a thread
    // that joins itself must not first wait for another that joins it.
    if (shared->detached) raiseAt(site, OsError(EINVAL));
    if (shared->isSelf()) raiseAt(site, OsError(EDEADLK));
    if (!shared->claimJoin()) return;
    native = shared->handle;
  }
  const int result = shared->awaitEnd(native);
  shared->endJoin(/*buried=*/result == 0);
  checkCode(site, result);
}

int BasicThread::wakeBySignal(int signal) const {
  const std::shared_ptr<Control> shared = control();
  const LockGuardT<Condition> guard(shared->cond);  // as in kill()
  return shared->alive ? ::pthread_kill(shared->handle, signal) : 0;
}

void BasicThread::kill() {
  constexpr Site site{"src/os/posix/thread/Thread", 225, "kill"};
  if (control_.isInherited()) return;
  const std::shared_ptr<Control> shared = control();
  std::uint64_t run = 0;  // others may join this one, and start the next, before this thread joins
  {
    // The lock keeps the native thread from its last step, so that its handle stays valid meanwhile. It is
    // free again before joining, which takes it too.
    const LockGuardT<Condition> guard(shared->cond);
    run = shared->burials;
    if (shared->state == BURIED) return;
    if (shared->state != FINISHED) {
      if (!shared->alive) raiseAt(site, OsError(ESRCH));
      checkCode(site, ::pthread_cancel(shared->handle));
    }
  }
  joinRun(run);
}

void BasicThread::yield() { check({"src/os/posix/thread/Thread", 236, "yield"}, ::sched_yield()); }

std::uint64_t getNativeThreadId() {
  std::uint64_t id = 0;
  checkCode({"src/os/posix/thread/Thread", 248, "getNativeThreadId"}, os::nativeThreadId(id));
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

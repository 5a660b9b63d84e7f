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
    : control_(std::make_unique<PerProcess<Control>>(std::move(control))) {
  checkCode(KES_HERE, ::pthread_attr_init(&attributes_));
  sys::AtEnd undo([this] { ::pthread_attr_destroy(&attributes_); });
  if (control_->peek().detached) {
    checkCode(KES_HERE, ::pthread_attr_setdetachstate(&attributes_, PTHREAD_CREATE_DETACHED));
  }
  const std::size_t wanted = stackSize != 0 ? stackSize : defaultStackSize;
  checkCode(KES_HERE, ::pthread_attr_setstacksize(&attributes_, acceptableStackSize(wanted)));
  undo.dismiss();
}

// A thread whose lock or end the system refuses ends the program: nothing could go on safely.
BasicThread::~BasicThread() {  // NOLINT(bugprone-exception-escape)
  const sys::NoCancel untilBuried;
  if (!control_->isInherited() && control()->outliveObject()) join();
  ::pthread_attr_destroy(&attributes_);
}

void BasicThread::revokeGo() noexcept {  // NOLINT(bugprone-exception-escape)
  if (!control_->isInherited()) control()->revokeGo();
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
  if (const int result = ::pthread_create(&shared.handle, &attributes_, &Control::nativeEntry, &shared);
      result != 0) {
    shared.nativeShare.reset();
    raiseAt({"src/os/posix/thread/Thread", 173, "create"}, OsError(result));
  }
  shared.state = CREATED;
  shared.alive = true;
}

void BasicThread::kill() {
  constexpr Site site{"src/os/posix/thread/Thread", 225, "kill"};
  if (control_->isInherited()) return;
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
  shared->join(run);
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

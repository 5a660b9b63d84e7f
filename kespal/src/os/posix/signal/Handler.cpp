#include "kespal/signal/Handler.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "error/Report.h"
#include "kespal/error/OsError.h"
#include "kespal/error/StaticError.h"
#include "kespal/signal/Mask.h"
#include "kespal/signal/ScopedMask.h"
#include "kespal/signal/Sender.h"
#include "kespal/signal/Set.h"
#include "kespal/thread/Lock.h"
#include "kespal/thread/LockGuard.h"
#include "signal/Registrations.h"
#include "sys/NoCancel.h"
#include "thread/PerProcess.h"
#include "thread/Run.h"

namespace kes::signal {

namespace {

using Guard = thread::LockGuardT<thread::Lock>;

/// The handler, if any, whose thread this is.
thread_local const void* t_served = nullptr;

/// The process gets a signal that the thread took although it was told to leave them alone.
void giveBack(int signal, int mgmSignal) {
  if (signal == mgmSignal) return;
  Mask::call({signal}, SIG_UNBLOCK);
  Sender::signalProc(signal, ::getpid());
}

/// Nobody may handle the one kind, and sigwait() takes none of the other.
bool canBeWaitedFor(int signal) {
  return Set{signal}.contains(signal) && signal != SIGKILL && signal != SIGSTOP;
}

int setDefaultAction(int signal) {
  struct sigaction action = {};
  action.sa_handler = SIG_DFL;
  action.sa_flags = SA_SIGINFO;
  sigemptyset(&action.sa_mask);
  return ::sigaction(signal, &action, nullptr);
}

/// A process may have been started so, and some systems drop such a signal although it is blocked.
bool isIgnored(int signal) {
  struct sigaction action = {};
  return ::sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

/// Every signal but those that a thread brings on itself: a fault is no less one where it is blocked, and a
/// terminal or a limit answers such a thread otherwise.
Set whatIsSentToTheProcess() {
  ::sigset_t all;
  sigfillset(&all);
  Set signals(all);
  for (const int own :
       {SIGILL, SIGTRAP, SIGABRT, SIGBUS, SIGFPE, SIGSEGV, SIGSYS, SIGPIPE, SIGXFSZ, SIGTTIN, SIGTTOU}) {
    signals.remove(own);
  }
  return signals;
}

}  // namespace

/// What the threads of one process share.
struct Handler::Shared : thread::ProcessBound {
  explicit Shared(Handler& handler, const Registrations& first = {}, int formerMgmSignal = 0)
      : mgmSignal(formerMgmSignal),
        registrations(first),
        owner(handler),
        worker("signal handler", &handler) {}

  thread::Lock lock{thread::Normal};
  bool running KES_GUARDED_BY(lock) = false;
  std::atomic<int> mgmSignal;        ///< may be read without the lock
  std::atomic<bool> leaving{false};  ///< the thread is to take no signal; set without the lock
  thread::Replaceable<Registrations> registrations KES_GUARDED_BY(lock);
  Handler& owner;
  thread::CppThread worker;

  std::shared_ptr<Shared> inChild() const KES_UNCHECKED {
    return std::make_shared<Shared>(owner, *registrations, mgmSignal);
  }

  /// A thread that has ended needs no waking.
  void sendMgmSig() const { checkCode(KES_HERE, thread::Run::of(worker).wake(mgmSignal)); }
  thread::Run tellToEnd() KES_EXCLUDES(lock);
  bool findWaitSet(Set& set) const KES_EXCLUDES(lock);
};

Handler::Handler() : shared_(std::make_unique<thread::PerProcess<Shared>>(std::make_shared<Shared>(*this))) {}

Handler::~Handler() {  // NOLINT(bugprone-exception-escape)
  const sys::NoCancel untilStopped;
  try {
    stop();
  } catch (const Exception& error) {
    reportStack({"Error stopping the signal thread:\n"}, error);
    shared_->get()->worker.kill();  // it must not outlive what it works on
  }
}

void Handler::start(const int& mgmSignal) {
  if (!canBeWaitedFor(mgmSignal)) {
    raiseAt(KES_HERE, UsageError("tried to manage the signal thread by a signal that cannot be waited for"));
  }
  const std::shared_ptr<Shared>& shared = shared_->get();
  const Guard guard(shared->lock);
  auto next = std::make_unique<Registrations>(*shared->registrations);
  next->leave(shared->mgmSignal);
  next->manage(mgmSignal);
  if (isIgnored(mgmSignal)) check(KES_HERE, setDefaultAction(mgmSignal));
  {
    // The thread inherits this: a signal that comes before its first wait would end the process, and so would
    // one that the program blocks in its other threads from now on.
    Set blocked = whatIsSentToTheProcess();
    blocked.add(mgmSignal);
    const ScopedMask inherited(blocked);
    shared->worker.run();  // waits for the lock before it does anything
  }
  shared->registrations.replace(std::move(next));
  shared->mgmSignal = mgmSignal;
  shared->leaving = false;
  shared->running = true;
}

void Handler::stop() {
  if (shared_->isInherited()) return;
  const std::shared_ptr<Shared>& shared = shared_->get();
  if (t_served == shared.get()) {  // a notifier, called with the lock held
    shared->leaving = true;
    raiseAt(KES_HERE, OsError(EDEADLK));
  }
  shared->tellToEnd().join();
}

/// Gives the run to join: others may join it, and start the next one, before the caller does.
thread::Run Handler::Shared::tellToEnd() {
  const Guard guard(lock);
  try {
    if (running) sendMgmSig();
  } catch (const OsError& error) {
    if (error.errnum() != ESRCH) throw;  // the thread has ended by itself, as some systems tell
  }
  running = false;
  return thread::Run::of(worker);
}

void Handler::leaveSignals() {
  if (shared_->isInherited()) return;
  Shared& shared = *shared_->get();
  shared.leaving = true;
  if (t_served != &shared) shared.sendMgmSig();  // the thread itself does not wait
}

void Handler::add(const int& signal, INotify& notifier) {
  const std::shared_ptr<Shared>& shared = shared_->get();
  const Guard guard(shared->lock);
  if (!shared->registrations->waitSet().contains(signal)) {
    auto next = std::make_unique<Registrations>(*shared->registrations);
    next->add(signal, notifier);
    check(KES_HERE, setDefaultAction(signal));
    shared->registrations.replace(std::move(next));
  }
  if (shared->running) shared->sendMgmSig();
}

void Handler::remove(const int& signal, INotify& notifier) {
  const std::shared_ptr<Shared>& shared = shared_->get();
  const Guard guard(shared->lock);
  auto next = std::make_unique<Registrations>(*shared->registrations);
  if (!next->remove(signal, notifier)) {
    raiseAt(KES_HERE, UsageError("tried to remove non-registered signal"));
  }
  if (shared->running) next->manage(shared->mgmSignal);
  shared->registrations.replace(std::move(next));
  if (shared->running) shared->sendMgmSig();
}

void Handler::sendMgmSig() {
  const std::shared_ptr<Shared>& shared = shared_->get();
  const Guard guard(shared->lock);
  if (!shared->running) shared->worker.throwGetIdError();
  shared->sendMgmSig();
}

/// Copies the set to wait for. False when the thread is to end.
bool Handler::Shared::findWaitSet(Set& set) const {
  const Guard guard(lock);
  set = registrations->waitSet();
  return running && !leaving;
}

// A notifier may fork, and come back in the child as well: there the thread just ends.
void Handler::thread(thread::CppThread&) {
  const std::shared_ptr<Shared>& shared = shared_->get();
  t_served = shared.get();
  for (Set set; !shared->isInherited() && shared->findWaitSet(set);) {
    const siginfo_t info = {};
    int signal = 0;
    const int result = ::sigwait(&set.native(), &signal);
    if (result == EINTR) continue;  // some systems tell of it
    if (result != 0) {
      errno = result;  // the call returns its error; who looks at errno shall see the same
      raiseAt(KES_HERE, OsError(result));
    }
    if (shared->leaving) {
      giveBack(signal, shared->mgmSignal);
    } else {
      const Guard guard(shared->lock);
      if (signal != shared->mgmSignal) shared->registrations->tell(signal, info);
    }
  }
}

}  // namespace kes::signal

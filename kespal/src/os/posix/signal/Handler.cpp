#include "kespal/signal/Handler.h"

#include <cerrno>

#include "error/Report.h"
#include "kespal/error/OsError.h"
#include "kespal/error/StaticError.h"
#include "kespal/os/thread/Native.h"
#include "kespal/signal/Mask.h"
#include "kespal/thread/LockGuard.h"
#include "sys/NoCancel.h"

namespace kes::signal {

namespace {

using Guard = thread::LockGuardT<thread::Lock>;

/// Blocks a signal for a scope, so that a thread that is started there inherits it blocked: a signal that
/// comes before the thread's first wait would otherwise end the process.
class Blocked : NoCopy {
 public:
  explicit Blocked(int signal) : before_(Mask::get()) { Mask::call({signal}, SIG_BLOCK); }
  ~Blocked() { ::pthread_sigmask(SIG_SETMASK, &before_.native(), nullptr); }

 private:
  const Set before_;
};

}  // namespace

Handler::Handler() : worker_("signal handler", this) {}

Handler::~Handler() {  // NOLINT(bugprone-exception-escape)
  const sys::NoCancel untilStopped;
  try {
    stop();
  } catch (const Exception& error) {
    reportStack({"Error stopping the signal thread:\n"}, error);
    worker_.kill();  // it must not outlive what it works on
  }
}

void Handler::start(const int& mgmSignal) {
  if (!Set{mgmSignal}.contains(mgmSignal)) {
    raiseAt(KES_HERE, UsageError("tried to manage the signal thread by a signal that cannot be waited for"));
  }
  const Guard guard(lock_);
  const Blocked inherited(mgmSignal);
  worker_.run();  // waits for the lock before it does anything
  if (!notifiers_.contains(mgmSignal_)) waitSet_.remove(mgmSignal_);
  mgmSignal_ = mgmSignal;
  waitSet_.add(mgmSignal);
  running_ = true;
}

void Handler::stop() {
  {
    const Guard guard(lock_);
    try {
      if (running_) sendMgmSig();
    } catch (const OsError& error) {
      if (error.errnum() != ESRCH) throw;  // the thread has ended by itself, as some systems tell
    }
    running_ = false;
  }
  worker_.join();
}

// Signals are sent under the lock: while `running_` holds, nobody can have joined the thread, so that its
// handle is valid.

void Handler::add(const int& signal, INotify& notifier) {
  const Guard guard(lock_);
  if (!waitSet_.contains(signal)) {
    struct sigaction action = {};
    action.sa_handler = SIG_DFL;
    action.sa_flags = SA_SIGINFO;
    sigemptyset(&action.sa_mask);
    if (::sigaction(signal, &action, nullptr) != 0) raiseAt(KES_HERE, OsError(errno));
    notifiers_[signal].insert(&notifier);
    waitSet_.add(signal);
  }
  if (running_) sendMgmSig();
}

void Handler::remove(const int& signal, INotify& notifier) {
  const Guard guard(lock_);
  const auto registered = notifiers_.find(signal);
  if (registered == notifiers_.end() || !registered->second.contains(&notifier)) {
    raiseAt(KES_HERE, UsageError("tried to remove non-registered signal"));
  }
  registered->second.erase(registered->second.find(&notifier));
  if (registered->second.empty()) {
    notifiers_.erase(registered);
    if (!running_ || signal != mgmSignal_) waitSet_.remove(signal);
  }
  if (running_) sendMgmSig();
}

void Handler::sendMgmSig() {
  if (const int result = ::pthread_kill(worker_.id().handle, mgmSignal_); result != 0) {
    raiseAt(KES_HERE, OsError(result));
  }
}

/// Copies the set to wait for. False when the thread is to end.
bool Handler::nextWaitSet(Set& set) {
  const Guard guard(lock_);
  set = waitSet_;
  return running_;
}

void Handler::thread(thread::CppThread&) {
  for (Set set; nextWaitSet(set);) {
    const siginfo_t info = {};
    int signal = 0;
    if (const int result = ::sigwait(&set.native(), &signal); result != 0) {
      errno = result;  // the call returns its error; who looks at errno shall see the same
      raiseAt(KES_HERE, OsError(result));
    }
    const Guard guard(lock_);
    handle(signal, info);
  }
}

/// Tells the notifiers of a signal. The lock is held.
void Handler::handle(const int& signal, const siginfo_t& info) {
  if (signal == mgmSignal_) return;
  const auto registered = notifiers_.find(signal);
  if (registered == notifiers_.end()) return;
  for (INotify* notifier : registered->second) {
    try {
      notifier->notify(signal, info);
    } catch (const Exception& error) {
      reportStack({"handle: Got an exception:\n"}, error);
    } catch (...) {
      if (os::isForcedUnwind()) throw;
      report({"handle: Got an unknown exception\n"});
    }
  }
}

}  // namespace kes::signal

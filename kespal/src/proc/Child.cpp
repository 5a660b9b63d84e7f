#include "kespal/proc/Child.h"

#include <sys/wait.h>

#include <cerrno>
#include <memory>
#include <ostream>
#include <string>
#include <utility>

#include "kespal/State.h"
#include "kespal/error/OsError.h"
#include "kespal/error/StaticError.h"
#include "kespal/signal/Sender.h"
#include "proc/Collector.h"
#include "sys/NoCancel.h"

namespace kes::proc {

constinit Shepherd* Child::m_shepherd = nullptr;
thread::Lock Child::m_init_lock(thread::Normal);

namespace {

using InitGuard = thread::LockGuardT<thread::Lock>;

/// A process that was started with SIGCHLD ignored would never see the end of a child.
void stopIgnoringChildren() {
  struct sigaction action {};
  if (::sigaction(SIGCHLD, nullptr, &action) == 0 && action.sa_handler == SIG_IGN) {
    action.sa_handler = SIG_DFL;
    ::sigaction(SIGCHLD, &action, nullptr);
  }
}

/// A fork inherits the object but not its thread, and nobody knows who held its lock: it is left alone.
void abandonForeignCollector() {
  if (Child::m_shepherd != nullptr && Child::m_shepherd->isOfAnotherProcess()) Child::m_shepherd = nullptr;
}

/// With the init lock held.
void makeCollector() {
  if (Child::m_shepherd != nullptr) return;
  if (State::m_fork_pending) {
    raiseAt({"src/proc/Child", 35, "init"}, RuntimeError("Tried to lazy-initialize shepherd before forking"));
  }
  stopIgnoringChildren();
  auto shepherd = std::make_unique<Shepherd>();
  shepherd->start();
  Child::m_shepherd = shepherd.release();
}

}  // namespace

Collector::Collector(Wanted wanted) {
  const InitGuard guard(Child::m_init_lock);
  abandonForeignCollector();
  if (wanted == Created) makeCollector();
  if (wanted == Existing && Child::m_shepherd == nullptr) {
    raiseAt(KES_HERE, RuntimeError("There is no process collector"));
  }
  shepherd_ = Child::m_shepherd;
  if (shepherd_ != nullptr) shepherd_->enter();
}

Collector::~Collector() {
  if (shepherd_ != nullptr) shepherd_->leave();
}

void Child::init() {
  const InitGuard guard(m_init_lock);
  abandonForeignCollector();
  makeCollector();
}

void Child::exit() {
  {
    const Collector collector(Collector::IfThere);
    if (collector && collector->runsHere()) {
      raiseAt(KES_HERE, RuntimeError("The process collector cannot be ended from its own thread"));
    }
  }
  std::unique_ptr<Shepherd> shepherd;
  {
    const InitGuard guard(m_init_lock);
    abandonForeignCollector();
    shepherd.reset(std::exchange(m_shepherd, nullptr));
  }
  if (shepherd) shepherd->stop();
}

Child::~Child() {  // NOLINT(bugprone-exception-escape)
  if (pid_ == -1 && notify_ == nullptr) return;
  const sys::NoCancel untilForgotten;
  const Collector collector(Collector::IfThere);
  if (collector) collector->forget(*this, pid_, registration_);
}

void Child::setNotify(Notification* notification) {
  if (pid_ != -1) {
    raiseAt({"src/proc/Child", 57, "setNotify"},
            RuntimeError("Can't set notify callback if child is already running"));
  }
  if (notify_ != nullptr) {
    const Collector collector(Collector::IfThere);
    if (collector) collector->awaitNotification(*this);
  }
  notify_ = notification;
}

void Child::exited() {
  if (notify_ != nullptr) notify_->exited(*this);
}

void Child::kill(const int& signal) { this->signal(KES_HERE, signal); }

void Child::term(const int& signal) { this->signal(KES_HERE, signal); }

/// With the collector's lock held a registered child cannot be reaped, and its id not be another's.
void Child::signal(const Site& site, int signal) const {
  const Collector collector(Collector::IfThere);
  if (pid_ == -1 || !collector) raiseAt(site, NoSuchProcessError(ESRCH));
  const Shepherd::Guard guard(collector->condition());
  if (!collector->isRegisteredNoLock(pid_, registration_)) raiseAt(site, NoSuchProcessError(ESRCH));
  signal::Sender::signalProc(signal, pid_);
}

std::ostream& operator<<(std::ostream& stream, const Child::ExitState& state) {
  const int signal = state.status & 0x7f;
  const bool killed = signal != 0 && signal != 0x7f;
  std::string text =
      std::string("finished: ") + (state.finished ? '1' : '0') + "\nkilled: " + (killed ? '1' : '0');
  if (state.finished && !killed) {
    text += "\ncode: " + std::to_string(signal == 0 ? (state.status >> 8) & 0xff : 255);
  }
  return stream << text;
}

}  // namespace kes::proc

#include "kespal/proc/Child.h"

#include <pthread.h>

#include <cerrno>
#include <memory>
#include <new>
#include <ostream>
#include <string>
#include <utility>

#include "Lasting.h"
#include "kespal/ForkPending.h"
#include "kespal/error/OsError.h"
#include "kespal/error/StaticError.h"
#include "proc/Flock.h"
#include "sys/NoCancel.h"

namespace kes::proc {

namespace {

using InitGuard = thread::LockGuardT<thread::Lock>;

/// Made when it is first wanted, maybe by the initialisation of another file, and never destroyed: children
/// may end while the process does. A fork makes it anew, as another thread may have held it at that moment.
constinit Lasting<thread::Lock> g_initLock;

/// Of the next collector; the init lock guards it.
constinit Reaping g_reaping = Reaping::EveryChild;

void makeInitLockAnew() noexcept {
  try {
    new (&g_initLock.value) thread::Lock(thread::Normal);
  } catch (const OsError&) {
    // The one from before stays, and is as good unless somebody held it.
  }
}

thread::Lock& initLock() {
  if (!g_initLock.made) {
    g_initLock.make(thread::Normal);
    ::pthread_atfork(nullptr, nullptr, &makeInitLockAnew);
  }
  return g_initLock.value;
}

/// A fork inherits the object but not its thread, and nobody knows who held its lock: it is left alone.
void abandonForeignCollector() {
  if (Child::m_shepherd != nullptr && Flock::of(*Child::m_shepherd)->isInherited()) {
    Child::m_shepherd = nullptr;
  }
}

/// With the init lock held.
void makeCollector() {
  abandonForeignCollector();
  if (Child::m_shepherd != nullptr) return;
  if (ForkPending::m_pending) {
    raiseAt({"src/proc/Child", 35, "init"}, RuntimeError("Tried to lazy-initialize shepherd before forking"));
  }
  auto shepherd = std::make_unique<Shepherd>(g_reaping);
  shepherd->start();
  Child::m_shepherd = shepherd.release();
}

/// With the init lock held.
std::shared_ptr<Flock> presentCollectorNoLock() {
  abandonForeignCollector();
  return Child::m_shepherd != nullptr ? Flock::of(*Child::m_shepherd) : nullptr;
}

/// The collector of today; null when there is none.
std::shared_ptr<Flock> presentCollector() {
  const InitGuard guard(initLock());
  return presentCollectorNoLock();
}

}  // namespace

constinit Shepherd* Child::m_shepherd = nullptr;
thread::Lock& Child::m_init_lock = initLock();

void Child::init() {
  const InitGuard guard(initLock());
  makeCollector();
}

void Child::setReaping(Reaping reaping) {
  const InitGuard guard(initLock());
  abandonForeignCollector();
  if (m_shepherd != nullptr) {
    raiseAt(KES_HERE, UsageError("Can't change which children are reaped: there is a process collector"));
  }
  g_reaping = reaping;
}

std::shared_ptr<Flock> Child::collector() {
  const InitGuard guard(initLock());
  makeCollector();
  return Flock::of(*m_shepherd);
}

void Child::exit() {
  const auto collector = presentCollector();
  if (collector && collector->runsHere()) {
    raiseAt(KES_HERE, RuntimeError("The process collector cannot be ended from its own thread"));
  }
  if (!collector) return;
  // First of all, as two collectors that run would take each other's children.
  collector->stop();
  std::unique_ptr<Shepherd> shepherd;
  const InitGuard guard(initLock());  // free again before the collector dies
  if (presentCollectorNoLock() == collector) shepherd.reset(std::exchange(m_shepherd, nullptr));
}

bool Child::isOfThisProcess() const noexcept { return flock_ && !flock_->isInherited(); }

Child::~Child() {  // NOLINT(bugprone-exception-escape)
  if (!isOfThisProcess()) return;
  const sys::NoCancel untilForgotten;
  flock_->forget(registeredPid_, registration_);
  flock_->awaitNotification(*this);
}

void Child::setNotify(Notification* notification) {
  if (pid_ != -1) {
    raiseAt({"src/proc/Child", 57, "setNotify"},
            RuntimeError("Can't set notify callback if child is already running"));
  }
  if (notify_ != nullptr && isOfThisProcess()) flock_->awaitNotification(*this);
  notify_ = notification;
}

void Child::Notification::released(Child&) {}

void Child::exited() {
  if (notify_ != nullptr) notify_->exited(*this);
}

void Child::released() {
  if (notify_ != nullptr) notify_->released(*this);
}

void Child::kill(const int& signal) { this->signal(KES_HERE, signal); }

void Child::term(const int& signal) { this->signal(KES_HERE, signal); }

void Child::signal(const Site& site, int signal) const {
  if (pid_ == -1 || !isOfThisProcess()) raiseAt(site, NoSuchProcessError(ESRCH));
  flock_->signal(site, signal, pid_, registration_, presentCollector().get());
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

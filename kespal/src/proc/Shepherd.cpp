#include "kespal/proc/Shepherd.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <iterator>
#include <limits>
#include <optional>
#include <string>

#include "error/Report.h"
#include "kespal/error/OsError.h"
#include "kespal/error/StaticError.h"
#include "kespal/proc/Child.h"
#include "sys/AtEnd.h"

namespace kes::proc {

using ::kes::thread::Condition;
using ::kes::thread::CoopThread;

constinit std::atomic<std::uint64_t> Shepherd::m_registrations{0};

/// Somebody who waits for one child. Each is woken for its own: waking all for every result would cost the
/// square of their number.
struct Shepherd::Waiter {
  explicit Waiter(::kes::thread::Lock& lock) : arrived(lock) {}

  Condition arrived;
};

Shepherd::Shepherd() : lock_(::kes::thread::Normal), cond_(lock_), thread_("process collector", this) {}

Shepherd::~Shepherd() {  // NOLINT(bugprone-exception-escape)
  if (thread_.state() != CoopThread::BURIED) stop();
  const Guard guard(cond_);
  while (visitors_ != 0) cond_.wait();
}

void Shepherd::leave() {
  const Guard guard(cond_);
  if (--visitors_ == 0) cond_.signalAll();
}

void Shepherd::start() { thread_.run(); }

void Shepherd::stop() {
  try {
    {
      const Guard guard(cond_);
      stopping_ = true;
      thread_.requestReturn();
      endWait();
      cond_.signalAll();
    }
    thread_.join();
  } catch (const Exception& error) {
    reportStack({"Error joining ", thread_.name(), " thread:\n"}, error, /*end=*/"");
  }
  reapSentinel();
}

/// The collector may sit in wait() until the next child ends: one that ends at once is made for it. Should
/// the fork be refused, the next real child has to do.
void Shepherd::endWait() {
  if (registered_.empty() || sentinel_ != -1) return;
  sentinel_ = ::fork();
  if (sentinel_ == 0) ::_exit(0);
}

/// The collector may have left for another child's sake.
void Shepherd::reapSentinel() {
  const Guard guard(cond_);
  if (sentinel_ == -1) return;
  while (::waitpid(sentinel_, nullptr, 0) == -1 && errno == EINTR) {
  }
  sentinel_ = -1;
}

std::uint64_t Shepherd::addNoLock(const int& pid, Child* child) {
  // A process with this id exists now: one that is still registered under it was reaped by somebody else.
  abandoned_.erase(pid);
  callbacks_.erase(pid);
  if (const auto gone = registeredAs(pid); gone != registered_.end()) registered_.erase(gone);
  newest_ = ++m_registrations;
  registered_.insert({{pid, newest_}, 0});
  if (child != nullptr) callbacks_.insert({pid, child});
  childless_ = false;
  cond_.signalAll();
  thread_.requestRun();
  return newest_;
}

Shepherd::Statuses::const_iterator Shepherd::registeredAs(int pid) const {
  const auto child = registered_.lower_bound({pid, 0});
  return child != registered_.end() && child->first.first == pid ? child : registered_.end();
}

bool Shepherd::isCaller() const { return ::pthread_equal(::pthread_self(), thread_.id().handle) != 0; }

bool Shepherd::runsHere() const noexcept {
  try {
    return isCaller();
  } catch (const RuntimeError&) {
    return false;
  }
}

Shepherd::Statuses::const_iterator Shepherd::resultOf(int pid, std::uint64_t registration) const {
  if (registration != latest) return results_.find({pid, registration});
  if (registeredAs(pid) != registered_.end()) return results_.end();
  const auto next = results_.upper_bound({pid, std::numeric_limits<std::uint64_t>::max()});
  if (next == results_.begin() || std::prev(next)->first.first != pid) return results_.end();
  return std::prev(next);
}

bool Shepherd::fetch(int pid, std::uint64_t registration, int& status) {
  const auto result = resultOf(pid, registration);
  if (result == results_.end()) return false;
  status = result->second;
  results_.erase(result);
  return true;
}

bool Shepherd::wait(const int& pid, int& status, const time::Milliseconds* timeout,
                    std::uint64_t registration) {
  const bool isCollector = isCaller();
  enter();
  const sys::AtEnd leaving([this] { leave(); });
  const Guard guard(cond_);
  std::optional<time::RealtimeClock> deadline;
  if (timeout != nullptr) deadline.emplace() += *timeout;

  const Waiter waiter(lock_);
  const auto entry = waiters_.insert({pid, &waiter});
  const sys::AtEnd unlisting([this, entry] { waiters_.erase(entry); });
  while (!fetch(pid, registration, status)) {
    if (isCollector) {
      raiseAt({"src/proc/Shepherd", 124, "wait"}, RuntimeError("need no lock but my result's not there?!"));
    }
    if (ended_) raiseAt(KES_HERE, RuntimeError("The process collector has ended"));
    if (registration != latest && !isRegisteredNoLock(pid, registration)) {
      raiseAt(KES_HERE, RuntimeError("The process collector does not know this child"));
    }
    if (!deadline) {
      waiter.arrived.wait();
    } else if (!waiter.arrived.waitTimed(*deadline)) {
      return false;
    }
  }
  return true;
}

void Shepherd::wakeWaiters(int pid) const {
  const auto [first, last] = waiters_.equal_range(pid);
  for (auto waiter = first; waiter != last; ++waiter) waiter->second->arrived.signal();
}

void Shepherd::thread(CoopThread& self) {
  const sys::AtEnd finishing([this] { finish(); });
  while (awaitWork(self)) reapOne();
}

/// Pauses until there is a child to wait for. False when the thread is to end.
bool Shepherd::awaitWork(CoopThread& self) {
  while (self.request() == CoopThread::Run) {
    Guard guard(cond_);
    while (childless_ && !stopping_) cond_.wait();
    if (stopping_) return false;
    if (!registered_.empty()) {
      waitedFor_ = newest_;
      return true;
    }
    self.requestPauseIfRun();
    guard.unlock();
    self.pause();
  }
  return false;
}

void Shepherd::reapOne() {
  // Only looks: a child that is reaped without the lock would leave its number to the next one before its
  // own status is filed.
  siginfo_t ended{};
  if (::waitid(P_ALL, 0, &ended, WEXITED | WNOWAIT) == -1) {
    waitFailed(errno);
  } else {
    reap(ended.si_pid);
  }
}

/// Without any child left (somebody else collected ours) the next wait would fail again, and again: the
/// thread then waits for the next registration instead.
void Shepherd::waitFailed(int error) {
  {
    const Guard guard(cond_);
    if (stopping_) return;
    childless_ = error == ECHILD && waitedFor_ == newest_;
  }
  report({thread_.name(), ": Error waiting for childs ...\n"});
}

void Shepherd::reap(pid_t pid) {
  Guard guard(cond_);
  int status = 0;
  if (::waitpid(pid, &status, WNOHANG) != pid) return;  // somebody else was faster
  if (pid == sentinel_) {
    sentinel_ = -1;
    return;
  }
  const auto child = registeredAs(pid);
  if (child == registered_.end()) {
    guard.unlock();
    report({thread_.name(), ": Got info for not registered child: ", Decimal(static_cast<std::uint64_t>(pid)),
            "\n"});
    return;
  }
  auto ended = registered_.extract(child);
  ended.mapped() = status;
  if (abandoned_.erase(pid) == 0) results_.insert(std::move(ended));
  checkCB(pid, guard);
  if (!guard.dismissed()) return wakeWaiters(pid);
  const Guard again(cond_);
  wakeWaiters(pid);
}

void Shepherd::checkCB(const int& pid, Guard& guard) {
  const auto entry = callbacks_.find(pid);
  if (entry == callbacks_.end()) return;
  Child* const child = entry->second;
  callbacks_.erase(entry);
  notifying_ = child;
  guard.unlock();
  const sys::AtEnd done([this] {
    const Guard again(cond_);
    notifying_ = nullptr;
    cond_.signalAll();
  });
  try {
    child->exited();
  } catch (const Exception& error) {
    reportStack({"checkCB: callback has thrown an exception:\n"}, error, /*end=*/"");
  }
}

void Shepherd::forget(const Child& child, int pid, std::uint64_t registration) {
  {
    const Guard guard(cond_);
    std::erase_if(callbacks_, [&child](const auto& entry) { return entry.second == &child; });
    results_.erase({pid, registration});
    if (isRegisteredNoLock(pid, registration)) abandoned_.insert(pid);
  }
  awaitNotification(child);
}

void Shepherd::awaitNotification(const Child& child) const {
  if (runsHere()) return;  // from within it, say to delete the child
  const Guard guard(cond_);
  while (notifying_ == &child) cond_.wait();
}

/// However the body is left: whoever waits would wait for ever.
void Shepherd::finish() {
  const Guard guard(cond_);
  ended_ = true;
  for (const auto& [pid, waiter] : waiters_) waiter->arrived.signal();
  cond_.signalAll();
}

}  // namespace kes::proc

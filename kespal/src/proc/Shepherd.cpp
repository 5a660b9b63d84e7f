#include "kespal/proc/Shepherd.h"

#include "proc/Flock.h"
#include "sys/NoCancel.h"

namespace kes::proc {

Shepherd::Shepherd() : Shepherd(Reaping::EveryChild) {}

Shepherd::Shepherd(Reaping reaping) : reaping_(reaping), flock_(Flock::make(*this, reaping)) {}

Shepherd::~Shepherd() {  // NOLINT(bugprone-exception-escape)
  const sys::NoCancel untilEnded;
  if (!flock_->isInherited() && !flock_->isBuried()) flock_->stop();
}

void Shepherd::start() {
  if (flock_->isInherited()) flock_ = Flock::make(*this, reaping_);
  flock_->start();
}

void Shepherd::stop() {
  if (!flock_->isInherited()) flock_->stop();
}

const thread::Condition& Shepherd::condition() const noexcept { return flock_->condition(); }

void Shepherd::addNoLock(const int& pid, Child* child) KES_UNCHECKED {
  flock_->expectNoLock();
  flock_->addNoLock(pid, child);
}

bool Shepherd::wait(const int& pid, int& status, const time::Milliseconds* timeout) {
  const std::shared_ptr<Flock> flock = flock_;  // may outlive this object
  flock->awaitThread();
  return flock->wait(pid, status, timeout, Records::latest);
}

void Shepherd::checkCB(const int& pid, Guard& guard) { flock_->checkCB(pid, guard); }

void Shepherd::thread(thread::CoopThread&) { flock_->collect(); }

}  // namespace kes::proc

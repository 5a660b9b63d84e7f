#include "os/NoFork.h"

#include <pthread.h>

namespace kes::os {

namespace {

constinit ::pthread_mutex_t g_gate = PTHREAD_MUTEX_INITIALIZER;
// Who is inside may fork, from a signal handler, and must not wait for itself.
thread_local bool t_isInside = false, t_isForking = false;

/// If it is refused, forks go on as if there were no gate.
bool take() { return ::pthread_mutex_lock(&g_gate) == 0; }

void giveBack(bool& isTaken) {
  if (!isTaken) return;
  isTaken = false;
  ::pthread_mutex_unlock(&g_gate);
}

void beforeFork() { t_isForking = !t_isInside && take(); }
void afterFork() { giveBack(t_isForking); }

[[maybe_unused]] const int g_watching = ::pthread_atfork(&beforeFork, &afterFork, &afterFork);

}  // namespace

NoFork::NoFork() noexcept { t_isInside = take(); }
NoFork::~NoFork() { giveBack(t_isInside); }

}  // namespace kes::os

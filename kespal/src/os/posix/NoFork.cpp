#include "os/NoFork.h"

#include <pthread.h>

namespace kes::os {

namespace {

constinit ::pthread_mutex_t g_gate = PTHREAD_MUTEX_INITIALIZER;
// A signal handler may fork there, and must not wait for its own thread.
thread_local bool t_isInside = false;

void close() {
  if (!t_isInside) ::pthread_mutex_lock(&g_gate);
}

void open() {
  if (!t_isInside) ::pthread_mutex_unlock(&g_gate);
}

[[maybe_unused]] const int g_watching = ::pthread_atfork(&close, &open, &open);

}  // namespace

NoFork::NoFork() noexcept {
  ::pthread_mutex_lock(&g_gate);
  t_isInside = true;
}

NoFork::~NoFork() {
  t_isInside = false;
  ::pthread_mutex_unlock(&g_gate);
}

}  // namespace kes::os

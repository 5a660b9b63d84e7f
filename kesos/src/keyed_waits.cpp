#include "keyed_waits.h"

#include <cerrno>

#include "deadline.h"
#include "limited_waits.h"
#include "waits.h"

namespace kes::kesos {

namespace {

WaitState failWith(WaitState outcome, int errnum) {
  errno = errnum;
  return outcome;
}

}  // namespace

WaitState waitKeyed(int semid, unsigned int timeoutMs, std::chrono::nanoseconds interval,
                    bool (*look)(int semid)) {
  const Deadline end(timeoutMs);
  for (;;) {
    if (os::lowerWithin(semid, end.rest(interval))) return signalled;
    if (errno != EAGAIN && errno != EINTR) return failed;
    if (shuttingDown()) return failWith(failed, EINTR);
    if (look(semid)) return holderDied;
    if (end.isOver()) return failWith(timedOut, ETIMEDOUT);
  }
}

}  // namespace kes::kesos

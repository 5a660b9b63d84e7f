#include "support/ScriptedClock.h"
#include "support/Calls.h"

#include <cerrno>
#include <optional>

namespace {

using kes::test::Call;
using kes::test::Instead;
using kes::test::real;

std::optional<::timespec> scriptedTime;
int scriptedErrno = 0;
clockid_t lastId = -1;

const Instead<Call::clock_gettime> clockHere([](clockid_t id, ::timespec* now) {
  lastId = id;
  if (scriptedErrno != 0) {
    errno = scriptedErrno;
    return -1;
  }
  if (!scriptedTime) return real<Call::clock_gettime>(id, now);
  *now = *scriptedTime;
  return 0;
});

}  // namespace

namespace kes::test {

ScriptedClock::ScriptedClock(time_t sec, long nsec) { set(sec, nsec); }

ScriptedClock::~ScriptedClock() {
  scriptedTime.reset();
  scriptedErrno = 0;
}

void ScriptedClock::set(time_t sec, long nsec) { scriptedTime = ::timespec{.tv_sec = sec, .tv_nsec = nsec}; }
void ScriptedClock::fail(int errnum) { scriptedErrno = errnum; }
clockid_t ScriptedClock::lastRead() { return lastId; }

}  // namespace kes::test

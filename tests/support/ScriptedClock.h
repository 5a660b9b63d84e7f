#pragma once

#include <time.h>

namespace kes::test {

/// Makes the products read one chosen time, or fail to, until the object dies. The test program is made
/// with CALLS clock_gettime; without such an object the call goes through to the system.
class ScriptedClock {
 public:
  ScriptedClock(time_t sec, long nsec);
  ~ScriptedClock();
  ScriptedClock(const ScriptedClock&) = delete;
  ScriptedClock& operator=(const ScriptedClock&) = delete;

  void set(time_t sec, long nsec);
  void fail(int errnum);

  /// Id of the clock that was read last, scripted or not.
  static clockid_t lastRead();
};

}  // namespace kes::test

#pragma once

#include <cerrno>

#include "support/EveryFailure.h"
#include "support/Surroundings.h"

namespace kes::test {

/// Nothing else makes System V objects, and the programs that do run one after the other.
inline const bool objectsAreCounted = Surroundings::countObjects();

/// Calls a flat function, where 1 is success. What it says about errno holds: a call that was refused is not
/// covered up by what came after it.
template <typename Function>
bool flat(Stage& stage, Function function) {
  int errnum = 0;
  const bool succeeded = stage.act([&] {
    errno = 0;
    const bool isOne = function() == 1;
    errnum = errno;
    return isOne;
  });
  for (int call = 0; !succeeded && call < static_cast<int>(Call::Last); ++call) {
    if (!stage.isRefused(static_cast<Call>(call))) continue;
    // A semaphore that the system knows no more was removed.
    const bool isRemoved = errnum == EIDRM && stage.isRefused(Call::semctl, EINVAL);
    stage.check(isRemoved || stage.isRefused(static_cast<Call>(call), errnum), "errno says why it failed");
  }
  return succeeded;
}

}  // namespace kes::test
